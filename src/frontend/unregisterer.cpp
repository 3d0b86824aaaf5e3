#include "frontend/unregisterer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "frontend/caller_check.h"
#include "frontend/services_list.h"
#include "platform/atomic_file.h"
#include "platform/file_read.h"
#include "platform/process.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"
#include "store/service.h"
#include "store/service_folder.h"

namespace opalcrt {

namespace {

constexpr int kUnregisterLockSeconds = 10;

const char *PkgMark(bool isPkg, const char *mark) { return isPkg ? mark : ""; }

bool Init(int argc, char *argv[], Json::Value &request)
{
    request = Json::Value(Json::objectValue);
    if (*argv[1] == '\0') {
        return LOG_ERROR("Bad params: subscriber");
    }
    request["subscriber"] = argv[1];

    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr) {
        return LOG_ERROR("Failed to get info for UnRegisterer");
    }
    if (argc == 3) {
        request["service"] = argv[2];
    }
    if (!info->isObject() || info->empty()) {
        return LOG_ERROR("Bad certificate info");
    }

    if (FindServiceOwner(*info, request) && !CheckOwnerPermission(GetString(request, "owner"))) {
        return LOG_ERROR_STATE("Failed to init, ");
    }
    return true;
}

// Whether a service object that is to be removed belongs to the owner that was found and checked.
bool IsSameOwner(const Json::Value &serviceObj, const Json::Value &request)
{
    const std::string objOwner = GetString(serviceObj, "owner");
    const std::string requestOwner = GetString(request, "owner");
    const bool objIsPkg = GetBool(serviceObj, "isPkg");
    const bool requestIsPkg = GetBool(request, "isPkg");
    if (objOwner != requestOwner || objIsPkg != requestIsPkg) {
        return LOG_ERROR("Bad info: [%s(%s)_%s(%s)]", objOwner.c_str(), PkgMark(objIsPkg, "pkg"),
                         requestOwner.c_str(), PkgMark(requestIsPkg, "pkg"));
    }
    return true;
}

// Rebuilds one certificate's list without the request's services. False when one of these is somebody else's.
bool KeepOtherServices(const Json::Value &request, Json::Value &services, bool &isChanged)
{
    const std::string subscriber = GetString(request, "subscriber");
    const std::string filter = GetString(request, "service");
    Json::Value kept(Json::arrayValue);
    for (Json::Value &serviceObj : services) {
        if (!MatchService(serviceObj, subscriber, filter)) {
            kept.append(std::move(serviceObj));
        } else if (!IsSameOwner(serviceObj, request)) {
            return false;
        }
    }
    isChanged = isChanged || kept.size() != services.size();
    services.swap(kept);
    return true;
}

// A link in the place of the folder that is removed is removed itself; nothing is removed through one.
bool IsRemovableFolder(bool isPkg, const std::string &subscriber, bool hasService, const std::string &service)
{
    std::error_code error;
    return IsPlainFolderName(subscriber) && (service.empty() || IsPlainFolderName(service)) &&
           IsServiceFolderInRoot(isPkg, subscriber, service) &&
           !(hasService && std::filesystem::is_symlink(GetCertificateRoot(isPkg) + subscriber, error));
}

// What a registration of the service that was cut off has left beside its folder: keys, too. One that is under way
// holds the service's lock and needs them.
bool RemoveRemains(const std::string &serviceFolder, const std::string &lockPath)
{
    const std::string staging = serviceFolder + kStagingSuffix;
    const std::string backup = serviceFolder + kBackupSuffix;
    struct stat info = {};
    if (lstat(staging.c_str(), &info) != 0 && lstat(backup.c_str(), &info) != 0) {
        return true;
    }
    const ScopedLock lock(lockPath.c_str(), kLockExclusive, 0, UnlockLine::kFrontEnd);
    return (!lock.IsHeld() && errno == ETIMEDOUT) ||
           YLIBCExec("/bin/rm", "-rf", staging.c_str(), backup.c_str(), nullptr) == 0;
}

}  // namespace

