#include "admin/roll_out.h"

#include <functional>
#include <set>

#include "admin/archive.h"
#include "admin/report.h"
#include "assign/engine.h"
#include "common/json_member.h"
#include "common/scoped_lock.h"
#include "store/crt_info.h"
#include "store/paths.h"
#include "store/service.h"

namespace opalcrt {

namespace {

constexpr int kActionAssign = 0;
constexpr int kActionDeploy = 2;

// Tells of each service what the engine tells.
class Teller {
public:
    Teller(Json::Value &report, bool asJson) : services_(report["services"]), asJson_(asJson)
    {
        services_ = Json::Value(Json::arrayValue);
    }
    void operator()(const Json::Value &serviceObj, const ServiceOutcome &outcome)
    {
        const std::string hook = std::to_string(outcome.hookEnded);
        std::string result = "has " + outcome.cert_id;
        if (!outcome.isDone) {
            result = "failed; the system log says why";
        } else if (outcome.hookEnded > 0) {
            result += ", but its hook ended with status " + hook;
        } else if (outcome.hookEnded == 0) {
            result += ", and its hook has run";
        }
        const bool isDone = outcome.isDone && outcome.hookEnded <= 0;
        allDone = allDone && isDone;
        Json::Value service(Json::objectValue);
        service["subscriber"] = GetString(serviceObj, "subscriber");
        service["service"] = GetString(serviceObj, "service");
        service["certificate"] = outcome.cert_id;
        service["result"] = !outcome.isDone ? "failed" : isDone ? "done" : "hook-failed";
        if (outcome.hookEnded >= 0) {
            service["hook_status"] = outcome.hookEnded;
        }
        Say(asJson_, service["subscriber"].asString() + "/" + service["service"].asString() + ": " + result);
        services_.append(std::move(service));
    }
    bool allDone = true;

private:
    Json::Value &services_;
    bool asJson_;
};

int EndRollOut(const Teller &teller, bool anyRefused, const Json::Value &report, bool asJson)
{
    if (anyRefused && report["services"].empty()) {
        return End(report, asJson, kRefused, "refused");
    }
    ReloadRelayDaemon();
    return teller.allDone && !anyRefused ? End(report, asJson, kDone, "done")
                                         : End(report, asJson, kPartlyChanged, "not all is done");
}

// Takes the services, which have the certificate now, from INFO's other entries.
bool ListOnce(const std::string &cert_id, const std::map<std::string, Json::Value> &services)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    Json::Value info;
    if (!lock.IsHeld() || !TakeCrtInfo(info) || !info.isObject()) {
        return Refuse(std::string("cannot lock or read ") + kInfoPath + "; run the same command again");
    }
    bool hasChanged = false;
    for (auto entry = info.begin(); entry != info.end(); ++entry) {
        if (entry.name() == cert_id || !GetMember(*entry, "services").isArray()) {
            continue;
        }
        Json::Value &list = (*entry)["services"];
        const Json::ArrayIndex size = list.size();
        for (const auto &[old_id, moved] : services) {
            for (const Json::Value &service : moved) {
                UpdateServiceList(list, service, true);
            }
        }
        hasChanged = hasChanged || list.size() != size;
    }
    return !hasChanged || WriteCrtInfo(std::move(info)) ||
           Refuse(std::string("cannot write ") + kInfoPath + "; run the same command again");
}

}  // namespace

std::map<std::string, Json::Value> ListServices(const Json::Value &info)
{
    std::set<ServiceName> seen;
    std::map<std::string, Json::Value> services;
    for (auto entry = info.begin(); entry != info.end(); ++entry) {
        Json::Value &list = services[entry.name()] = Json::Value(Json::arrayValue);
        const Json::Value &listed = GetMember(*entry, "services");
        for (Json::ArrayIndex at = 0; listed.isArray() && at < listed.size(); ++at) {
            if (NameOf(listed[at]).IsWhole() && seen.insert(NameOf(listed[at])).second) {
                list.append(listed[at]);
            }
        }
    }
    return services;
}

int RollOut(const std::map<std::string, Json::Value> &services, Json::Value report, bool asJson)
{
    Json::Value info;
    if (!ReadInfo(info)) {
        return End(report, asJson, kRefused, "refused");
    }
    Teller teller(report, asJson);
    bool anyRefused = false;
    for (const auto &[cert_id, list] : services) {
        if (list.empty()) {
            continue;
        }
        // Asked for here, since the engine would mend it: nobody wants a new key in place of a bought one.
        const bool isUsable = IsUsableCrt(cert_id, info);
        anyRefused = anyRefused || !isUsable;
        if (isUsable) {
            teller.allDone = SetCrtForServices(cert_id, list, "", kActionDeploy, std::ref(teller), false) &&
                             teller.allDone;
        }
    }
    return EndRollOut(teller, anyRefused, report, asJson);
}

int RollOutCrt(const std::string &cert_id, Json::Value report, bool asJson)
{
    Json::Value info;
    if (!ReadInfo(info) || (!cert_id.empty() && !IsUsableCrt(cert_id, info))) {
        return End(report, asJson, kRefused, "refused");
    }
    std::map<std::string, Json::Value> services = ListServices(info);
    if (!cert_id.empty()) {
        services = {{cert_id, services[cert_id]}};
    }
    return RollOut(services, report, asJson);
}

int Assign(const std::string &cert_id, const std::string &subscriber, const std::string &service, bool asJson)
{
    Json::Value report(Json::objectValue);
    report["id"] = cert_id;
    Json::Value info;
    if (!ReadInfo(info) || !IsUsableCrt(cert_id, info)) {
        return End(report, asJson, kRefused, "refused");
    }
    std::map<std::string, Json::Value> moved;
    for (const auto &[old_id, list] : ListServices(info)) {
        for (const Json::Value &listed : list) {
            if (MatchService(listed, subscriber, service)) {
                moved[old_id].append(listed);
            }
        }
    }
    if (moved.empty()) {
        Refuse("INFO lists no service " + subscriber + "/" + (service.empty() ? "*" : service) +
               "; register it first, opalcrt status lists them");
        return End(report, asJson, kRefused, "refused");
    }

    Teller teller(report, asJson);
    for (const auto &[old_id, list] : moved) {
        teller.allDone = SetCrtForServices(cert_id, list, old_id, kActionAssign, std::ref(teller), false) &&
                         teller.allDone;
    }
    // A service that failed still has what INFO says.
    teller.allDone = teller.allDone && ListOnce(cert_id, moved);
    return EndRollOut(teller, false, report, asJson);
}

}  // namespace opalcrt
