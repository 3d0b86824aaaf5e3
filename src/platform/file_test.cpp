#include "platform/file_test.h"

#include <sys/stat.h>

#include <cerrno>

#include "platform/error_state.h"

namespace opalcrt {

namespace {

// stat(2) with the three answers of the header.
int LookAt(const char *path, struct stat &info)
{
    if (stat(path, &info) == 0) {
        return 1;
    }
    SET_PLATFORM_ERRNO(errno);
    return IsMissing(errno) ? 0 : -1;
}

bool IsSameTime(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

bool IsMissing(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

int YLIBCFileExist(const char *path)
{
    struct stat info = {};
    return LookAt(path, info);
}

int YLIBCFileCheckDir(const char *path)
{
    struct stat info = {};
    const int answer = LookAt(path, info);
    if (answer == 1 && !S_ISDIR(info.st_mode)) {
        errno = ENOTDIR;
        return SET_PLATFORM_ERRNO(errno);
    }
    return answer;
}

bool IsSameFile(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino && one.st_size == other.st_size &&
           IsSameTime(one.st_mtim, other.st_mtim) && IsSameTime(one.st_ctim, other.st_ctim);
}

}  // namespace opalcrt
