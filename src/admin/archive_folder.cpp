#include "admin/archive_folder.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "admin/message.h"
#include "admin/store_look.h"
#include "common/scoped_lock.h"
#include "deploy/dir_utils.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/unique_fd.h"
#include "store/crt_info.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// The folder is new and root's alone, so nothing stands there that could be written through.
bool WriteCrtFile(const std::string &path, const std::string &text)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0400));
    return fd.IsOpen() && fchmod(fd.Get(), 0400) == 0 && WriteAll(fd.Get(), text) && fsync(fd.Get()) == 0 &&
           fd.Close() == 0;
}

}  // namespace

bool RefuseLock()
{
    return RefuseCall(std::string("cannot lock ") + kRecoverLock + "; if another run holds it, try again");
}

std::string GetNewFolderPath(const std::string &cert_id) { return GetCrtFolderPath("." + cert_id + ".new"); }

bool MakeNewFolder(const std::string &cert_id)
{
    const std::string fresh = GetNewFolderPath(cert_id);
    return (RemovePath(fresh) && OPALFSMkdirP(fresh.c_str(), nullptr, 0, 0, 0, 0700) == 0) ||
           RefuseCall("cannot make " + fresh);
}

bool ExchangeFolder(const std::string &cert_id)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    const std::string fresh = GetNewFolderPath(cert_id);
    const unsigned how = IsIn(AT_FDCWD, folder) ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    if (!SyncPath(fresh) || renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, folder.c_str(), how) != 0) {
        const bool isUnable = errno == EINVAL || errno == ENOSYS;
        RefuseCall("cannot replace " + folder +
                   (isUnable ? ": its file system exchanges no folders in one step" : ""));
        RemovePath(fresh);
        return false;
    }
    // Whatever fails now, the new folder stands.
    if (!SyncPath(kArchive)) {
        RefuseCall(folder + " is replaced, but that may not survive a power cut");
    }
    if (!RemovePath(fresh)) {
        Refuse(folder + " is replaced, but the old one is still there; remove it: " + fresh);
    }
    return true;
}

bool PutIntoArchive(const std::string &cert_id, const std::vector<std::pair<std::string, std::string>> &files)
{
    const std::string fresh = GetNewFolderPath(cert_id);
    if (!MakeNewFolder(cert_id)) {
        return false;
    }
    for (const auto &[name, text] : files) {
        if (text.empty() || !WriteCrtFile(fresh + "/" + name, text)) {
            RefuseCall("cannot write " + fresh + "/" + name);
            RemovePath(fresh);
            return false;
        }
    }
    return ExchangeFolder(cert_id);
}

bool AddToInfo(const std::string &cert_id)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    Json::Value info;
    if (!lock.IsHeld() || !TakeCrtInfo(info) || !info.isObject()) {
        return RefuseCall(std::string("cannot lock or read ") + kInfoPath + "; run the same command again");
    }
    info[cert_id]["services"] = Json::Value(Json::arrayValue);
    return WriteCrtInfo(std::move(info)) ||
           RefuseCall(std::string("cannot write ") + kInfoPath + "; run the same command again");
}

}  // namespace opalcrt