int UnRegisterer(int argc, char *argv[])
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kUnregisterLockSeconds, UnlockLine::kFrontEnd);
    // Who may not open root's lock may not change anything either: he goes on to the step that tells him so.
    if (!lock.IsHeld() && (errno != EACCES || geteuid() == 0)) {
        LOG_ERROR("Lock list file [%s] failed", kInfoLock);
        return 1;
    }

    Json::Value request;
    if (!Init(argc, argv, request)) {
        printf("Failed to init for Un-Registerer\n");
        return 1;
    }
    if (!RemoveRegisterServices(GetString(request, "subscriber"), GetString(request, "service"))) {
        printf("Failed to remove register services\n");
        return 1;
    }
    if (!RemoveServiceFromInfo(request)) {
        printf("Failed to remove service from info\n");
        return 1;
    }
    if (!RemoveServiceCertificate(request)) {
        printf("Failed to remove service certificate\n");
        return 1;
    }
    return 0;
}

bool FindServiceOwner(const Json::Value &info, Json::Value &request)
{
    const std::string subscriber = GetString(request, "subscriber");
    const std::string filter = GetString(request, "service");
    for (const Json::Value &entry : info) {
        const Json::Value &services = GetMember(entry, "services");
        if (!services.isArray()) {
            continue;
        }
        for (const Json::Value &serviceObj : services) {
            if (MatchService(serviceObj, subscriber, filter) && HasString(serviceObj, "owner") &&
                HasBool(serviceObj, "isPkg")) {
                request["owner"] = serviceObj["owner"];
                request["isPkg"] = serviceObj["isPkg"];
                return true;
            }
        }
    }
    return LOG_ERROR("Can NOT find service: %s(%s)", subscriber.c_str(), filter.c_str());
}

bool RemoveServiceFromInfo(const Json::Value &request)
{
    const UniqueFd old = OpenRegularFile(kInfoPath);  // Stays what it is, whatever becomes of the name.
    Json::Value info;
    if (!TakeCrtInfo(info) || !info.isObject()) {
        return LOG_ERROR("Failed to get or bad info for UnRegisterer");
    }

    bool isChanged = false;
    for (Json::Value &entry : info) {
        if (GetMember(entry, "services").isArray() &&
            !KeepOtherServices(request, entry["services"], isChanged)) {
            return false;
        }
    }
    if (!isChanged || toFile(kInfoPath, info, true)) {
        return true;
    }

    LOG_ERROR("Failed to update info file");
    if (fromOpenFile(old.Get(), info) && toFile(kInfoBackupPath, info, true, kInfoPath)) {
        LOG_ERROR("Original info file is backed up to %s.bak", kInfoPath);
    }
    return false;
}

bool RemoveServiceCertificate(const Json::Value &request)
{
    const bool isPkg = GetBool(request, "isPkg");
    const char *const mark = PkgMark(isPkg, "(pkg)");
    if (!HasString(request, "subscriber")) {
        return LOG_ERROR("Invalid config: %s", ToLogText(request).c_str());
    }

    const std::string subscriber = GetString(request, "subscriber");
    const std::string service = GetString(request, "service");
    const bool hasService = HasString(request, "service");
    const std::string folder = hasService ? subscriber + "/" + service : subscriber;
    const std::string path = GetCertificateRoot(isPkg) + folder;
    // The remains first, and also without the folder: a registration that is cut off while it exchanges the folder
    // leaves just them.
    const bool remainsStay = !service.empty() && IsPlainFolderName(service) &&
                             IsRemovableFolder(isPkg, subscriber, true, "") &&
                             !RemoveRemains(path, GetServiceLockPath(subscriber, service));
    if (!IsRemovableFolder(isPkg, subscriber, hasService, service)) {
        return LOG_ERROR("Invalid certificate: %s%s", folder.c_str(), mark);
    }

    // Synced: nobody would look for a key that a power cut brought back. Of an empty service the path ends in "/".
    if (YLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr, nullptr) != 0 ||
        !SyncParent(service.empty() ? GetCertificateRoot(isPkg) + subscriber : path) || remainsStay) {
        return LOG_ERROR_STATE("Failed to remove certificate [%s%s]", folder.c_str(), mark);
    }
    LOG_ERROR("Un-Register certificate for %s%s", folder.c_str(), mark);
    return true;
}

}  // namespace opalcrt
