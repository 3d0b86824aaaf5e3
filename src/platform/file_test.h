// Looking at files.
#pragma once

#include <sys/stat.h>

namespace opalcrt {

// Whether an errno value says that nothing is there that could be overwritten or lost: ENOENT, ENOTDIR, a loop of links
// or a name that is too long.
bool IsMissing(int error);

// Both follow links (stat(2)) and have three answers, since a file that cannot be looked at is not a missing
// one: 1 when the path is there (is a folder), 0 when it is not (IsMissing; for YLIBCFileCheckDir also:
// something else stands there), -1 when that could not be found out (EACCES, EIO, ENOMEM, ...).
// On 0 and -1 the platform error state is set and errno is that of stat(2) (ENOTDIR for something else).
int YLIBCFileExist(const char *path);
int YLIBCFileCheckDir(const char *path);

// Whether both are the same file with the same content: device, inode, size, and the times of its last writing and
// change. The time of its last reading does not count.
bool IsSameFile(const struct stat &one, const struct stat &other);

}  // namespace opalcrt
