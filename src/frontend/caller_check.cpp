#include "frontend/caller_check.h"

#include <unistd.h>

#include "common/log.h"
#include "platform/error_state.h"
#include "platform/users.h"

namespace opalcrt {

bool CheckOwnerPermission(const std::string &owner)
{
    if (owner.empty()) {
        return YLIBCErrSetEx(kErrBadParameter, LOG_SOURCE, __LINE__), false;
    }

    uid_t real = 0;
    uid_t effective = 0;
    uid_t saved = 0;
    if (getresuid(&real, &effective, &saved) != 0) {
        return YLIBCErrSetEx(kErrUserLookup, LOG_SOURCE, __LINE__), false;
    }
    if (real == 0) {
        return true;
    }

    uid_t ownerId = 0;
    if (OPALUserGetUGID(owner, &ownerId, nullptr) < 0) {
        return YLIBCErrSetEx(kErrUserLookup, LOG_SOURCE, __LINE__), false;
    }
    if (ownerId != real) {
        return YLIBCErrSetEx(kErrPermission, LOG_SOURCE, __LINE__), false;
    }
    return true;
}

}  // namespace opalcrt
