#include "store/crt_info.h"

#include <cstdio>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "platform/atomic_file.h"
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

// Entries and lists of a wrong shape carry no service and are passed over.
bool ListsService(const Json::Value &entry, const Json::Value &serviceObj)
{
    const Json::Value &services = GetMember(entry, "services");
    if (!services.isArray()) {
        return false;
    }
    for (const Json::Value &element : services) {
        if (element.isObject() && IsSameService(element, serviceObj)) {
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

    Json::Value info;
    if (!fromFile(kInfoPath, info) || !info.isObject()) {
        LOG_ERROR_STATE("Broken [%s].", kInfoPath);
        return false;
    }

    // jsoncpp walks an object's members in ascending byte order of their names.
    for (auto entry = info.begin(); entry != info.end(); ++entry) {
        if (ListsService(*entry, serviceObj)) {
            certId = entry.name();
            return true;
        }
    }
    return true;
}

void UpdateServiceList(Json::Value &services, const Json::Value &serviceObj, bool removeOnly)
{
    Json::Value old(Json::arrayValue);
    old.swap(services);
    for (Json::Value &element : old) {
        if (HasString(element, "subscriber") && HasString(element, "service") &&
            !IsSameService(element, serviceObj)) {
            services.append(std::move(element));
        }
    }
    if (!removeOnly) {
        services.append(serviceObj);
    }
}

bool WriteCrtInfo(const Json::Value &info)
{
    if (!toFile(kInfoTempPath, info, true, kInfoPath)) {
        const std::string text = ToLogText(info);
        LOG_ERROR_LONG(text, "Failed to write [%s] to [%s].", text.c_str(), kInfoTempPath);
        return false;
    }
    if (rename(kInfoTempPath, kInfoPath) != 0 || !SyncParent(kInfoPath)) {
        LOG_ERROR("Failed to move %s to %s", kInfoTempPath, kInfoPath);
        return false;
    }
    return true;
}

}  // namespace opalcrt
