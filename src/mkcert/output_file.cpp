#include "mkcert/output_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace opalcrt {

bool ReadyOutput(const std::string &path)
{
    struct stat info = {};
    if (lstat(path.c_str(), &info) != 0) {
        return errno == ENOENT;
    }
    if (S_ISDIR(info.st_mode)) {
        return true;
    }
    if (S_ISLNK(info.st_mode) || (S_ISREG(info.st_mode) && info.st_nlink > 1)) {
        return unlink(path.c_str()) == 0;
    }
    errno = EINVAL;
    return S_ISREG(info.st_mode);
}

bool ReadyKeyOutput(const std::string &path)
{
    struct stat info = {};
    if (!ReadyOutput(path)) {
        return false;
    }
    if (lstat(path.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
        return true;
    }
    // The owner first: he could give himself the right back.
    return chown(path.c_str(), 0, 0) == 0 && chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0;
}

}  // namespace opalcrt
