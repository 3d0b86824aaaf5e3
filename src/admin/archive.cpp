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

namespace {

std::string NewFolderPath(const std::string &cert_id) { return GetCrtFolderPath("." + cert_id + ".new"); }

}  // namespace

std::unique_ptr<ScopedLock> TakeRecoverLock(int status)
{
    auto lock =
        std::make_unique<ScopedLock>(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    RequireCall(lock->IsHeld(),
                std::string("cannot lock ") + kRecoverLock + "; if another run holds it, try again", status);
    return lock;
}

bool HasNewFolder(const std::string &cert_id)
{
    return IsPlainFolderName(cert_id) && YLIBCFileExist(NewFolderPath(cert_id).c_str()) != 0;
}

void RemoveNewFolder(const std::string &cert_id, int status)
{
    // It may be the old folder: if a power cut takes the exchange back, that must still be whole.
    const std::string fresh = NewFolderPath(cert_id);
    RequireCall(SyncPath(kArchive) && RemovePath(fresh),
                "cannot sync the archive, or remove " + fresh + "; run the same command again", status);
}

void ReplaceCrtFolder(const std::string &cert_id, const std::function<void(const std::string &folder)> &fill)
{
    const std::string folder = GetCrtFolderPath(cert_id);
    const std::string fresh = NewFolderPath(cert_id);
    const bool isThere = YLIBCFileExist(folder.c_str()) != 0;
    const bool wasMarked = HasNewFolder(cert_id);  // and stays so, with what it may hold, when this fails
    RemoveNewFolder(cert_id, kRefused);
    bool isReplaced = false;
    const auto undo = [&](const std::string *path) { (void)(isReplaced || wasMarked || RemovePath(*path)); };
    const std::unique_ptr<const std::string, decltype(undo)> made(&fresh, undo);
    RequireCall(OPALFSMkdirP(fresh.c_str(), nullptr, 0, 0, 0, 0700) == 0, "cannot make " + fresh);
    fill(fresh);
    RequireCall(SyncPath(fresh), "cannot sync " + fresh);
    int failed = kRefused;
    if (!isThere) {
        // Before the folder: one that INFO does not list would be in the way of the next run.
        ChangeInfo(kRefused, [&](Json::Value &info) {
            if (!GetMember(info, cert_id.c_str()).isObject()) {
                info[cert_id] = Json::Value(Json::objectValue);
                info[cert_id]["services"] = Json::Value(Json::arrayValue);
                failed = kPartlyChanged;
            }
        });
    }
    const unsigned how = isThere ? RENAME_EXCHANGE : 0;
    isReplaced = renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, folder.c_str(), how) == 0;
    const bool isUnable = errno == EINVAL || errno == ENOSYS;  // renameat2(2)
    RequireCall(
        isReplaced,
        "cannot replace " + folder + (isUnable ? ": its file system exchanges no folders in one step" : ""),
        failed);
    RequireCall(SyncPath(kArchive), "cannot sync the archive; run opalcrt deploy " + cert_id, kPartlyChanged);
}

Json::Value ReadInfo(int status)
{
    const Json::Value *info = ReadCrtInfo();
    Require(info != nullptr && info->isObject(),
            std::string(kInfoPath) +
                " cannot be read as a JSON object; see opalcrt status, or, for the first one, opalcrt init",
            status);
    return *info;
}

void ChangeInfo(int status, const std::function<void(Json::Value &info)> &change)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    const Json::Value *old = lock.IsHeld() ? ReadCrtInfo() : nullptr;
    const std::string path = kInfoPath;
    RequireCall(old != nullptr && old->isObject(),
                "cannot lock or read " + path + "; run the same command again", status);
    Json::Value info = *old;
    change(info);
    RequireCall(info == *old || WriteCrtInfo(info), "cannot write " + path + "; run the same command again",
                status);
}

void RequireListed(const std::string &cert_id)
{
    Require(IsPlainFolderName(cert_id) && GetMember(ReadInfo(), cert_id.c_str()).isObject(),
            "there is no certificate \"" + cert_id + "\" in INFO; opalcrt status lists them");
}

bool IsWhole(const std::string &cert_id)
{
    const bool isWhole = IsCrtComplete(cert_id, GetCrtFolderPath(cert_id));
    if (!isWhole) {
        Tell("the certificate " + cert_id +
             " lacks files or is being mended; see opalcrt status, or install it anew");
    }
    return isWhole;
}

void RequireUsable(const std::string &cert_id)
{
    RequireListed(cert_id);
    if (!IsWhole(cert_id)) {
        throw Failure{kRefused};
    }
}

int Default(const Options &options, Json::Value &)
{
    if (!options.id) {
        const std::string old_id = ReadDefCrtId();
        Require(!old_id.empty(), std::string(kDefaultPath) + " names none; set one: opalcrt default ID");
        Say(options, old_id);
        return kDone;
    }
    const std::string &cert_id = *options.id;
    const auto lock = TakeRecoverLock();
    RequireUsable(cert_id);
    Require(cert_id.size() <= kLongestDefaultId && cert_id.find('\n') == std::string::npos,
            cert_id + " cannot be the default certificate: its id has more than 15 bytes");
    RequireCall(ReplaceFile(kDefaultPath, cert_id + "\n", kDefaultPath),
                std::string("cannot write ") + kDefaultPath);
    Say(options, cert_id + ": the certificate of new services");
    return kDone;
}

}  // namespace opalcrt
