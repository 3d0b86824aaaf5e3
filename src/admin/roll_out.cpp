#include <map>
#include <set>

#include "admin/archive.h"
#include "admin/report.h"
#include "assign/engine.h"
#include "common/json_member.h"
#include "store/crt_info.h"
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
    std::string text = service["subscriber"].asString() + "/" + service["service"].asString() +
                       (outcome.isDone ? ": has " + outcome.cert_id : ": failed; the system log says why");
    if (outcome.hookEnded >= 0) {
        service["hook_status"] = outcome.hookEnded;
        text += "; its hook ended with " + std::to_string(outcome.hookEnded);
    }
    Say(options, text);
    services.append(std::move(service));
    return isDone;
}

// Takes the services, which have the certificate now, from INFO's other entries.
bool ListOnce(const std::string &cert_id, const Json::Value &services)
{
    return ChangeInfo([&](Json::Value &info) {
        bool hasChanged = false;
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
        return hasChanged;
    });
}

// Those of INFO's services that are to get something, by the certificate that each has: one that is listed several times
// has the first, in byte order of the ids, as the engine sees it too. What is no service is left out.
std::map<std::string, Json::Value> ListServices(const Json::Value &info, const Options &options, int action)
{
    std::set<ServiceName> seen;
    std::map<std::string, Json::Value> services;
    for (auto entry = info.begin(); entry != info.end(); ++entry) {
        const Json::Value &listed = GetMember(*entry, "services");
        for (Json::ArrayIndex at = 0; listed.isArray() && at < listed.size(); ++at) {
            const bool isMeant = action == kActionAssign
                                     ? MatchService(listed[at], options.subscriber, options.service)
                                     : entry.name() == options.id.value_or(entry.name());
            if (NameOf(listed[at]).IsWhole() && seen.insert(NameOf(listed[at])).second && isMeant) {
                services[entry.name()].append(listed[at]);
            }
        }
    }
    return services;
}

// The certificate under which INFO lists the service now; empty when it was taken back meanwhile. `old_id` when that cannot
// be asked for: the engine fails then, too, and says why.
std::string CurrentId(const Json::Value &service, const std::string &old_id)
{
    std::string cert_id;
    return GetServiceCrtId(service, cert_id) ? cert_id : old_id;
}

// Gives the services that are meant the certificate `options.id`, or with kActionDeploy what the archive holds of the one
// that each has, and runs their hooks; a line for each as it happens. Certificates that are not complete are refused, not
// mended; so is all when that is so of `options.id`, or INFO does not list it.
int RollOut(const Options &options, int action, Json::Value &report)
{
    if (options.id) {
        report["id"] = *options.id;
    }
    Json::Value &told = report["services"] = Json::Value(Json::arrayValue);
    Json::Value info;
    if (!ReadInfo(info) || (options.id && !IsUsableCrt(*options.id, info))) {
        return kRefused;
    }
    Json::Value moved(Json::arrayValue);
    bool allDone = true;
    ServiceOutcome outcome;
    const auto keep = [&outcome](const Json::Value &, const ServiceOutcome &seen) { outcome = seen; };
    for (const auto &[old_id, list] : ListServices(info, options, action)) {
        const std::string &new_id = options.id ? *options.id : old_id;
        for (const Json::Value &service : list) {
            // Hooks take their time: who is taken back meanwhile, or given another certificate, gets nothing.
            const std::string current_id = CurrentId(service, old_id);
            if (current_id.empty() || (current_id != old_id && action == kActionDeploy)) {
                continue;
            }
            // Asked for here, since the engine would mend it: nobody wants a new key in place of a bought one.
            if (!IsUsableCrt(new_id, info)) {
                allDone = false;
                break;
            }
            Json::Value one;
            one.append(service);
            outcome = {};
            SetCrtForServices(new_id, one, current_id, action, keep, false);
            if (outcome.isDone) {
                moved.append(service);
            }
            if (outcome.isDone || !CurrentId(service, old_id).empty()) {
                allDone = Tell(service, outcome, options, told) && allDone;
            }
        }
    }
    if (told.empty()) {
        return allDone ? kDone : kRefused;
    }
    allDone = (action != kActionAssign || ListOnce(*options.id, moved)) && allDone;
    ReloadRelayDaemon();
    return allDone ? kDone : kPartlyChanged;
}

}  // namespace

int Deploy(const Options &options, Json::Value &report) { return RollOut(options, kActionDeploy, report); }

int Assign(const Options &options, Json::Value &report)
{
    const int status = RollOut(options, kActionAssign, report);
    if (status == kDone && report["services"].empty()) {
        return Refuse("INFO lists no service" + (options.service.empty() ? "" : " " + options.service) +
                      " of " + options.subscriber + "; register it first, opalcrt status lists them");
    }
    return status;
}

}  // namespace opalcrt
