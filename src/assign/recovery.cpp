#include "assign/recovery.h"

#include <cerrno>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/crt_files.h"
#include "deploy/key_types.h"
#include "mkcert/default_set.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "platform/services.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

constexpr const char *kPlainFiles[] = {"cert.pem", "privkey.pem", "fullchain.pem"};

// 1 when all are in the folder, 0 when one is missing, below 0, with errno set, when one cannot be looked at.
template <typename Files>
int LookForFiles(const std::string &folder, const std::string &prefix, const Files &files)
{
    for (const char *name : files) {
        const int exists = YLIBCFileExist((folder + "/" + prefix + name).c_str());
        if (exists != 1) {
            return exists;
        }
    }
    return 1;
}

// The same for all required files. One that is marked lacks something, too: files that belong together.
int LookForRequiredFiles(const std::string &cert_id, const std::string &folder)
{
    for (const KeyType type : GetCrtKeyTypes(cert_id)) {
        if (const int exist = LookForFiles(folder, KeyTypePrefix(type), kKeyTypeFiles); exist != 1) {
            return exist;
        }
    }
    if (const int exist = LookForFiles(folder, "", kPlainFiles); exist != 1) {
        return exist;
    }
    const int isMarked = YLIBCFileExist(GetMendingMarkPath(cert_id).c_str());
    return isMarked < 0 ? isMarked : 1 - isMarked;
}

// A mark that cannot be written stops nothing: the generation that fails in the same folder says why.
void SetMark(const std::string &cert_id, const std::string &folder)
{
    const std::string mark = GetMendingMarkPath(cert_id);
    OPALFSMkdirP(folder.c_str(), nullptr, 1, 0, 0, 0755);
    ReplaceFile(mark, "", mark);
}

void RemoveMark(const std::string &cert_id)
{
    const std::string mark = GetMendingMarkPath(cert_id);
    if (!RemoveAndSync(mark)) {
        LOG_ERROR("Failed to remove %s [%d]", mark.c_str(), errno);
    }
}

// The recovery lock is held.
bool Mend(const std::string &cert_id, const std::string &folder)
{
    SetMark(cert_id, folder);
    if (genDefaultCrtSet(folder) != 0) {
        LOG_ERROR("Failed to generate default certificate to recover for [%s]", cert_id.c_str());
        // A service is given whatever these three are, so the mark goes only when one of them is missing.
        if (LookForFiles(folder, "", kPlainFiles) == 0) {
            RemoveMark(cert_id);
        }
        return false;
    }

    Json::Value crtInfo(Json::objectValue);
    crtInfo["is_broken"] = true;
    if (!toFile(folder + "/cert_info", crtInfo)) {
        LOG_ERROR("Failed to write cert info [%d]", errno);
        RemoveMark(cert_id);
        return false;
    }
    if (OPALSysNotifySendNotifiction("certificate_broken", nullptr) != 0) {
        LOG_ERROR("Failed to send notification for certificate broken");
    }
    RemoveMark(cert_id);  // Last: what is cut off before is made and told of again.
    return true;
}

// After IsCrtComplete has answered false.
bool IsIncomplete() { return errno == 0 || IsMissing(errno); }

// Mends under the lock. A certificate that was found marked is looked at again there: the mend may have been under way,
// and is made again only if it was cut off.
bool LockAndMend(const std::string &cert_id, const std::string &folder, bool isMarked)
{
    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return LOG_ERROR("Failed to lock file [%s]", kRecoverLock);
    }
    if (isMarked) {
        if (const bool isComplete = IsCrtComplete(cert_id, folder); isComplete || !IsIncomplete()) {
            return isComplete;
        }
        LOG_ERROR("%s is incomplete, start recovering", cert_id.c_str());
    }
    return Mend(cert_id, folder);
}

}  // namespace

bool CheckAndRecoverCrt(const std::string &cert_id)
{
    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr) {
        return LOG_ERROR_STATE("Broken [%s].", kInfoPath);
    }
    // An id is one folder name of the archive: one with a "/" or ".." would have a set generated elsewhere.
    if (!IsPlainFolderName(cert_id) || !GetMember(*info, cert_id.c_str()).isObject()) {
        return LOG_ERROR("Invalid cert id: [%s]", cert_id.c_str());
    }

    const std::string folder = GetCrtFolderPath(cert_id);
    const bool isMarked = YLIBCFileExist(GetMendingMarkPath(cert_id).c_str()) == 1;
    if (isMarked ? LockAndMend(cert_id, folder, true)
                 : IsCrtComplete(cert_id, folder) || (IsIncomplete() && RecoverCrt(cert_id, folder))) {
        return true;
    }
    return LOG_ERROR("Failed to recover certificate for [%s]", cert_id.c_str());
}

bool IsCrtComplete(const std::string &cert_id, const std::string &folder)
{
    if (!CheckRealDirectory(folder)) {
        return LOG_ERROR("Folder not exits [%s]", folder.c_str());
    }
    int exist = LookForRequiredFiles(cert_id, folder);
    if (exist == 0) {
        // Looked for again: the folder may have been exchanged for one with other key types between two files.
        exist = LookForRequiredFiles(cert_id, folder);
    }
    if (exist == 1) {
        return true;
    }
    errno = exist == 0 ? 0 : errno;
    return LOG_ERROR("Lack of necessary files in cert dir [%s]", folder.c_str());
}

bool RecoverCrt(const std::string &cert_id, const std::string &folder)
{
    LOG_ERROR("%s is incomplete, start recovering", cert_id.c_str());
    return LockAndMend(cert_id, folder, false);
}

}  // namespace opalcrt
