#include "platform/users.h"

#include <pwd.h>

#include <cerrno>
#include <vector>

#include "platform/error_state.h"

namespace opalcrt {

int OPALUserGetUGID(const std::string &name, uid_t *uid, gid_t *gid)
{
    constexpr size_t kFirstSize = 1024;
    constexpr size_t kLargestSize = 1024UL * 1024;

    passwd entry = {};
    passwd *found = nullptr;
    int error = 0;
    std::vector<char> buffer(kFirstSize);
    // A NUL byte would cut the name short and find somebody else.
    if (name.find('\0') == std::string::npos) {
        while ((error = getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
               buffer.size() < kLargestSize) {
            buffer.resize(buffer.size() * 2);
        }
    }
    // -1 stands for "leave as it is" in chown(2): the files of such a user would stay root's.
    if (found == nullptr || entry.pw_uid == static_cast<uid_t>(-1) ||
        entry.pw_gid == static_cast<gid_t>(-1)) {
        SET_PLATFORM_ERROR(kErrUserLookup);
        errno = error != 0 ? error : ENOENT;
        return -1;
    }
    if (uid != nullptr) {
        *uid = found->pw_uid;
    }
    if (gid != nullptr) {
        *gid = found->pw_gid;
    }
    return 0;
}

}  // namespace opalcrt
