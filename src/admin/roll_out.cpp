#include "admin/roll_out.h"

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

// Adds to the report, and says, what the engine tells of a service. Whether all of it is done.
bool Tell(const Json::Value &serviceObj, const ServiceOutcome &outcome, const Options &options,
          Json::Value &services)
{
    const bool isDone = outcome.isDone && outcome.hookEnded <= 0;
    Json::Value service(Json::objectValue);
    service["subscriber"] = GetString(serviceObj, "subscriber");
    service["service"] = GetString(serviceObj, "service");
    service["certificate"] = outcome.cert_id;
    service["result"] = isDone ? "done" : outcome.isDone ? "hook-failed" : "failed";
    if (outcome.hookEnded >= 0) {
        service["hook_status"] = outcome.hookEnded;
    }
    Say(options,
        service["subscriber"].asString() + "/" + service["service"].asString() +
            (outcome.isDone ? ": has " + outcome.cert_id : ": failed; the system log says why") +
            (outcome.hookEnded < 0 ? "" : "; its hook ended with " + std::to_string(outcome.hookEnded)));
    services.append(std::move(service));
    return isDone;
}

// Takes the services, which have the certificate now, from INFO's other entries.
bool ListOnce(const std::string &cert_id, const Json::Value &services)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    Json::Value info;
    bool hasChanged = false;
    if (!lock.IsHeld() || !TakeCrtInfo(info) || !info.isObject()) {
        return Refuse(std::string("cannot lock or read ") + kInfoPath + "; run the same command again");
    }
    for (const std::string &other : info.getMemberNames()) {
        if (other != cert_id && GetMember(info[other], "services").isArray()) {
            Json::Value &list = info[other]["services"];
            const Json::ArrayIndex size = list.size();
            for (const Json::Value &service : services) {
                UpdateServiceList(list, service, true);
            }
            hasChanged = hasChanged || list.size() != size;
        }
    }
    return !hasChanged || WriteCrtInfo(std::move(info)) ||
           Refuse(std::string("cannot write ") + kInfoPath + "; run the same command again");
}

}  // namespace

ServicesByCrt ListServices(const Json::Value &info)
{
    std::set<ServiceName> seen;
    ServicesByCrt services;
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

int RollOut(const ServicesByCrt &services, const std::string &cert_id, const Options &options,
            Json::Value &report)
{
    Json::Value info;
    if (!ReadInfo(info)) {
        return kRefused;
    }
    report["services"] = Json::Value(Json::arrayValue);
    Json::Value moved(Json::arrayValue);
    bool allDone = true;
    for (const auto &[old_id, list] : services) {
        const std::string &new_id = cert_id.empty() ? old_id : cert_id;
        const int action = cert_id.empty() ? kActionDeploy : kActionAssign;
        // Asked for here, since the engine would mend it: nobody wants a new key in place of a bought one.
        if (!list.empty() && !IsUsableCrt(new_id, info)) {
            allDone = false;
        } else if (!list.empty()) {
            const auto tell = [&](const Json::Value &serviceObj, const ServiceOutcome &outcome) {
                allDone = Tell(serviceObj, outcome, options, report["services"]) && allDone;
                if (outcome.isDone) {
                    moved.append(serviceObj);
                }
            };
            allDone = SetCrtForServices(new_id, list, old_id, action, tell, false) && allDone;
        }
    }
    if (!allDone && report["services"].empty()) {
        return kRefused;
    }
    allDone = (cert_id.empty() || ListOnce(cert_id, moved)) && allDone;
    ReloadRelayDaemon();
    return allDone ? kDone : kPartlyChanged;
}

int RollOutCrt(const Options &options, Json::Value &report)
{
    Json::Value info;
    if (!ReadInfo(info) || (options.id && !IsUsableCrt(*options.id, info))) {
        return kRefused;
    }
    ServicesByCrt services = ListServices(info);
    if (options.id) {
        services = {{*options.id, services[*options.id]}};
    }
    return RollOut(services, "", options, report);
}

int Deploy(const Options &options, Json::Value &report)
{
    report = Json::objectValue;
    if (options.id) {
        report["id"] = *options.id;
    }
    return RollOutCrt(options, report);
}

int Assign(const Options &options, Json::Value &report)
{
    report["id"] = *options.id;
    Json::Value info;
    if (!ReadInfo(info) || !IsUsableCrt(*options.id, info)) {
        return kRefused;
    }
    ServicesByCrt moved;
    for (const auto &[old_id, list] : ListServices(info)) {
        for (const Json::Value &service : list) {
            if (MatchService(service, options.subscriber, options.service)) {
                moved[old_id].append(service);
            }
        }
    }
    if (moved.empty()) {
        return Refuse("INFO lists no service " + options.service + " of " + options.subscriber +
                      "; register it first, opalcrt status lists them");
    }
    return RollOut(moved, *options.id, options, report);
}

}  // namespace opalcrt
