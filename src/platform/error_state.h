// The platform error state: the last platform error of this process, for the "[0x%04X %s:%d]" at the end
// of log lines. One record per process; the tool has one thread.
#pragma once

namespace opalcrt {

// The first four codes are the front end's own and part of what administrators search logs for.
enum PlatformError : int {
    kErrBadParameter = 0x0D00,
    kErrUserLookup = 0x2A00,  // also: getresuid failed
    kErrUnlink = 0x3900,
    kErrPermission = 0xE400,

    kErrNotFound = 0x0100,    // ENOENT or ENOTDIR: the thing is not there
    kErrSystemCall = 0x0200,  // any other failed system call
    kErrBadFormat = 0x0300,   // a file that is not what it should be
    kErrLockTimeout = 0x0400,
    kErrChildStart = 0x0500,
    kErrChildLost = 0x0501,    // started, but its status could not be had
    kErrChildStatus = 0x0600,  // plus the exit status, 1 to 255
    kErrChildSignal = 0x0700,  // plus the signal's number
};

// `file` must live as long as the process (a literal).
void YLIBCErrSetEx(int code, const char *file, int line);

// 0, "" and 0 as long as nothing has failed.
int YLIBCErrGet();
const char *YLIBCErrorGetFile();
int YLIBCErrorGetLine();

}  // namespace opalcrt

#define SET_PLATFORM_ERROR(code) ::opalcrt::YLIBCErrSetEx((code), __FILE_NAME__, __LINE__)

// The code for a system call that has just failed with this errno value. False, for the function that has failed.
#define SET_PLATFORM_ERRNO(error)                                                             \
    (SET_PLATFORM_ERROR((error) == ENOENT || (error) == ENOTDIR ? ::opalcrt::kErrNotFound     \
                                                                : ::opalcrt::kErrSystemCall), \
     false)
