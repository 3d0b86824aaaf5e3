#include "admin/install.h"

#include "admin/archive_folder.h"
#include "admin/message.h"
#include "common/scoped_lock.h"
#include "store/paths.h"

#include <cstdio>

namespace opalcrt
{

namespace
{

// Tells the end, and answers the exit status.
int Tell(const InstallOptions &options, const InstallPlan &plan, int status, const char *result)
{
    if (options.asJson) {
        Json::Value object(Json::objectValue);
        object["id"] = ToUtf8(options.id);
        object["result"] = result;
        object["refusals"] = plan.refusals;
        object["warnings"] = plan.warnings;
        return PrintJson(object) ? status : kRefused;
    }
    for (const Json::Value &warning : plan.warnings) {
        printf("warning: %s\n", ToShownText(warning["text"].asString()).c_str());
    }
    printf("%s: %s\n", ToShownText(options.id).c_str(), result);
    return status;
}

int TellRefusals(const InstallOptions &options, const InstallPlan &plan)
{
    for (const Json::Value &refusal : plan.refusals) {
        Refuse(refusal["text"].asString());
    }
    return options.asJson ? Tell(options, plan, kRefused, "refused") : kRefused;
}

}  // namespace

int Install(const InstallOptions &options)
{
    InstallPlan plan = PlanInstall(options);
    if (!plan.refusals.empty()) {
        return TellRefusals(options, plan);
    }
    if (options.onlyCheck) {
        return Tell(options, plan, kDone, "can be installed");
    }

    {
        const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
        if (!lock.IsHeld()) {
            return RefuseCall(std::string("somebody else keeps ") + kRecoverLock + " locked; try again");
        }
        // The archive may have changed since the first look.
        CheckId(options, plan);
        if (!plan.refusals.empty()) {
            return TellRefusals(options, plan);
        }
        if (!PutIntoArchive(options.id, plan.files) || (options.isNew && !AddToInfo(options.id))) {
            return kRefused;
        }
    }
    // From here on the archive has the new certificate; its services get it next.
    return Tell(options, plan, kDone, "installed");
}

}  // namespace opalcrt
