#include "deploy/crt_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/log.h"
#include "deploy/dir_utils.h"
#include "platform/error_state.h"
#include "platform/file_test.h"
#include "platform/process.h"
#include "platform/unique_fd.h"

namespace opalcrt {

namespace {

constexpr mode_t kCrtFileMode = 0400;

// What cp would wait for or copy without end, a fifo or a device, is no certificate. The size of the source.
bool IsRegularFile(const std::string &path, off_t &size)
{
    struct stat source = {};
    const bool isThere = stat(path.c_str(), &source) == 0;
    if (!isThere || !S_ISREG(source.st_mode)) {
        return SET_PLATFORM_ERRNO(isThere ? EINVAL : errno);
    }
    size = source.st_size;
    return true;
}

// A copy that is shorter than its source fails with ENODATA.
bool SetModeAndOwner(const std::string &path, uid_t uid, gid_t gid, off_t size)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat copy = {};
    if (!fd.IsOpen() || fchmod(fd.Get(), kCrtFileMode) != 0 || fchown(fd.Get(), uid, gid) != 0 ||
        fsync(fd.Get()) != 0 || fstat(fd.Get(), &copy) != 0) {
        return false;
    }
    errno = ENODATA;
    return copy.st_size >= size;
}

}  // namespace

bool CopyCrtFile(const std::string &sourceFolder, const std::string &destinationFolder,
                 const std::string &name, uid_t uid, gid_t gid)
{
    const std::string source = sourceFolder + "/" + name;
    const std::string destination = destinationFolder + "/" + name;
    off_t size = 0;
    if (!IsRegularFile(source, size) ||
        ExecPrivately("/bin/cp", "-f", source.c_str(), destination.c_str()) < 0) {
        return LOG_ERROR_STATE("Failed to copy [%s].", source.c_str());
    }
    if (!SetModeAndOwner(destination, uid, gid, size)) {
        return LOG_ERROR("Failed to chmod chown. [%s]", destination.c_str());
    }
    return true;
}

bool CheckRealDirectory(const std::string &path)
{
    if (!IsCanonicalPath(path)) {
        return LOG_ERROR("Path not match, maybe bugs or attacked");
    }
    return YLIBCFileCheckDir(path.c_str()) == 1;
}

}  // namespace opalcrt
