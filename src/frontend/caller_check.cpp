#include "frontend/caller_check.h"

#include <unistd.h>

#include "common/log.h"
#include "platform/error_state.h"
#include "platform/users.h"

namespace opalcrt {

bool CheckOwnerPermission(const std::string &owner)
{
    if (owner.empty()) {
        YLIBCErrSetEx(kErrBadParameter, LOG_SOURCE, __LINE__);
        return false;
    }

    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (getresuid(&real, &effective, &saved) != 0) {
        YLIBCErrSetEx(kErrUserLookup, LOG_SOURCE, __LINE__);
        return false;
    }
    if (real == 0) {
        return true;
    }

    uid_t ownerId = 0;
    if (OPALUserGetUGID(owner, &ownerId, nullptr) < 0) {
        YLIBCErrSetEx(kErrUserLookup, LOG_SOURCE, __LINE__);
        return false;
    }
    if (ownerId != real) {
        YLIBCErrSetEx(kErrPermission, LOG_SOURCE, __LINE__);
        return false;
    }
    return true;
}

}  // namespace opalcrt
