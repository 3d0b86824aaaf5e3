#include "admin/archive.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "admin/report.h"
#include "admin/store_look.h"
#include "assign/recovery.h"
#include "common/json_member.h"
#include "deploy/dir_utils.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

RecoverLock::RecoverLock() : lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore)
{
    if (!lock.IsHeld()) {
        RefuseCall(std::string("cannot lock ") + kRecoverLock + "; if another run holds it, try again");
    }
}

std::string GetNewFolderPath(const std::string &cert_id) { return GetCrtFolderPath("." + cert_id + ".new"); }

bool RemoveNewFolder(const std::string &cert_id)
{
    // It may be the old folder: if a power cut takes the exchange back, that must still be whole.
    const std::string fresh = GetNewFolderPath(cert_id);
    return (SyncPath(kArchive) && RemovePath(fresh)) ||
           RefuseCall("cannot sync the archive, or remove " + fresh + "; run the same command again");
}

bool MakeNewFolder(const std::string &cert_id)
{
    const std::string fresh = GetNewFolderPath(cert_id);
    return RemoveNewFolder(cert_id) &&
           (OPALFSMkdirP(fresh.c_str(), nullptr, 0, 0, 0, 0700) == 0 || RefuseCall("cannot make " + fresh));
}

int ExchangeFolder(const std::string &cert_id)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    const std::string fresh = GetNewFolderPath(cert_id);
    const unsigned how = Exists(folder) ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    if (!SyncPath(fresh) || renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, folder.c_str(), how) != 0) {
        const bool isUnable = errno == EINVAL || errno == ENOSYS;
        RefuseCall("cannot replace " + folder +
                   (isUnable ? ": its file system exchanges no folders in one step" : ""));
        RemovePath(fresh);
        return kRefused;
    }
    return RemoveNewFolder(cert_id) ? kDone : kPartlyChanged;
}

bool ReadInfo(Json::Value &info)
{
    const Json::Value *read = ReadCrtInfo();
    info = read != nullptr ? *read : Json::Value();
    return info.isObject() ||
           Refuse(std::string(kInfoPath) + " cannot be read as a JSON object; see opalcrt status");
}

bool IsUsableCrt(const std::string &cert_id, const Json::Value &info)
{
    if (!IsPlainFolderName(cert_id) || !GetMember(info, cert_id.c_str()).isObject()) {
        return Refuse("there is no certificate \"" + cert_id + "\" in INFO; opalcrt status lists them");
    }
    return IsCrtComplete(cert_id, GetCrtFolderPath(cert_id)) ||
           Refuse("the certificate " + cert_id +
                  " lacks files or is being mended; see opalcrt status, or install it anew");
}

int Default(const Options &options, Json::Value &)
{
    if (!options.id) {
        const std::string old_id = ReadDefaultId();
        if (old_id.empty()) {
            return Refuse(std::string(kDefaultPath) + " names none; set one: opalcrt default ID");
        }
        Say(options, old_id);
        return kDone;
    }
    const std::string &cert_id = *options.id;
    const RecoverLock lock;
    Json::Value info;
    if (!lock || !ReadInfo(info) || !IsUsableCrt(cert_id, info)) {
        return kRefused;
    }
    if (cert_id.size() > kLongestDefaultId || cert_id.find('\n') != std::string::npos) {
        return Refuse(cert_id + " cannot be the default certificate: its id has more than 15 bytes");
    }
    if (!ReplaceFile(kDefaultPath, cert_id + "\n", kDefaultPath)) {
        return RefuseCall(std::string("cannot write ") + kDefaultPath);
    }
    Say(options, cert_id + ": the certificate of new services");
    return kDone;
}

}  // namespace opalcrt
