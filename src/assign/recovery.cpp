#include "assign/recovery.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
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

// 1 when all are there, 0 when one is missing, below 0 when one cannot be looked at.
int LookForRequiredFiles(const std::string &certId, const std::string &folder)
{
    for (const std::string &name : ListRequiredFiles(certId)) {
        const int exists = YLIBCFileExist((folder + "/" + name).c_str());
        if (exists != 1) {
            return exists;
        }
    }
    return 1;
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
// says which one it was. The recovery lock must be held. This is about another certificate than the caller's, so
// nothing is logged of what it lacks.
void FinishCutOffRecovery()
{
    Json::Value note;
    if (!fromFile(kRecoveryNotePath, note)) {
        return;
    }
    const std::string certId = GetString(note, "cert_id");
    if (!IsPlainFolderName(certId)) {
        RemoveRecoveryNote();
        return;
    }
    const std::string folder = GetCrtFolderPath(certId);
    std::error_code error;
    const std::filesystem::file_type type = std::filesystem::symlink_status(folder, error).type();
    if (type == std::filesystem::file_type::none) {
        return;  // It cannot be looked at.
    }
    const bool isGone = type != std::filesystem::file_type::directory;
    if (isGone || (LookForRequiredFiles(certId, folder) == 1 && TellBroken(folder))) {
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

    if (YLIBCFileExist(kRecoveryNotePath) != 0) {
        const ScopedLock lock(kRecoverLock, kLockExclusive, 0, UnlockLine::kStore);
        if (lock.IsHeld()) {  // Otherwise somebody is still at it.
            FinishCutOffRecovery();
        }
    }
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
    const int exist = LookForRequiredFiles(certId, folder);
    if (exist != 1) {
        LOG_ERROR("Lack of necessary files in cert dir [%s]", folder.c_str());
        isUnknown = exist < 0;
    }
    return exist == 1;
}

bool RecoverCrt(const std::string &certId, const std::string &folder)
{
    LOG_ERROR("%s is incomplete, start recovering", certId.c_str());

    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        LOG_ERROR("Failed to lock file [%s]", kRecoverLock);
        return false;
    }

    FinishCutOffRecovery();  // Of another one, whose note is about to be replaced.
    Json::Value note(Json::objectValue);
    note["cert_id"] = certId;
    if (!toFile(kRecoveryNotePath, note)) {
        // The certificate is worth more than what is told of it after a kill.
        LOG_ERROR("Failed to write %s [%d]", kRecoveryNotePath, errno);
    }
    if (genDefaultCrtSet(folder) != 0) {
        LOG_ERROR("Failed to generate default certificate to recover for [%s]", certId.c_str());
        if (LookForRequiredFiles(certId, folder) == 0) {
            RemoveRecoveryNote();  // It is mended again, unless somebody brings back a copy, which is not broken.
        }
        return false;
    }
    if (!TellBroken(folder)) {
        return false;
    }
    RemoveRecoveryNote();
    return true;
}

}  // namespace opalcrt
