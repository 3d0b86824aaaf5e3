#include "store/crt_info.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "common/json_cache.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kUtils;

struct ServiceObjKey {
    const char *name;
    Json::ValueType type;
    bool isRequired;
};

constexpr ServiceObjKey kServiceObjKeys[] = {
    {"display_name", Json::stringValue, true}, {"display_name_i18n", Json::stringValue, false},
    {"subscriber", Json::stringValue, true},   {"service", Json::stringValue, true},
    {"isPkg", Json::booleanValue, true},       {"owner", Json::stringValue, true},
};

// A registration reads INFO several times for each service, and mostly nobody has changed it meanwhile.
JsonFileCache &CrtInfoFile()
{
    static JsonFileCache file(kInfoPath);
    return file;
}

// Entries and lists of a wrong shape carry no service and are passed over.
bool ListsService(const Json::Value &entry, const Json::Value &serviceObj)
{
    const Json::Value &services = GetMember(entry, "services");
    if (!services.isArray()) {
        return false;
    }
    const Json::Value &service = GetMember(serviceObj, "service");
    const Json::Value &subscriber = GetMember(serviceObj, "subscriber");
    for (const Json::Value &element : services) {
        if (GetMember(element, "service") == service && GetMember(element, "subscriber") == subscriber) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool IsServiceObjValid(const Json::Value &serviceObj)
{
    for (const ServiceObjKey &key : kServiceObjKeys) {
        const bool isPresent = serviceObj.isObject() && serviceObj.isMember(key.name);
        if (!isPresent && key.isRequired) {
            LOG_ERROR("Lack of necesary key. [%s]", key.name);
            return false;
        }
        if (!isPresent) {
            continue;
        }
        const Json::Value &member = GetMember(serviceObj, key.name);
        if (member.type() != key.type || (member.isString() && member.asString().empty())) {
            return false;
        }
    }
    return true;
}

bool GetServiceCrtId(const Json::Value &serviceObj, std::string &certId)
{
    if (!IsServiceObjValid(serviceObj)) {
        const std::string text = ToLogText(serviceObj);
        LOG_ERROR_LONG(text, "Invalid input format [%s]", text.c_str());
        return false;
    }

    const ScopedLock lock(kInfoLock, kLockShared, kInfoLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        LOG_ERROR("Failed to lock [%s]", kInfoLock);
        return false;
    }

    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr || !info->isObject()) {
        LOG_ERROR_STATE("Broken [%s].", kInfoPath);
        return false;
    }

    // jsoncpp walks an object's members in ascending byte order of their names.
    for (auto entry = info->begin(); entry != info->end(); ++entry) {
        if (ListsService(*entry, serviceObj)) {
            certId = entry.name();
            return true;
        }
    }
    return true;
}

void UpdateServiceList(Json::Value &services, const Json::Value &serviceObj, bool removeOnly)
{
    const std::optional<ServiceName> changed = NameOf(serviceObj);
    const auto stays = [&changed](const Json::Value &element) {
        const std::optional<ServiceName> listed = NameOf(element);
        return listed && listed != changed;
    };
    // A long list in which nothing changes, that of a new service, is not built anew.
    if (!std::all_of(services.begin(), services.end(), stays)) {
        Json::Value old(Json::arrayValue);
        old.swap(services);
        for (Json::Value &element : old) {
            if (stays(element)) {
                services.append(std::move(element));
            }
        }
    }
    if (!removeOnly) {
        services.append(serviceObj);
    }
}

const Json::Value *ReadCrtInfo()
{
    return CrtInfoFile().Read();
}

bool TakeCrtInfo(Json::Value &info)
{
    return CrtInfoFile().Take(info);
}

bool WriteCrtInfo(Json::Value info)
{
    if (!toFile(kInfoTempPath, info, true, kInfoPath)) {
        const std::string text = ToLogText(info);
        LOG_ERROR_LONG(text, "Failed to write [%s] to [%s].", text.c_str(), kInfoTempPath);
        return false;
    }
    // Opened under the name that is ours alone, so it is what was written, whatever becomes of INFO.
    UniqueFd written = OpenRegularFile(kInfoTempPath);
    if (rename(kInfoTempPath, kInfoPath) != 0 || !SyncParent(kInfoPath)) {
        LOG_ERROR("Failed to move %s to %s", kInfoTempPath, kInfoPath);
        return false;
    }
    if (written.IsOpen()) {
        CrtInfoFile().Keep(std::move(written), std::move(info));
    }
    return true;
}

}  // namespace opalcrt
