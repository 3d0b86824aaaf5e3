#include "platform/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/error_state.h"
#include "platform/unique_fd.h"

namespace opalcrt
{

namespace
{

using Clock = std::chrono::steady_clock;

// Who owns a file in /tmp may give its name to another one while we hold the lock, and whom we keep out would then
// lock that. So root takes a file over, but nothing that has a second name elsewhere.
bool TakeOver(int fd, const struct stat &info)
{
    if ((info.st_uid == 0 && (info.st_mode & 077) == 0) || geteuid() != 0) {
        return true;
    }
    if (info.st_nlink != 1) {
        errno = EPERM;
        return false;
    }
    return fchown(fd, 0, 0) == 0 && fchmod(fd, 0600) == 0;
}

UniqueFd OpenLockFile(const char *path)
{
    // An existing file is opened without O_CREAT: with fs.protected_regular the kernel refuses root another
    // user's file in /tmp otherwise (proc_sys_fs(5)).
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd(open(path, kFlags));
    if (!fd.IsOpen() && errno == ENOENT) {
        fd = UniqueFd(open(path, kFlags | O_CREAT | O_EXCL, 0600));
        if (!fd.IsOpen() && errno == EEXIST) {
            fd = UniqueFd(open(path, kFlags));  // Somebody else was faster.
        }
    }
    struct stat info = {};
    if (!fd.IsOpen()) {
        return fd;
    }
    if (fstat(fd.Get(), &info) != 0) {
        return UniqueFd();
    }
    if (!S_ISREG(info.st_mode)) {
        errno = EINVAL;
        return UniqueFd();
    }
    return TakeOver(fd.Get(), info) ? std::move(fd) : UniqueFd();
}

// Whether the name still leads to the file that is locked.
bool IsStillNamed(int fd, const char *path)
{
    struct stat held = {};
    struct stat named = {};
    return fstat(fd, &held) == 0 && lstat(path, &named) == 0 && held.st_dev == named.st_dev &&
           held.st_ino == named.st_ino;
}

// Waits between two tries: short at first, since most locks are held for milliseconds.
void Pause(std::chrono::milliseconds &pause, Clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    std::this_thread::sleep_for(std::min(pause, left + std::chrono::milliseconds(1)));
    pause = std::min(pause * 2, std::chrono::milliseconds(50));
}

}  // namespace

int YLIBCFileLockTimeByFile(const char *path, int mode, int seconds, int *fd)
{
    const Clock::time_point end = Clock::now() + std::chrono::seconds(seconds);
    std::chrono::milliseconds pause(1);
    UniqueFd file = OpenLockFile(path);
    while (file.IsOpen() || errno == ENOENT) {
        const bool isLocked =
            file.IsOpen() && flock(file.Get(), (mode == kLockExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0;
        if (isLocked && IsStillNamed(file.Get(), path)) {
            *fd = file.Release();
            return 1;
        }
        if (!isLocked && file.IsOpen() && errno != EWOULDBLOCK && errno != EINTR) {
            break;
        }
        if (Clock::now() >= end) {
            SET_PLATFORM_ERROR(kErrLockTimeout);
            errno = ETIMEDOUT;
            return 0;
        }
        Pause(pause, end);
        if (isLocked || !file.IsOpen()) {
            file = UniqueFd();  // Let go before the name is opened anew.
            file = OpenLockFile(path);
        }
    }
    SET_PLATFORM_ERRNO(errno);
    return 0;
}

int YLIBCFileUnlockByFile(int fd)
{
    const bool released = flock(fd, LOCK_UN) == 0;
    const int error = errno;
    const bool closed = close(fd) == 0;
    if (!released) {
        errno = error;
    }
    if (!released || !closed) {
        SET_PLATFORM_ERRNO(errno);
    }
    return released && closed ? 1 : 0;
}

}  // namespace opalcrt
