// Locks between processes, on files in /tmp: flock(2) and an open file description lock (F_OFD_SETLK, fcntl(2)), so
// that a holder of either kind is respected. Use common/scoped_lock.h, which lets go by itself.
#pragma once

namespace opalcrt {

constexpr int kLockShared = 0;
constexpr int kLockExclusive = 1;

// Waits at most `seconds` (monotonic; 0: one try) for the lock and puts its descriptor, which is
// close-on-exec, into `fd` (-1 before). Non-zero on success; 0, with errno and the platform error state set,
// otherwise (ETIMEDOUT when somebody else kept it, ENOENT when the folder is missing, EACCES for who may not open
// the file of another user).
//
// The file is made with mode 0600 when it is missing and is never unlinked. /tmp is everybody's: a link or
// anything else that is no regular file in its place is a failure and is not touched (ELOOP, EINVAL); so is a
// file with a second name when it is another user's or open to others (EPERM). Otherwise root makes a file that another
// user made earlier its own, with mode 0600: its owner could rename it while it is locked. That user can still hold the
// lock for ever, which cannot be helped while the lock files lie in /tmp. A lock file that somebody removed while we
// waited for it guards nothing, so the name is looked at again once the lock is held.
int YLIBCFileLockTimeByFile(const char *path, int mode, int seconds, int *fd);

// Lets go and closes. Non-zero on success, 0 with errno set otherwise; the descriptor is gone in either case.
int YLIBCFileUnlockByFile(int fd);

}  // namespace opalcrt
