#include "assign/engine.h"

#include <cstdint>
#include <utility>

#include "assign/recovery.h"
#include "assign/reload_hooks.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/deployment.h"
#include "platform/file_test.h"
#include "platform/services.h"
#include "store/crt_info.h"
#include "store/default_crt.h"
#include "store/paths.h"
#include "store/service.h"

namespace opalcrt {

namespace {

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
    for (const CRTActionInfo &row : rgCRTActionInfo) {
        if (row.action == action) {
            return &row;
        }
    }
    LOG_ERROR("Wrong rgCRTActionInfo.");
    return nullptr;
}

// Changes one certificate's list of services inside `info`.
bool ChangeServiceList(Json::Value &info, const std::string &cert_id, const Json::Value &serviceObj,
                       bool removeOnly)
{
    if (!GetMember(info[cert_id], "services").isArray()) {
        return LOG_ERROR_STATE("Broken [%s][%s].", kInfoPath, cert_id.c_str());
    }
    UpdateServiceList(info[cert_id]["services"], serviceObj, removeOnly);
    return true;
}

bool UpdateCrtInfo(const Json::Value &serviceObj, const std::string &oldId, const std::string &newId,
                   const CRTActionInfo &row)
{
    if (!CheckAndRecoverCrt(newId)) {
        return LOG_ERROR("Invalid input of [%s]", newId.c_str());
    }

    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return LOG_ERROR("Lock list file [%s] failed", kInfoLock);
    }

    Json::Value info;
    if (!TakeCrtInfo(info) || !info.isObject()) {
        return LOG_ERROR_STATE("Broken [%s].", kInfoPath);
    }
    if (row.skipRemove == 0 && !oldId.empty() && !ChangeServiceList(info, oldId, serviceObj, true)) {
        return false;
    }
    if (row.skipAdd == 0 && !ChangeServiceList(info, newId, serviceObj, false)) {
        return false;
    }
    if (!WriteCrtInfo(std::move(info))) {
        return LOG_ERROR("Failed to write [%s].", kInfoPath);
    }
    return true;
}

// A mend that was cut off is made again before anything is copied of what it has left.
bool MendIfCutOff(const std::string &cert_id)
{
    return YLIBCFileExist(GetMendingMarkPath(cert_id).c_str()) == 0 || CheckAndRecoverCrt(cert_id);
}

bool SetCrtForService(const Json::Value &serviceObj, std::string newId, std::string oldId,
                      const CRTActionInfo &row, ServiceOutcome &outcome)
{
    // The names become paths that root removes and runs: those from a definition were looked at there, those that
    // another caller takes from a book were not.
    if (!IsServiceObjValid(serviceObj) || !HasUsableNames(serviceObj)) {
        return LOG_ERROR("service object is error.");
    }

    std::string currentId;
    if (!GetServiceCrtId(serviceObj, currentId)) {
        return LOG_ERROR("Failed to check service exist for %s", ToLogText(serviceObj).c_str());
    }
    if (row.action == kActionDefault && !currentId.empty()) {
        newId = currentId;
        oldId = currentId;
    }
    outcome.cert_id = newId;

    if (!MendIfCutOff(newId) || !DeployServiceCrt(newId, serviceObj)) {
        return LOG_ERROR("Failed to set cert [%s] for [%s]", newId.c_str(), ToLogText(serviceObj).c_str());
    }

    const bool leavesInfo = row.skipAdd == 1 && row.skipRemove == 1;
    if (!leavesInfo && !UpdateCrtInfo(serviceObj, oldId, newId, row)) {
        return LOG_ERROR("Failed to update cert info for [%s] from %s to %s", ToLogText(serviceObj).c_str(),
                         oldId.c_str(), newId.c_str());
    }

    outcome.isDone = true;
    if (row.reload && ReloadService(serviceObj, &outcome.hookEnded) != 0) {
        return LOG_ERROR("Failed to reload [%s]", ToLogText(serviceObj).c_str());
    }
    return true;
}

}  // namespace

bool DeployDefCrt(const Json::Value &services, int action, const std::string &old_cert_id)
{
    const std::string cert_id = GetDefCrtId();
    return !cert_id.empty() && SetCrtForServices(cert_id, services, old_cert_id, action);
}

bool SetCrtForServices(const std::string &cert_id, const Json::Value &services,
                       const std::string &old_cert_id, int action, const ServiceObserver &tell,
                       bool reloadsRelay)
{
    if (!CheckAndRecoverCrt(cert_id) || !services.isArray()) {
        return LOG_ERROR("Invalid params (cert_id/services)");
    }
    const CRTActionInfo *row = FindAction(action);
    if (row == nullptr) {
        return LOG_ERROR("Invalid params (action)");
    }

    bool allDone = true;
    for (const Json::Value &serviceObj : services) {
        ServiceOutcome outcome;
        allDone = SetCrtForService(serviceObj, cert_id, old_cert_id, *row, outcome) && allDone;
        if (tell) {
            tell(serviceObj, outcome);
        }
    }

    if (reloadsRelay) {
        ReloadRelayDaemon();
    }
    return allDone;
}

void ReloadRelayDaemon()
{
    if (!OPALSystemdReload("opalrelayd")) {
        LOG_ERROR("Reload opalrelayd failed.");
    }
}

}  // namespace opalcrt
