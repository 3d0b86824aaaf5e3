#include "platform/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/file_test.h"
#include "platform/unique_fd.h"

namespace opalcrt {

namespace {

// One folder. The mode is set once more on the descriptor: what mkdir(2) is given goes through the umask and
// the default ACL of the folder above. One that could not be finished must not stay: nobody would mend its
// mode.
bool MakeFolder(const std::string &path, uid_t uid, gid_t gid, mode_t mode)
{
    if (mkdir(path.c_str(), mode) != 0) {
        return errno == EEXIST && YLIBCFileCheckDir(path.c_str()) == 1;
    }
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.IsOpen() && fchown(fd.Get(), uid, gid) == 0 && fchmod(fd.Get(), mode) == 0 && SyncParent(path)) {
        return true;
    }
    const int error = errno;
    rmdir(path.c_str());
    errno = error;
    return false;
}

}  // namespace

int OPALFSMkdirP(const char *path, const char *, int parents, uid_t uid, gid_t gid, mode_t mode)
{
    const std::string whole = path;
    for (size_t end = 1; parents != 0 && (end = whole.find('/', end)) != std::string::npos; ++end) {
        const std::string part = whole.substr(0, end);
        if (YLIBCFileCheckDir(part.c_str()) == 0 && !MakeFolder(part, uid, gid, mode)) {
            SET_PLATFORM_ERRNO(errno);
            return -1;
        }
    }
    if (!MakeFolder(whole, uid, gid, mode)) {
        SET_PLATFORM_ERRNO(errno);
        return -1;
    }
    return 0;
}

}  // namespace opalcrt
