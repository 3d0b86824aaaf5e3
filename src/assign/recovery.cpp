#include "assign/recovery.h"

#include <unistd.h>

#include <cerrno>
#include <vector>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/crt_files.h"
#include "deploy/key_types.h"
#include "mkcert/default_set.h"
#include "platform/file_test.h"
#include "platform/services.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kUtils;
constexpr int kRecoverLockSeconds = 30;

constexpr const char *kKeyTypeFiles[] = {"cert.pem", "fullchain.pem", "privkey.pem"};
constexpr const char *kPlainFiles[] = {"cert.pem", "privkey.pem", "fullchain.pem"};

// The required files, in the order in which they are looked for.
std::vector<std::string> ListRequiredFiles(const std::string &certId)
{
    std::vector<std::string> names;
    if (HasCrtKeyTypes(certId)) {
        for (const KeyType type : GetCrtKeyTypes(certId)) {
            for (const char *name : kKeyTypeFiles) {
                names.push_back(KeyTypePrefix(type) + name);
            }
        }
    }
    names.insert(names.end(), std::begin(kPlainFiles), std::end(kPlainFiles));
    return names;
}

// The mark and the announcement that a certificate was replaced.
bool TellBroken(const std::string &folder)
{
    Json::Value crtInfo(Json::objectValue);
    crtInfo["is_broken"] = true;
    if (!toFile(folder + "/cert_info", crtInfo)) {
        LOG_ERROR("Failed to write cert info [%d]", errno);
        return false;
    }
    if (OPALSysNotifySendNotifiction("certificate_broken", nullptr) != 0) {
        LOG_ERROR("Failed to send notification for certificate broken");
    }
    return true;
}

void RemoveRecoveryNote()
{
    if (unlink(kRecoveryNotePath) != 0 && errno != ENOENT) {
        LOG_ERROR("Failed to remove %s [%d]", kRecoveryNotePath, errno);
    }
}

// A recovery that was killed once its files stood would never be told of: the folder is complete again. Its note
// says which one it was. Whoever holds the lock is still at it.
void FinishCutOffRecovery()
{
    if (YLIBCFileExist(kRecoveryNotePath) == 0) {
        return;
    }
    const ScopedLock lock(kRecoverLock, kLockExclusive, 0, UnlockLine::kStore);
    Json::Value note;
    if (!lock.IsHeld() || !fromFile(kRecoveryNotePath, note)) {
        return;
    }
    const std::string certId = GetString(note, "cert_id");
    bool isUnknown = false;
    if (IsPlainFolderName(certId) && IsCrtComplete(certId, GetCrtFolderPath(certId), isUnknown) &&
        TellBroken(GetCrtFolderPath(certId))) {
        RemoveRecoveryNote();
    }
}

}  // namespace

bool CheckAndRecoverCrt(const std::string &certId)
{
    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr) {
        LOG_ERROR_STATE("Broken [%s].", kInfoPath);
        return false;
    }
    // An id is one folder name of the archive: one with a "/" or ".." would have a set generated elsewhere.
    if (!IsPlainFolderName(certId) || !GetMember(*info, certId.c_str()).isObject()) {
        LOG_ERROR("Invalid cert id: [%s]", certId.c_str());
        return false;
    }

    FinishCutOffRecovery();
    const std::string folder = GetCrtFolderPath(certId);
    bool isUnknown = false;
    if (IsCrtComplete(certId, folder, isUnknown)) {
        return true;
    }
    if (isUnknown || !RecoverCrt(certId, folder)) {
        LOG_ERROR("Failed to recover certificate for [%s]", certId.c_str());
        return false;
    }
    return true;
}

bool IsCrtComplete(const std::string &certId, const std::string &folder, bool &isUnknown)
{
    isUnknown = false;
    if (!CheckRealDirectory(folder)) {
        LOG_ERROR("Folder not exits [%s]", folder.c_str());
        isUnknown = errno != 0 && errno != ENOENT && errno != ENOTDIR;
        return false;
    }
    for (const std::string &name : ListRequiredFiles(certId)) {
        const int exists = YLIBCFileExist((folder + "/" + name).c_str());
        if (exists != 1) {
            LOG_ERROR("Lack of necessary files in cert dir [%s]", folder.c_str());
            isUnknown = exists < 0;
            return false;
        }
    }
    return true;
}

bool RecoverCrt(const std::string &certId, const std::string &folder)
{
    LOG_ERROR("%s is incomplete, start recovering", certId.c_str());

    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        LOG_ERROR("Failed to lock file [%s]", kRecoverLock);
        return false;
    }

    Json::Value note(Json::objectValue);
    note["cert_id"] = certId;
    if (!toFile(kRecoveryNotePath, note)) {
        LOG_ERROR("Failed to write cert info [%d]", errno);
        return false;
    }
    if (genDefaultCrtSet(folder) != 0) {
        LOG_ERROR("Failed to generate default certificate to recover for [%s]", certId.c_str());
        return false;
    }
    if (!TellBroken(folder)) {
        return false;
    }
    RemoveRecoveryNote();
    return true;
}

}  // namespace opalcrt
