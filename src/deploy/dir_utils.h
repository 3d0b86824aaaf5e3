// Operations on folders. Trees are copied and removed by /bin/cp and /bin/rm. Paths are absolute (one that
// started with "-" would be an option to them) and are used as they are. Failures are logged here.
#pragma once

#include <sys/types.h>

#include <string>

namespace opalcrt {

// Replaces the folder `destination` by the folder `source`, with a copy of the old one in the backup folder,
// destination + ".bak", until the new one stands. The content of `source` must be on the disk already. True
// when the destination now holds what the source held; also when both are the same path (nothing is done
// then). Two moves to one destination must be kept apart by the service lock. The steps, and what a kill leaves:
// docs/on-disk.md. After a failure the destination is as it was, except that
//   - when the roll-back's removal or rename fails, it is partly removed or absent, and the backup stays;
//   - when the sync after the rename fails, the new folder stands and the backup stays.
// `source` is never removed on failure. A backup that cannot be removed at the end is logged and no failure.
bool MoveDirectory(const std::string &source, const std::string &destination);

// Removes the path and all below it. True when it no longer exists, also when it never did.
bool RemovePath(const std::string &path);

// Makes `path` a new, empty folder with exactly `mode`, owned by root, and the folders missing above it
// alike. A folder that stands there is removed with all below it; anything else there is a failure.
bool RecreateDirectory(const std::string &path, mode_t mode);

// Whether the path, which must exist, resolves to itself: no link, "." or ".." component, no doubled or
// trailing slash.
bool IsCanonicalPath(const std::string &path);

}  // namespace opalcrt
