// A lock whose life is the time it is held.
#pragma once

#include <string>

#include "platform/file_lock.h"

namespace opalcrt {

// How the line looks that is logged when letting go fails.
enum class UnlockLine {
    kFrontEnd,  // in the front end's name, the path in brackets
    kStore,     // in the store's, without
};

class ScopedLock {
public:
    // Tries to take the lock file's lock (platform/file_lock.h) for at most `seconds`; IsHeld says whether
    // that worked, and a failure is the caller's to log, with errno as that header says. A process must not take a
    // lock that it holds: it would wait for itself. Hand the held lock on. The order of two: docs/on-disk.md.
    ScopedLock(const char *path, int mode, int seconds, UnlockLine line);
    // Lets go; a failure is logged and changes nothing else.
    ~ScopedLock();
    ScopedLock(const ScopedLock &) = delete;
    ScopedLock &operator=(const ScopedLock &) = delete;

    [[nodiscard]] bool IsHeld() const { return fd_ >= 0; }

private:
    std::string path_;
    UnlockLine line_;
    int fd_ = -1;
};

}  // namespace opalcrt
