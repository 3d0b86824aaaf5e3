// Users by name, from the name service (passwd(5), LDAP and the like, as nsswitch.conf(5) has it).
#pragma once

#include <sys/types.h>

#include <string>

namespace opalcrt {

// Puts the user's id and primary group's id into `uid` and `gid`; either may be null. 0 on success; negative,
// with the platform error state set, when there is no such user, one of the ids is -1, or the name service could not be asked.
int OPALUserGetUGID(const std::string &name, uid_t *uid, gid_t *gid);

}  // namespace opalcrt
