#include "platform/file_read.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/atomic_file.h"
#include "platform/error_state.h"

namespace opalcrt {

UniqueFd OpenRegularFile(const char *path)
{
    // O_NONBLOCK: opening a fifo must not wait for a writer. It has no effect on a regular file.
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat info = {};
    if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) {
        SET_PLATFORM_ERRNO(errno);
        return UniqueFd();
    }
    if (!S_ISREG(info.st_mode)) {
        SET_PLATFORM_ERROR(kErrBadFormat);
        errno = EINVAL;
        return UniqueFd();
    }
    return fd;
}

UniqueFile OpenForReading(const char *path)
{
    UniqueFd fd = OpenRegularFile(path);
    if (!fd.IsOpen()) {
        return nullptr;
    }
    UniqueFile file(fdopen(fd.Get(), "r"));
    if (file == nullptr) {
        SET_PLATFORM_ERRNO(errno);
        return nullptr;
    }
    (void)fd.Release();  // The stream's now.
    return file;
}

char *YLIBCFgets(char *buffer, int size, FILE *file) { return fgets(buffer, size, file); }

bool ReadWhole(int fd, size_t limit, std::string &text)
{
    text.clear();
    std::string chunk(16UL * 1024, '\0');  // Not on the stack, which a caller may have limited.
    for (ssize_t got; (got = read(fd, chunk.data(), chunk.size())) != 0;) {
        if (got > 0 && text.size() + static_cast<size_t>(got) <= limit) {
            text.append(chunk, 0, static_cast<size_t>(got));
        } else if (got > 0 || errno != EINTR) {
            errno = got > 0 ? EFBIG : errno;
            SET_PLATFORM_ERROR(kErrSystemCall);
            return false;
        }
    }
    return true;
}

int YLIBCFileUTF8BomStrip(const char *path)
{
    constexpr char kMark[] = "\xEF\xBB\xBF";
    constexpr size_t kLongestPem = 16UL * 1024 * 1024;

    const UniqueFd fd = OpenRegularFile(path);
    std::string text;
    if (!fd.IsOpen() || !ReadWhole(fd.Get(), kLongestPem, text)) {
        return -1;
    }
    if (!text.starts_with(kMark)) {
        return 0;
    }
    return ReplaceFile(path, text.substr(sizeof(kMark) - 1), path) ? 0 : -1;
}

}  // namespace opalcrt
