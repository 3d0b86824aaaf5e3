#include "admin/install.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdio>

#include "admin/archive_folder.h"
#include "admin/message.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/scoped_lock.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// The books and their temporary files have the names that begin so.
bool IsNameOfBook(const std::string &id)
{
    const std::string stem = id.substr(0, id.find('.'));
    return stem == "INFO" || stem == "SERVICES" || stem == "DEFAULT";
}

// What a cut-off run of the same command has left: only its entry in INFO is missing.
bool IsMadeAlready(const std::string &folder, const InstallPlan &plan)
{
    return !plan.files.empty() &&
           std::all_of(plan.files.begin(), plan.files.end(), [&folder](const auto &file) {
               return LookAtFile(AT_FDCWD, folder + "/" + file.first).text == file.second;
           });
}

void CheckId(const InstallOptions &options, InstallPlan &plan)
{
    const std::string &id = options.id;
    const std::string folder = GetCrtFolderPath(id);
    const std::string defaultText = LookAtFile(AT_FDCWD, kDefaultPath).text;
    Json::Value info;
    if (!IsPlainFolderName("." + id + ".new") || id.empty() || id.starts_with('.') || ToShownText(id) != id ||
        IsNameOfBook(id)) {
        AddFinding(plan.findings, "bad-id", "\"" + id + "\" cannot be the name of a certificate's folder");
    } else if (!fromFile(kInfoPath, info) || !info.isObject()) {
        AddFinding(plan.findings, "book-broken",
                   std::string(kInfoPath) + " cannot be read; see opalcrt status");
    } else if (!options.isNew && !GetMember(info, id.c_str()).isObject()) {
        AddFinding(plan.findings, "no-such-id", "there is no certificate " + id + "; with --new it is made");
    } else if (options.isNew && info.isMember(id)) {
        AddFinding(plan.findings, "in-info",
                   "there is a certificate " + id + " already; it is replaced without --new");
    } else if (options.isNew && IsIn(AT_FDCWD, folder) && !IsMadeAlready(folder, plan)) {
        AddFinding(plan.findings, "folder-exists",
                   folder + " is there, though INFO does not list it; move it away");
    }
    if (id.size() > kLongestDefaultId && defaultText.substr(0, defaultText.find('\n')) == id) {
        AddFinding(plan.findings, "id-too-long", id + " would be the default certificate: at most 15 bytes");
    }
}

int Tell(const InstallOptions &options, const InstallPlan &plan, int status, const char *result)
{
    if (options.asJson) {
        Json::Value object(Json::objectValue);
        object["id"] = ToUtf8(options.id);
        object["result"] = result;
        object["findings"] = plan.findings;
        return PrintJson(object) ? status : kRefused;
    }
    if (status == kDone) {
        printf("%s%s: %s\n", ToLines(plan.findings, "").c_str(), options.id.c_str(), result);
    }
    return status;
}

// Whether nothing speaks against it; else that is told, a line for each.
bool IsAllowed(const InstallPlan &plan)
{
    bool isAllowed = true;
    for (const Json::Value &finding : plan.findings) {
        if (finding["severity"] == "critical") {
            isAllowed = Refuse(finding["text"].asString());
        }
    }
    return isAllowed;
}

}  // namespace

int Install(const InstallOptions &options)
{
    InstallPlan plan = PlanInstall(options);
    CheckId(options, plan);
    if (!IsAllowed(plan)) {
        return Tell(options, plan, kRefused, "refused");
    }
    if (options.onlyCheck) {
        return Tell(options, plan, kDone, "can be installed");
    }

    {
        const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
        if (!lock.IsHeld()) {
            RefuseLock();
            return Tell(options, plan, kRefused, "refused");
        }
        CheckId(options, plan);  // Another run may have changed the archive since the first look.
        if (!IsAllowed(plan) || !PutIntoArchive(options.id, plan.files)) {
            return Tell(options, plan, kRefused, "refused");
        }
        if (options.isNew && !AddToInfo(options.id)) {
            return Tell(options, plan, kPartlyChanged, "in the archive, but not in INFO");
        }
    }
    // The archive has the new certificate; from here on its services are to get it.
    return Tell(options, plan, kDone, "installed");
}

}  // namespace opalcrt
