// Who may register and unregister.
#pragma once

#include <string>

namespace opalcrt {

// Whether the process may act for `owner`, a user name: its real user is root or the owner. The effective and
// saved users do not count, so a set-user-id start is its caller. For root the name is not looked up.
// On false the platform error state is set: kErrBadParameter (empty name), kErrUserLookup, kErrPermission.
bool CheckOwnerPermission(const std::string &owner);

}  // namespace opalcrt
