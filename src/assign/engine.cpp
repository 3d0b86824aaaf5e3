#include "assign/engine.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>

#include "assign/recovery.h"
#include "assign/reload_hooks.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/deployment.h"
#include "platform/services.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kUtils;

struct CRTActionInfo {
    int32_t action;
    int32_t skipAdd;     // 1: the new certificate's list in INFO is left alone
    int32_t skipRemove;  // 1: the old certificate's list in INFO is left alone
    bool reload;         // run the subscriber's hook
};

constexpr CRTActionInfo rgCRTActionInfo[] = {
    {0, 0, 0, true}, {1, 0, 0, true}, {2, 1, 1, true}, {3, 0, 0, false}, {4, 0, 0, true},
};

const CRTActionInfo *FindAction(int action)
{
    if (action < 0 || static_cast<size_t>(action) >= std::size(rgCRTActionInfo) ||
        rgCRTActionInfo[action].action != action) {
        LOG_ERROR("Wrong rgCRTActionInfo.");
        return nullptr;
    }
    return &rgCRTActionInfo[action];
}

// Changes one certificate's list of services inside `info`.
bool ChangeServiceList(Json::Value &info, const std::string &certId, const Json::Value &serviceObj,
                       bool removeOnly)
{
    if (!GetMember(info[certId], "services").isArray()) {
        LOG_ERROR_STATE("Broken [%s][%s].", kInfoPath, certId.c_str());
        return false;
    }
    UpdateServiceList(info[certId]["services"], serviceObj, removeOnly);
    return true;
}

bool UpdateCrtInfo(const Json::Value &serviceObj, const std::string &oldId, const std::string &newId,
                   const CRTActionInfo &row)
{
    if (!CheckAndRecoverCrt(newId)) {
        LOG_ERROR("Invalid input of [%s]", newId.c_str());
        return false;
    }

    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        LOG_ERROR("Lock list file [%s] failed", kInfoLock);
        return false;
    }

    Json::Value info;
    if (!TakeCrtInfo(info) || !info.isObject()) {
        LOG_ERROR_STATE("Broken [%s].", kInfoPath);
        return false;
    }
    if (row.skipRemove == 0 && !oldId.empty() && !ChangeServiceList(info, oldId, serviceObj, true)) {
        return false;
    }
    if (row.skipAdd == 0 && !ChangeServiceList(info, newId, serviceObj, false)) {
        return false;
    }
    if (!WriteCrtInfo(std::move(info))) {
        LOG_ERROR("Failed to write [%s].", kInfoPath);
        return false;
    }
    return true;
}

bool SetCrtForService(const Json::Value &serviceObj, std::string newId, std::string oldId,
                      const CRTActionInfo &row)
{
    // The names become paths that root removes and runs: those from a definition were looked at there, those that
    // another caller takes from a book were not.
    const std::string subscriber = GetString(serviceObj, "subscriber");
    if (!IsServiceObjValid(serviceObj) || !IsUsableSubscriber(subscriber) ||
        !IsUsableService(subscriber, GetString(serviceObj, "service"))) {
        LOG_ERROR("service object is error.");
        return false;
    }

    const std::string text = ToLogText(serviceObj);
    std::string currentId;
    if (!GetServiceCrtId(serviceObj, currentId)) {
        LOG_ERROR_LONG(text, "Failed to check service exist for %s", text.c_str());
        return false;
    }
    if (row.action == kActionDefault && !currentId.empty()) {
        newId = currentId;
        oldId = currentId;
    }

    if (!DeployServiceCrt(newId, serviceObj)) {
        LOG_ERROR_LONG(text, "Failed to set cert [%s] for [%s]", newId.c_str(), text.c_str());
        return false;
    }

    const bool leavesInfo = row.skipAdd == 1 && row.skipRemove == 1;
    if (!leavesInfo && !UpdateCrtInfo(serviceObj, oldId, newId, row)) {
        LOG_ERROR_LONG(text, "Failed to update cert info for [%s] from %s to %s", text.c_str(), oldId.c_str(),
                       newId.c_str());
        return false;
    }

    if (row.reload && ReloadService(serviceObj) != 0) {
        LOG_ERROR_LONG(text, "Failed to reload [%s]", text.c_str());
        return false;
    }
    return true;
}

}  // namespace

bool DeployDefCrt(const Json::Value &services, int action, const std::string &oldCertId)
{
    const std::string certId = GetDefCrtId();
    return !certId.empty() && SetCrtForServices(certId, services, oldCertId, action);
}

bool SetCrtForServices(const std::string &certId, const Json::Value &services, const std::string &oldCertId,
                       int action)
{
    if (!CheckAndRecoverCrt(certId) || !services.isArray()) {
        LOG_ERROR("Invalid params (cert_id/services)");
        return false;
    }
    const CRTActionInfo *row = FindAction(action);
    if (row == nullptr) {
        LOG_ERROR("Invalid params (action)");
        return false;
    }

    bool allDone = true;
    for (const Json::Value &serviceObj : services) {
        allDone = SetCrtForService(serviceObj, certId, oldCertId, *row) && allDone;
    }

    if (!OPALSystemdReload("opalrelayd")) {
        LOG_ERROR("Reload opalrelayd failed.");
    }
    return allDone;
}

}  // namespace opalcrt
