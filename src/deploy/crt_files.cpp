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

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kUtils;
constexpr mode_t kCrtFileMode = 0400;

// cp gives a new file the source's mode, cut by the umask; an existing one keeps its own.
bool MakeUnreadableTarget(const std::string &path)
{
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kCrtFileMode));
    if (!fd.IsOpen() || fchmod(fd.Get(), kCrtFileMode) != 0) {
        SET_PLATFORM_ERRNO(errno);
        return false;
    }
    return true;
}

bool SetModeAndOwner(const std::string &path, uid_t uid, gid_t gid)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return fd.IsOpen() && fchmod(fd.Get(), kCrtFileMode) == 0 && fchown(fd.Get(), uid, gid) == 0 &&
           fsync(fd.Get()) == 0;
}

}  // namespace

bool CopyCrtFile(const std::string &sourceFolder, const std::string &destinationFolder,
                 const std::string &name, uid_t uid, gid_t gid)
{
    const std::string source = sourceFolder + "/" + name;
    const std::string destination = destinationFolder + "/" + name;
    if (!MakeUnreadableTarget(destination) ||
        YLIBCExec("/bin/cp", "-f", source.c_str(), destination.c_str(), nullptr) < 0) {
        LOG_ERROR_STATE("Failed to copy [%s].", source.c_str());
        unlink(destination.c_str());
        return false;
    }
    if (!SetModeAndOwner(destination, uid, gid)) {
        LOG_ERROR("Failed to chmod chown. [%s]", destination.c_str());
        return false;
    }
    return true;
}

bool CheckRealDirectory(const std::string &path)
{
    if (!IsCanonicalPath(path)) {
        LOG_ERROR("Path not match, maybe bugs or attacked");
        return false;
    }
    return YLIBCFileCheckDir(path.c_str()) == 1;
}

}  // namespace opalcrt
