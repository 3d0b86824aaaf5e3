#include "frontend/unregisterer.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/dir_utils.h"
#include "frontend/caller_check.h"
#include "frontend/services_list.h"
#include "platform/atomic_file.h"
#include "platform/process.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kFrontEnd;
constexpr int kUnregisterLockSeconds = 10;

const char *PkgMark(bool isPkg, const char *mark)
{
    return isPkg ? mark : "";
}

bool Init(int argc, char *argv[], Json::Value &request)
{
    request = Json::Value(Json::objectValue);
    if (*argv[1] == '\0') {
        LOG_ERROR("Bad params: subscriber");
        return false;
    }
    request["subscriber"] = argv[1];

    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr) {
        LOG_ERROR("Failed to get info for UnRegisterer");
        return false;
    }
    if (argc == 3) {
        request["service"] = argv[2];
    }
    if (!info->isObject() || info->empty()) {
        LOG_ERROR("Bad certificate info");
        return false;
    }

    if (FindServiceOwner(*info, request) && !CheckOwnerPermission(GetString(request, "owner"))) {
        LOG_ERROR_STATE("Failed to init, ");
        return false;
    }
    return true;
}

bool NamesService(const Json::Value &request, const Json::Value &serviceObj)
{
    return MatchService(serviceObj, GetString(request, "subscriber"), GetString(request, "service"));
}

// Whether a service object that is to be removed belongs to the owner that was found and checked.
bool IsSameOwner(const Json::Value &serviceObj, const Json::Value &request)
{
    const std::string objOwner = GetString(serviceObj, "owner");
    const std::string requestOwner = GetString(request, "owner");
    const bool objIsPkg = GetBool(serviceObj, "isPkg");
    const bool requestIsPkg = GetBool(request, "isPkg");
    if (objOwner != requestOwner || objIsPkg != requestIsPkg) {
        LOG_ERROR("Bad info: [%s(%s)_%s(%s)]", objOwner.c_str(), PkgMark(objIsPkg, "pkg"),
                  requestOwner.c_str(), PkgMark(requestIsPkg, "pkg"));
        return false;
    }
    return true;
}

bool ListsAny(const Json::Value &services, const Json::Value &request)
{
    return std::any_of(services.begin(), services.end(), [&request](const Json::Value &serviceObj) {
        return NamesService(request, serviceObj);
    });
}

// Copies what stays of one entry's list to `kept`. False when a service to be removed is somebody else's.
bool KeepOtherServices(const Json::Value &services, const Json::Value &request, Json::Value &kept)
{
    for (const Json::Value &serviceObj : services) {
        if (!NamesService(request, serviceObj)) {
            kept.append(serviceObj);
        } else if (!IsSameOwner(serviceObj, request)) {
            return false;
        }
    }
    return true;
}

// The archive, whose folders lie below the same root, and whatever only leads to a folder must not be
// removed.
bool IsRemovableFolder(bool isPkg, const std::string &subscriber, const std::string &service)
{
    return IsUsableSubscriber(subscriber) && (service.empty() || IsUsableService(subscriber, service)) &&
           IsServiceFolderInRoot(isPkg, subscriber, service) &&
           IsCanonicalPath(GetCertificateRoot(isPkg) + subscriber) &&
           (service.empty() || IsCanonicalPath(GetServiceFolderPath(isPkg, subscriber, service)));
}

}  // namespace

int UnRegisterer(int argc, char *argv[])
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kUnregisterLockSeconds, UnlockLine::kFrontEnd);
    if (!lock.IsHeld()) {
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
    for (const Json::Value &entry : info) {
        const Json::Value &services = GetMember(entry, "services");
        if (!services.isArray()) {
            continue;
        }
        for (const Json::Value &serviceObj : services) {
            if (NamesService(request, serviceObj) && HasString(serviceObj, "owner") &&
                HasBool(serviceObj, "isPkg")) {
                request["owner"] = serviceObj["owner"];
                request["isPkg"] = serviceObj["isPkg"];
                return true;
            }
        }
    }
    LOG_ERROR("Can NOT find service: %s(%s)", GetString(request, "subscriber").c_str(),
              GetString(request, "service").c_str());
    return false;
}

bool RemoveServiceFromInfo(const Json::Value &request)
{
    Json::Value info;
    if (!TakeCrtInfo(info) || !info.isObject()) {
        LOG_ERROR("Failed to get or bad info for UnRegisterer");
        return false;
    }

    std::vector<std::pair<Json::Value *, Json::Value>> changed;  // Each list with what it was.
    for (Json::Value &entry : info) {
        const Json::Value &services = GetMember(entry, "services");
        if (!services.isArray() || !ListsAny(services, request)) {
            continue;
        }
        Json::Value kept(Json::arrayValue);
        if (!KeepOtherServices(services, request, kept)) {
            return false;
        }
        entry["services"].swap(kept);
        changed.emplace_back(&entry["services"], std::move(kept));
    }
    if (changed.empty() || toFile(kInfoPath, info, true)) {
        return true;
    }

    LOG_ERROR("Failed to update info file");
    for (auto &[services, before] : changed) {
        services->swap(before);
    }
    if (toFile(kInfoBackupPath, info, true, kInfoPath)) {
        LOG_ERROR("Original info file is backed up to %s.bak", kInfoPath);
    }
    return false;
}

bool RemoveServiceCertificate(const Json::Value &request)
{
    const bool isPkg = GetBool(request, "isPkg");
    const char *const mark = PkgMark(isPkg, "(pkg)");
    if (!HasString(request, "subscriber")) {
        const std::string text = ToLogText(request);
        LOG_ERROR_LONG(text, "Invalid config: %s", text.c_str());
        return false;
    }

    const std::string subscriber = GetString(request, "subscriber");
    const std::string service = GetString(request, "service");
    const std::string folder = HasString(request, "service") ? subscriber + "/" + service : subscriber;
    if (!IsRemovableFolder(isPkg, subscriber, service)) {
        LOG_ERROR("Invalid certificate: %s%s", folder.c_str(), mark);
        return false;
    }

    const std::string path = GetCertificateRoot(isPkg) + folder;
    // Synced: nobody would look for a key that a power cut brought back. Of an empty service the path ends in "/".
    if (YLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr, nullptr) != 0 ||
        !SyncParent(service.empty() ? GetCertificateRoot(isPkg) + subscriber : path)) {
        LOG_ERROR_STATE("Failed to remove certificate [%s%s]", folder.c_str(), mark);
        return false;
    }
    LOG_ERROR("Un-Register certificate for %s%s", folder.c_str(), mark);
    return true;
}

}  // namespace opalcrt
