#include "admin/status.h"

#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "admin/certificate.h"
#include "admin/crt_status.h"
#include "admin/message.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A registration comes into SERVICES first and into INFO last, and makes folders between: what the books say of each
// other, and a folder that neither lists, means something once that is over.
constexpr time_t kRegistrationSeconds = 60;

// For so long what seems wrong is looked at again when a registration or unregistration came between.
constexpr std::chrono::seconds kLookAgainFor(5);

bool HasStood(const std::string &path, time_t now)
{
    struct stat info = {};
    return lstat(path.c_str(), &info) == 0 &&
           (info.st_mtime > now || now - info.st_mtime > kRegistrationSeconds);
}

void ReadServices(StoreFacts &facts, Json::Value &findings)
{
    Json::Value services;
    if (!fromFile(kServicesPath, services) || !services.isArray()) {
        AddFinding(
            findings, "book-broken",
            std::string("nothing can be registered: ") + kServicesPath + " is missing or no JSON array");
        return;
    }
    std::set<ServiceId> registered;
    for (const Json::Value &element : services) {
        if (const std::optional<ServiceId> id = IdOfService(element)) {
            registered.insert(*id);
        } else {
            AddFinding(findings, "book-broken",
                       "SERVICES lists something that is no service: " + ToLogText(element));
        }
    }
    if (!HasStood(kServicesPath, facts.now)) {
        return;
    }
    for (const ServiceId &id : registered) {
        if (!facts.listed.contains(id)) {
            AddFinding(findings, "not-in-info",
                       id.first + "/" + id.second + " is registered, but not listed in INFO");
        }
    }
    facts.registered = std::move(registered);
}

void LookAtDefault(const Json::Value &info, const StoreFacts &facts, Json::Value &findings)
{
    const std::string &id = facts.defaultId;
    std::string why;
    if (id.empty()) {
        why = " names no certificate";
    } else if (!IsPlainFolderName(id) || !GetMember(info, id.c_str()).isObject()) {
        why = " names " + id + ", which INFO does not list";
    } else if (LookAtFolder(GetCrtFolderPath(id)).error != 0) {
        why = " names " + id + ", which has no folder in the archive";
    }
    if (!why.empty()) {
        AddFinding(findings, "default-unusable",
                   std::string("no new service can be registered: ") + kDefaultPath + why);
    }
}

void LookForOrphans(const StoreFacts &facts, Json::Value &findings)
{
    // The archive is a folder beside the subscribers'; what begins with a dot was left by a run that was cut off.
    glob_t found = {};
    (void)glob("/usr/{opal,local}/etc/certificate/*/{*,.[!.]*}/", GLOB_BRACE, nullptr, &found);
    for (size_t at = 0; at < found.gl_pathc; ++at) {
        std::string path = found.gl_pathv[at];
        path.pop_back();
        if (!facts.folders.contains(path) && HasStood(path, facts.now)) {
            AddFinding(findings, "orphan-folder", path + " belongs to nothing that INFO lists");
        }
    }
    globfree(&found);
}

// False, told, when there is nothing to be looked at.
bool LookAtInfo(const StatusOptions &options, Json::Value &info, Json::Value &findings)
{
    if (!fromFile(kInfoPath, info) && errno != EBADMSG && errno != EFBIG) {
        fprintf(stderr, "opalcrt: cannot read %s: %s\n", kInfoPath, strerror(errno));
        return false;
    }
    if (!info.isObject()) {
        AddFinding(findings, "book-broken", std::string(kInfoPath) + " is no JSON object");
        info = Json::Value(Json::objectValue);
    }
    for (const std::string &id : options.ids) {
        if (!info.isMember(id)) {
            fprintf(stderr, "opalcrt: %s lists no certificate %s\n", kInfoPath, ToShownText(id).c_str());
            return false;
        }
    }
    return true;
}

