#include "platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "platform/error_state.h"
#include "platform/file_test.h"
#include "platform/unique_fd.h"

namespace opalcrt {

namespace {

// Gives the open file the mode and owner of the model, or 0644 when there is none.
bool TakeModeAndOwner(int fd, const std::string &modelPath, mode_t mode)
{
    struct stat model = {};
    if (stat(modelPath.c_str(), &model) != 0) {
        return errno == ENOENT && fchmod(fd, mode) == 0;
    }
    // The owner first: fchown clears set-id bits, and fchmod then sets exactly what the model has.
    return fchown(fd, model.st_uid, model.st_gid) == 0 && fchmod(fd, model.st_mode & 07777) == 0;
}

}  // namespace

bool WriteAll(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno != EINTR) {
            return false;
        }
        done += put > 0 ? static_cast<size_t>(put) : 0;
    }
    return true;
}

bool WriteNewFile(const std::string &path, const std::string &text, const std::string &modelPath, mode_t mode)
{
    // O_EXCL on a name that was just removed: nothing that stands there is ever written through.
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        return SET_PLATFORM_ERRNO(errno);
    }
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.IsOpen() && TakeModeAndOwner(fd.Get(), modelPath, mode) && WriteAll(fd.Get(), text) &&
        fsync(fd.Get()) == 0 && fd.Close() == 0) {
        return true;
    }
    const int error = errno;
    SET_PLATFORM_ERRNO(error);
    unlink(path.c_str());
    errno = error;
    return false;
}

bool RenameAndSync(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) != 0) {
        return SET_PLATFORM_ERRNO(errno);
    }
    return SyncParent(to);
}

bool RemoveAndSync(const std::string &path)
{
    if (unlink(path.c_str()) != 0) {
        SET_PLATFORM_ERRNO(errno);
        return IsMissing(errno);
    }
    return SyncParent(path);
}

bool ReplaceFile(const std::string &path, const std::string &text, const std::string &modelPath)
{
    const std::string fresh = path + ".new";
    if (!WriteNewFile(fresh, text, modelPath)) {
        return false;
    }
    if (RenameAndSync(fresh, path)) {
        return true;
    }
    const int error = errno;
    unlink(fresh.c_str());  // Not there when only the sync has failed.
    errno = error;
    return false;
}

bool SyncPath(const std::string &path)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd.IsOpen() || fsync(fd.Get()) != 0) {
        return SET_PLATFORM_ERRNO(errno);
    }
    return true;
}

bool SyncParent(const std::string &path) { return SyncPath(std::filesystem::path(path).parent_path()); }

bool SyncTree(const std::string &path)
{
    namespace fs = std::filesystem;
    try {
        if (fs::is_symlink(fs::symlink_status(path))) {
            return true;
        }
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(path)) {
            const fs::file_status status = entry.symlink_status();
            if ((fs::is_regular_file(status) || fs::is_directory(status)) &&
                !SyncPath(entry.path().native())) {
                return false;
            }
        }
    } catch (const fs::filesystem_error &error) {
        errno = error.code().value();
        return SET_PLATFORM_ERRNO(errno);
    }
    return SyncPath(path);
}

}  // namespace opalcrt
