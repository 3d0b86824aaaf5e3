// Making folders.
#pragma once

#include <sys/types.h>

namespace opalcrt {

// Creates the absolute `path` as a folder, with `parents` non-zero also the folders missing on the way. Each
// folder made has exactly `mode` (not cut by the umask) and the owner uid:gid, and its entry is synced in the
// folder that holds it. `base` is not used by any caller and must be null. 0 on success, also when the path
// is a folder already. Negative, with errno and the platform error state set, otherwise (something else
// stands there: ENOTDIR); folders made on the way stay.
int OPALFSMkdirP(const char *path, const char *base, int parents, uid_t uid, gid_t gid, mode_t mode);

}  // namespace opalcrt