// Everything once. False, told, when it could not look.
bool LookOnce(const StatusOptions &options, Json::Value &report)
{
    StoreFacts facts;
    facts.now = time(nullptr);
    facts.days = options.days;
    facts.defaultId = ReadDefaultId();
    Json::Value info;
    if (!LookAtInfo(options, info, report["findings"])) {
        return false;
    }
    for (const Json::Value &entry : info) {
        const Json::Value &services = GetMember(entry, "services");
        for (Json::ArrayIndex at = 0; services.isArray() && at < services.size(); ++at) {
            if (const std::optional<ServiceId> id = IdOfService(services[at])) {
                ++facts.listed[*id];
            }
        }
    }
    ReadServices(facts, report["findings"]);
    LookAtDefault(info, facts, report["findings"]);

    for (const std::string &id : options.ids.empty() ? info.getMemberNames() : options.ids) {
        report["certificates"].append(LookAtCrt(id, info[id], facts));
    }
    if (options.ids.empty()) {
        LookForOrphans(facts, report["findings"]);
    } else {
        report["findings"] =
            Json::Value(Json::arrayValue);  // What belongs to no certificate was not asked for.
    }
    if (facts.isHindered) {
        fprintf(stderr, "opalcrt: not all keys may be read%s\n", geteuid() != 0 ? ": run it as root" : "");
    }
    return !facts.isHindered;
}

int WorstOf(const Json::Value &report)
{
    int worst = WorstIn(report["findings"]);
    for (const Json::Value &crt : report["certificates"]) {
        worst = std::max(worst, WorstIn(crt["findings"]));
        for (const Json::Value &service : crt["services"]) {
            worst = std::max(worst, WorstIn(service["findings"]));
        }
    }
    return worst;
}

std::string CrtText(const Json::Value &crt)
{
    std::string text = crt["id"].asString() + ":" + (crt["default"].asBool() ? " default," : "") +
                       (crt["self_made"].asBool() ? " self-made," : "");
    std::vector<std::string> names;
    for (const Json::Value &name : crt["names"]) {
        names.push_back(name.asString());
    }
    if (!crt.isMember("not_after")) {
        return text + " no certificate that can be read";
    }
    return text + " " + crt["subject"].asString() + ", for " + Join(names) + ", ends " +
           crt["not_after"].asString() + ", " + std::to_string(crt["seconds_left"].asInt64() / kDaySeconds) +
           " days left";
}

std::string ToReportText(const Json::Value &report)
{
    std::string text;
    Json::ArrayIndex services = 0;
    for (const Json::Value &crt : report["certificates"]) {
        text += ToShownText(CrtText(crt)) + "\n" + ToLines(crt["findings"], "  ");
        services += crt["services"].size();
        for (const Json::Value &service : crt["services"]) {
            text +=
                "  " + ToShownText(service["subscriber"].asString() + "/" + service["service"].asString() +
                                   ": " + service["state"].asString() + ", " + service["folder"].asString());
            text += "\n" + ToLines(service["findings"], "    ");
        }
    }
    return report["worst"].asString() + ": " + std::to_string(report["certificates"].size()) +
           " certificates, " + std::to_string(services) + " services\n" + ToLines(report["findings"], "") +
           text;
}

}  // namespace

int Status(const StatusOptions &options)
{
    const auto end = std::chrono::steady_clock::now() + kLookAgainFor;
    struct stat before = {};
    struct stat after = {};
    for (;;) {
        Json::Value report(Json::objectValue);
        report["certificates"] = report["findings"] = Json::Value(Json::arrayValue);
        (void)stat(kInfoPath, &before);
        if (!LookOnce(options, report)) {
            return kCouldNotLook;
        }
        const bool hasChanged = stat(kInfoPath, &after) != 0 || !IsSameFile(before, after);
        const int worst = WorstOf(report);
        if (worst == 0 || !hasChanged || std::chrono::steady_clock::now() > end) {
            report["worst"] = SeverityName(worst);
            const bool isPrinted =
                options.asJson ? PrintJson(report) : WriteAll(STDOUT_FILENO, ToReportText(report));
            return isPrinted ? worst : kCouldNotLook;
        }
    }
}

}  // namespace opalcrt
