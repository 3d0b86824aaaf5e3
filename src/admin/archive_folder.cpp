#include "admin/archive_folder.h"

#include <fcntl.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

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

namespace opalcrt
{

namespace
{

// The folder is new and root's alone, so nothing stands there that could be written through.
bool WriteCrtFile(const std::string &path, const std::string &text)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0400));
    return fd.IsOpen() && fchmod(fd.Get(), 0400) == 0 && WriteAll(fd.Get(), text) && fsync(fd.Get()) == 0 &&
           fd.Close() == 0;
}

// Tells why the rename failed, and takes the new folder away.
bool GiveUp(const std::string &cert_id)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    if (errno == EINVAL || errno == ENOSYS) {
        Refuse("the file system of " + folder +
               " cannot exchange two folders in one step, and nothing else is safe");
    } else {
        RefuseCall("cannot put the new folder in the place of " + folder);
    }
    RemovePath(GetNewFolderPath(cert_id));
    return false;
}

}  // namespace

std::string GetNewFolderPath(const std::string &cert_id)
{
    return std::string(kArchive) + "/." + cert_id + ".new";
}

bool MakeNewFolder(const std::string &cert_id)
{
    const std::string fresh = GetNewFolderPath(cert_id);
    // What a cut-off run has left: a part of the new folder, or the old one after the exchange.
    if (!RemovePath(fresh) || OPALFSMkdirP(fresh.c_str(), nullptr, 0, 0, 0, 0700) != 0) {
        RefuseCall("cannot make " + fresh);
        return false;
    }
    return true;
}

bool ExchangeFolder(const std::string &cert_id)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    const std::string fresh = GetNewFolderPath(cert_id);
    const unsigned how = IsIn(AT_FDCWD, folder) ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    if (!SyncPath(fresh) || renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, folder.c_str(), how) != 0) {
        return GiveUp(cert_id);
    }
    // A sync that failed, or the old folder still there: the new one stands all the same.
    if (!SyncPath(kArchive)) {
        RefuseCall(folder + " is replaced, but that may not survive a power cut");
    }
    if (how == RENAME_EXCHANGE && !RemovePath(fresh)) {
        Refuse(folder + " is replaced, but the old one could not be removed: " + fresh);
    }
    return true;
}

bool PutIntoArchive(const std::string &cert_id, const std::vector<std::pair<std::string, std::string>> &files)
{
    if (!MakeNewFolder(cert_id)) {
        return false;
    }
    const std::string fresh = GetNewFolderPath(cert_id);
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
    if (!lock.IsHeld()) {
        RefuseCall(std::string("somebody else keeps ") + kInfoLock + " locked; run the same command again");
        return false;
    }
    if (!TakeCrtInfo(info) || !info.isObject()) {
        Refuse(std::string(kInfoPath) + " cannot be read; run the same command again when it is mended");
        return false;
    }
    if (!info.isMember(cert_id)) {
        info[cert_id]["services"] = Json::Value(Json::arrayValue);
    }
    if (!WriteCrtInfo(std::move(info))) {
        RefuseCall(std::string("cannot write ") + kInfoPath + "; run the same command again");
        return false;
    }
    return true;
}

}  // namespace opalcrt
