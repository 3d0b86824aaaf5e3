#include <algorithm>
#include <set>
#include <vector>

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
bool TellOutcome(const Json::Value &serviceObj, const ServiceOutcome &outcome, const Options &options,
                 Json::Value &services)
{
    const bool isDone = outcome.isDone && outcome.hookEnded <= 0;
    Json::Value &service = services.append(Json::objectValue);
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
    return isDone;
}

// Those of INFO's services that are meant, each once. What is no service is left out.
Json::Value ListServices(const Json::Value &info, const Options &options, int action)
{
    std::set<ServiceName> seen;
    Json::Value services(Json::arrayValue);
    for (auto entry = info.begin(); entry != info.end(); ++entry) {
        for (const Json::Value &service : GetMember(*entry, "services")) {
            const bool isMeant = action == kActionAssign
                                     ? MatchService(service, options.subscriber, options.service)
                                     : entry.name() == options.id.value_or(entry.name());
            if (isMeant && NameOf(service).IsWhole() && seen.insert(NameOf(service)).second) {
                services.append(service);
            }
        }
    }
    return services;
}

// Gives the service the certificate `options.id`, or with kActionDeploy what the archive holds of the one that it has, and
// runs its hook. Hooks take their time: who was taken back meanwhile gets nothing, and nothing is told of him; nor of one
// who was given another certificate than the one that is deployed. Whether all of it is done.
bool GiveCrt(const Json::Value &service, const Options &options, int action, Json::Value &told)
{
    std::string old_id;
    const bool isKnown = GetServiceCrtId(service, old_id);
    const std::string new_id = options.id.value_or(old_id);
    ServiceOutcome outcome = {false, new_id, -1};
    if (isKnown && (old_id.empty() || (action == kActionDeploy && old_id != new_id))) {
        return true;
    }
    // Asked for here, since the engine would mend it: nobody wants a new key in place of a bought one.
    if (isKnown && IsWhole(new_id)) {
        Json::Value one;
        one.append(service);
        const auto keep = [&outcome](const Json::Value &, const ServiceOutcome &seen) { outcome = seen; };
        SetCrtForServices(new_id, one, old_id, action, keep, false);
    }
    std::string last_id;
    const bool hasLeft = !outcome.isDone && GetServiceCrtId(service, last_id) && last_id.empty();
    return hasLeft || TellOutcome(service, outcome, options, told);
}

int RollOut(const Options &options, int action, Json::Value &report)
{
    Json::Value &told = report["services"] = Json::Value(Json::arrayValue);
    bool allDone = true;
    for (const Json::Value &service : ListServices(ReadInfo(kPartlyChanged), options, action)) {
        allDone = GiveCrt(service, options, action, told) && allDone;
    }
    if (!told.empty()) {
        ReloadRelayDaemon();
    }
    return allDone ? kDone : kPartlyChanged;
}

}  // namespace

int DeployChanged(const Options &options, Json::Value &report)
{
    const int status = RollOut(options, kActionDeploy, report);
    const Json::Value info = ReadInfo(kPartlyChanged);
    for (const std::string &cert_id : options.id ? std::vector{*options.id} : info.getMemberNames()) {
        if (status == kDone && HasNewFolder(cert_id)) {
            const auto lock = TakeRecoverLock(kPartlyChanged);
            RemoveNewFolder(cert_id, kPartlyChanged);
        }
    }
    return status;
}

int Deploy(const Options &options, Json::Value &report)
{
    report["services"] = Json::Value(Json::arrayValue);
    if (options.id) {
        report["id"] = *options.id;
        RequireUsable(*options.id);
    } else {
        (void)ReadInfo();
    }
    return DeployChanged(options, report);
}

int Assign(const Options &options, Json::Value &report)
{
    report["id"] = *options.id;
    RequireUsable(*options.id);
    const int status = RollOut(options, kActionAssign, report);
    const std::string what = options.service.empty() ? "" : " " + options.service;
    Require(status != kDone || !report["services"].empty(),
            "INFO lists no service" + what + " of " + options.subscriber +
                "; register it first, opalcrt status lists them");
    // The engine has taken them from the first certificate that listed them. Who has another one again stays there.
    ChangeInfo(kPartlyChanged, [&](Json::Value &info) {
        const Json::Value mine = GetMember(info[*options.id], "services");
        const auto isMine = [&mine](const Json::Value &service) {
            return std::any_of(mine.begin(), mine.end(), [&service](const Json::Value &each) {
                return NameOf(each) == NameOf(service);
            });
        };
        for (auto entry = info.begin(); entry != info.end(); ++entry) {
            const bool isOther = entry.name() != *options.id && GetMember(*entry, "services").isArray();
            for (const Json::Value &service : report["services"]) {
                if (isOther && service["result"] != "failed" && isMine(service)) {
                    UpdateServiceList((*entry)["services"], service, true);
                }
            }
        }
    });
    return status;
}

}  // namespace opalcrt
