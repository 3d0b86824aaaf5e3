#include "platform/file_test.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/atomic_file.h"
#include "platform/error_state.h"

namespace opalcrt
{

namespace
{

// stat(2) with the three answers of the header.
int LookAt(const char *path, struct stat &info)
{
    if (stat(path, &info) == 0) {
        return 1;
    }
    SET_PLATFORM_ERRNO(errno);
    return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
}

bool IsSameTime(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

int YLIBCFileExist(const char *path)
{
    struct stat info = {};
    return LookAt(path, info);
}

int YLIBCFileCheckDir(const char *path)
{
    struct stat info = {};
    const int answer = LookAt(path, info);
    if (answer == 1 && !S_ISDIR(info.st_mode)) {
        errno = ENOTDIR;
        SET_PLATFORM_ERRNO(errno);
        return 0;
    }
    return answer;
}

bool IsSameFile(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_size == other.st_size &&
           IsSameTime(one.st_mtim, other.st_mtim) && IsSameTime(one.st_ctim, other.st_ctim);
}

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

char *YLIBCFgets(char *buffer, int size, FILE *file)
{
    return fgets(buffer, size, file);
}

bool ReadWhole(int fd, size_t limit, std::string &text)
{
    text.clear();
    std::string chunk(64UL * 1024, '\0');  // Not on the stack, which a caller may have limited.
    for (;;) {
        const ssize_t got = read(fd, chunk.data(), chunk.size());
        if (got == 0) {
            return true;
        }
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got > 0 && text.size() + static_cast<size_t>(got) > limit) {
            errno = EFBIG;
        } else if (got > 0) {
            text.append(chunk, 0, static_cast<size_t>(got));
            continue;
        }
        SET_PLATFORM_ERROR(kErrSystemCall);
        return false;
    }
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
