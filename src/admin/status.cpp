#include <glob.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "admin/certificate.h"
#include "admin/look.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"
#include "store/default_crt.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A registration makes folders before INFO lists its services.
constexpr time_t kRegistrationSeconds = 60;

// `services` is kept by the caller as long as the facts: they name what stands in it.
void LookAtServicesBook(const Json::Value &services, StoreFacts &facts, Json::Value &findings)
{
    if (!services.isArray()) {
        AddCritical(
            findings, "book-broken",
            std::string("nothing can be registered: ") + kServicesPath + " is missing or no JSON array");
        return;
    }
    facts.registered.emplace();
    for (const Json::Value &element : services) {
        if (!IsService(element)) {
            AddCritical(findings, "book-broken",
                        "SERVICES lists something that is no service: " + ToLogText(element));
        } else if (!facts.listed.contains(NameOf(element))) {
            AddWarning(findings, "not-in-info",
                       GetString(element, "subscriber") + "/" + GetString(element, "service") +
                           " is registered, but not listed in INFO");
        }
        facts.registered->insert(NameOf(element));
    }
}

void LookAtDefault(const Json::Value &info, const std::string &id, Json::Value &findings)
{
    if (!IsPlainFolderName(id) || !GetMember(info, id.c_str()).isObject() ||
        YLIBCFileExist(GetCrtFolderPath(id).c_str()) == 0) {
        AddCritical(findings, "default-unusable",
                    std::string("no new service can be registered: ") + kDefaultPath + " names \"" + id +
                        "\", which INFO does not list or which has no folder");
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
        struct stat info = {};
        const bool hasStood =
            lstat(path.c_str(), &info) == 0 && std::abs(time(nullptr) - info.st_mtime) > kRegistrationSeconds;
        if (hasStood && !facts.folders.contains(path)) {
            AddWarning(findings, "orphan-folder", path + " belongs to nothing that INFO lists");
        }
    }
    globfree(&found);
}

// False, told, when there is nothing to be looked at.
bool LookAtInfo(const Options &options, Json::Value &info, Json::Value &findings)
{
    if (!fromFile(kInfoPath, info) && errno != EBADMSG && errno != EFBIG) {
        Complain(std::string("cannot read ") + kInfoPath + ": " + strerror(errno));
        return false;
    }
    if (!info.isObject()) {
        AddCritical(findings, "book-broken", std::string(kInfoPath) + " is no JSON object");
        info = Json::Value(Json::objectValue);
    }
    for (const std::string &id : options.ids) {
        if (!info.isMember(id)) {
            Complain(std::string(kInfoPath) + " lists no certificate \"" + id + "\"");
            return false;
        }
    }
    return true;
}

// Everything once. False, told, when it could not look.
bool LookOnce(const Options &options, Json::Value &report)
{
    report = Json::Value(Json::objectValue);
    report["certificates"] = report["findings"] = Json::Value(Json::arrayValue);
    StoreFacts facts;
    facts.days = options.days;
    facts.defaultId = ReadDefCrtId();
    Json::Value info;
    Json::Value services;
    if (!LookAtInfo(options, info, report["findings"])) {
        return false;
    }
    for (const Json::Value &entry : info) {
        if (const Json::Value &list = GetMember(entry, "services"); list.isArray()) {
            for (const Json::Value &element : list) {
                ++facts.listed[NameOf(element)];
            }
        }
    }
    (void)fromFile(kServicesPath, services);
    LookAtServicesBook(services, facts, report["findings"]);
    LookAtDefault(info, facts.defaultId, report["findings"]);
    for (const std::string &id : options.ids.empty() ? info.getMemberNames() : options.ids) {
        report["certificates"].append(LookAtCrt(id, info[id], facts));
    }
    if (options.ids.empty()) {
        LookForOrphans(facts, report["findings"]);
    } else {
        report["findings"].clear();  // What belongs to no certificate was not asked for.
    }
    return true;
}

std::string ToLines(const Json::Value &findings, const std::string &indentation)
{
    std::string lines;
    for (const Json::Value &finding : findings) {
        lines += indentation + finding["severity"].asString() + " " + finding["code"].asString() + ": " +
                 ToShownText(finding["text"].asString()) + "\n";
    }
    return lines;
}

std::string CrtText(const Json::Value &crt)
{
    std::string text = crt["id"].asString() + ":" + (crt["default"].asBool() ? " default," : "") +
                       (crt["self_made"].asBool() ? " self-made," : "");
    if (!crt.isMember("not_after")) {
        return text + " no certificate that can be read";
    }
    return text + " " + crt["subject"].asString() + ", for " + Join(crt["names"]) + ", ends " +
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
            text += "  " +
                    ToShownText(service["subscriber"].asString() + "/" + service["service"].asString() +
                                ": " + service["state"].asString() + ", " + service["folder"].asString()) +
                    "\n" + ToLines(service["findings"], "    ");
        }
    }
    return report["worst"].asString() + ": " + std::to_string(report["certificates"].size()) +
           " certificates, " + std::to_string(services) + " services\n" + ToLines(report["findings"], "") +
           text;
}

// The exit status for the worst finding anywhere in a report.
int WorstIn(const Json::Value &report)
{
    int worst = 0;
    if (report.isObject() && report.isMember("severity")) {
        worst = report["severity"] == "critical" ? 2 : 1;
    }
    for (const Json::Value &part : report) {
        worst = std::max(worst, WorstIn(part));
    }
    return worst;
}

}  // namespace

int Status(const Options &options, Json::Value &)
{
    // Registrations come into SERVICES first and into INFO last, and replace folders between: what seems wrong is
    // looked at again, and once more while the books change.
    constexpr int kMostLooks = 3;
    constexpr const char *kWorst[] = {"ok", "warning", "critical"};
    constexpr std::chrono::milliseconds kPause(300);

    if (geteuid() != 0) {
        Complain("only root can read the keys");
        return kCouldNotLook;
    }
    struct stat before = {};
    struct stat after = {};
    (void)stat(kInfoPath, &before);
    Json::Value report;
    for (int looks = 1;; ++looks) {
        if (!LookOnce(options, report)) {
            return kCouldNotLook;
        }
        const bool hasChanged = stat(kInfoPath, &after) != 0 || !IsSameFile(before, after);
        const int worst = WorstIn(report);
        if (worst == 0 || looks == kMostLooks || (looks > 1 && !hasChanged)) {
            report["worst"] = kWorst[worst];
            const bool isPrinted =
                options.asJson ? PrintJson(report) : WriteAll(STDOUT_FILENO, ToReportText(report));
            return isPrinted ? worst : kCouldNotLook;
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace opalcrt
