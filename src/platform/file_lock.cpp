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

namespace opalcrt {

namespace {

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

// errno is EEXIST when somebody else has made the file just now: the next turn opens that one.
UniqueFd OpenLockFile(const char *path)
{
    // An existing file is opened without O_CREAT: with fs.protected_regular the kernel refuses root another
    // user's file in /tmp otherwise (proc_sys_fs(5)).
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd fd(open(path, kFlags));
    if (!fd.IsOpen() && errno == ENOENT) {
        fd = UniqueFd(open(path, kFlags | O_CREAT | O_EXCL, 0600));
    }
    struct stat info = {};
    if (!fd.IsOpen() || fstat(fd.Get(), &info) != 0) {
        return UniqueFd();
    }
    if (!S_ISREG(info.st_mode)) {
        errno = EINVAL;
        return UniqueFd();
    }
    return TakeOver(fd.Get(), info) ? std::move(fd) : UniqueFd();
}

// Both kinds of lock that know an owner's descriptor: flock(2) does not see record locks, which other programs of
// the appliance may take at these files (fcntl(2)). Both go with the descriptor.
bool TryLock(int fd, int mode)
{
    struct flock record = {};
    record.l_type = mode == kLockExclusive ? F_WRLCK : F_RDLCK;
    record.l_whence = SEEK_SET;
    return flock(fd, (mode == kLockExclusive ? LOCK_EX : LOCK_SH) | LOCK_NB) == 0 &&
           fcntl(fd, F_OFD_SETLK, &record) == 0;
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
    for (std::chrono::milliseconds pause(1);; Pause(pause, end)) {
        UniqueFd file = OpenLockFile(path);
        const bool isLocked = file.IsOpen() && TryLock(file.Get(), mode);
        if (isLocked && IsStillNamed(file.Get(), path)) {
            *fd = file.Release();
            return 1;
        }
        const bool isBusy = isLocked || (file.IsOpen() ? errno == EAGAIN || errno == EINTR : errno == EEXIST);
        if (!isBusy) {
            return SET_PLATFORM_ERRNO(errno);
        }
        if (Clock::now() >= end) {
            SET_PLATFORM_ERROR(kErrLockTimeout);
            errno = ETIMEDOUT;
            return 0;
        }
    }
}

int YLIBCFileUnlockByFile(int fd)
{
    UniqueFd file(fd);
    return flock(fd, LOCK_UN) == 0 && file.Close() == 0 ? 1 : SET_PLATFORM_ERRNO(errno);
}

}  // namespace opalcrt
