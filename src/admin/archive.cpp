#include "admin/archive.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "admin/report.h"
#include "assign/recovery.h"
#include "common/json_member.h"
#include "deploy/dir_utils.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "store/crt_info.h"
#include "store/default_crt.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

bool TakeRecoverLock(std::optional<ScopedLock> &lock)
{
    lock.emplace(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    return lock->IsHeld() ||
           RefuseCall(std::string("cannot lock ") + kRecoverLock + "; if another run holds it, try again");
}

namespace {

std::string NewFolderPath(const std::string &cert_id) { return GetCrtFolderPath("." + cert_id + ".new"); }

}  // namespace

bool HasNewFolder(const std::string &cert_id) { return YLIBCFileExist(NewFolderPath(cert_id).c_str()) != 0; }

bool RemoveNewFolder(const std::string &cert_id)
{
    // It may be the old folder: if a power cut takes the exchange back, that must still be whole.
    const std::string fresh = NewFolderPath(cert_id);
    return (SyncPath(kArchive) && RemovePath(fresh)) ||
           RefuseCall("cannot sync the archive, or remove " + fresh + "; run the same command again");
}

int ReplaceCrtFolder(const std::string &cert_id, const std::function<bool(const std::string &folder)> &fill,
                     bool keepsOld)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    const std::string fresh = NewFolderPath(cert_id);
    const unsigned how = YLIBCFileExist(folder.c_str()) != 0 ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    if (!RemoveNewFolder(cert_id)) {
        return kRefused;
    }
    // An errno of renameat2(2) that says that it is the file system which cannot.
    const auto isUnable = [] { return errno == EINVAL || errno == ENOSYS; };
    const bool isReplaced =
        (OPALFSMkdirP(fresh.c_str(), nullptr, 0, 0, 0, 0700) == 0 || RefuseCall("cannot make " + fresh)) &&
        fill(fresh) &&
        ((SyncPath(fresh) && renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, folder.c_str(), how) == 0) ||
         RefuseCall("cannot replace " + folder +
                    (isUnable() ? ": its file system exchanges no folders in one step" : "")));
    if (!isReplaced) {
        RemovePath(fresh);
        return kRefused;
    }
    const bool isEnded =
        keepsOld ? SyncPath(kArchive) || RefuseCall("cannot sync the archive") : RemoveNewFolder(cert_id);
    return isEnded ? kDone : kPartlyChanged;
}

bool ReadInfo(Json::Value &info)
{
    const Json::Value *read = ReadCrtInfo();
    info = read != nullptr ? *read : Json::Value();
    return info.isObject() ||
           Refuse(
               std::string(kInfoPath) +
               " cannot be read as a JSON object; see opalcrt status, or, for the first one, opalcrt init");
}

bool ChangeInfo(const std::function<bool(Json::Value &info)> &change)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    Json::Value info;
    if (!lock.IsHeld() || !TakeCrtInfo(info) || !info.isObject()) {
        return RefuseCall(std::string("cannot lock or read ") + kInfoPath + "; run the same command again");
    }
    return !change(info) || WriteCrtInfo(std::move(info)) ||
           RefuseCall(std::string("cannot write ") + kInfoPath + "; run the same command again");
}

bool IsListedCrt(const std::string &cert_id, const Json::Value &info)
{
    return (IsPlainFolderName(cert_id) && GetMember(info, cert_id.c_str()).isObject()) ||
           Refuse("there is no certificate \"" + cert_id + "\" in INFO; opalcrt status lists them");
}

bool IsUsableCrt(const std::string &cert_id, const Json::Value &info)
{
    return IsListedCrt(cert_id, info) &&
           (IsCrtComplete(cert_id, GetCrtFolderPath(cert_id)) ||
            Refuse("the certificate " + cert_id +
                   " lacks files or is being mended; see opalcrt status, or install it anew"));
}

int Default(const Options &options, Json::Value &)
{
    if (!options.id) {
        const std::string old_id = ReadDefCrtId();
        if (old_id.empty()) {
            return Refuse(std::string(kDefaultPath) + " names none; set one: opalcrt default ID");
        }
        Say(options, old_id);
        return kDone;
    }
    const std::string &cert_id = *options.id;
    std::optional<ScopedLock> lock;
    Json::Value info;
    const bool isSet =
        TakeRecoverLock(lock) && ReadInfo(info) && IsUsableCrt(cert_id, info) &&
        ((cert_id.size() <= kLongestDefaultId && cert_id.find('\n') == std::string::npos) ||
         Refuse(cert_id + " cannot be the default certificate: its id has more than 15 bytes")) &&
        (ReplaceFile(kDefaultPath, cert_id + "\n", kDefaultPath) ||
         RefuseCall(std::string("cannot write ") + kDefaultPath));
    if (isSet) {
        Say(options, cert_id + ": the certificate of new services");
    }
    return isSet ? kDone : kRefused;
}

}  // namespace opalcrt
