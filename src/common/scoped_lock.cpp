#include "common/scoped_lock.h"

#include "common/log.h"

namespace opalcrt {

ScopedLock::ScopedLock(const char *path, int mode, int seconds, UnlockLine line) : path_(path), line_(line)
{
    int fd = -1;
    if (YLIBCFileLockTimeByFile(path, mode, seconds, &fd) != 0) {
        fd_ = fd;
    }
}

ScopedLock::~ScopedLock()
{
    if (fd_ < 0 || YLIBCFileUnlockByFile(fd_) != 0) {
        return;
    }
    if (line_ == UnlockLine::kFrontEnd) {
        LogLine(LOG_ERR, "opalcrtregister.cpp", __LINE__, false, "Failed to unlock [%s]", path_.c_str());
    } else {
        LogLine(LOG_ERR, "utils.cpp", __LINE__, false, "Failed to unlock %s", path_.c_str());
    }
}

}  // namespace opalcrt
