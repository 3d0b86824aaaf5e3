#include "common/scoped_lock.h"

#include "common/log.h"

namespace opalcrt
{

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
    const bool isFrontEnd = line_ == UnlockLine::kFrontEnd;
    const char *const kLogSource = isFrontEnd ? log_source::kFrontEnd : log_source::kUtils;
    LOG_ERROR("Failed to unlock %s%s%s", isFrontEnd ? "[" : "", path_.c_str(), isFrontEnd ? "]" : "");
}

}  // namespace opalcrt
