// The one place that starts children.
//
// A child gets the program path and the arguments and nothing else of its caller: an environment of ours
// (PATH, HOME, LC_ALL), /dev/null as its three streams, no other descriptor, every signal at its default and
// none blocked, "/" as its folder, umask 022. A relative path or a shell is never involved. A child dies almost
// at once when we are killed (PR_SET_PDEATHSIG), since a /bin/rm that outlives the tool would go on removing
// after the next run has taken the lock; and after 30 s of processor time. A hook, which is its package's own, goes on
// when we are killed; one that has not ended after 60 s is killed, with its process group.
//
// Every function waits for the child. A negative answer has set the platform error state and errno:
//
//   ending                   error state              errno
//   could not be started     kErrChildStart           why it could not (ENOENT, EACCES, EAGAIN, ...)
//   exit status n != 0       kErrChildStatus + n      EIO
//   killed by signal n       kErrChildSignal + n      EINTR
//   its status is lost       kErrChildLost            ECHILD
#pragma once

namespace opalcrt {

// What the option word of YLIBCExecl may hold; its other bits have no meaning here.
constexpr unsigned kExecDefault = 0xBB;
constexpr unsigned kExecHook = 0x1BB;
constexpr unsigned kExecAnyStatus = 0x100;

constexpr int kHookSeconds = 60;

// Runs `path` with up to four arguments; a null one and those after it are not passed.
// 0 when the program ran and ended with status 0, otherwise negative (table above).
int YLIBCExec(const char *path, const char *arg1, const char *arg2, const char *arg3, const char *arg4);

// The same with umask 077: no file that the program makes is readable for others, not for a moment.
int ExecPrivately(const char *path, const char *arg1, const char *arg2, const char *arg3);

// Runs `path` with the arguments up to a null one. As YLIBCExec; kExecAnyStatus in `options` makes it a hook:
// every child that could be started answers 0 or more, whatever became of it: its exit status, or 128 and the
// signal that has ended it.
int YLIBCExecl(const char *path, unsigned options, ...) __attribute__((sentinel));

// Runs `path` with the null-terminated vector `argv`, whose first element is the program's name.
// As YLIBCExec. `options` is 1 for every caller and has no further meaning.
int YLIBCExecv(const char *path, char *const argv[], int options);

}  // namespace opalcrt
