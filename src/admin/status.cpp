#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <thread>

#include "admin/certificate.h"
#include "admin/look.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "common/json_member.h"
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
    if (AddIf(!services.isArray(), findings, "book-broken",
              std::string("nothing can be registered: ") + kServicesPath + " is missing or no JSON array")) {
        return;
    }
    facts.registered.emplace();
    for (const Json::Value &element : services) {
        AddIf(!HasUsableNames(element), findings, "book-broken",
              "SERVICES lists something that is no service: " + ToLogText(element)) ||
            AddIf(!facts.listed.contains(NameOf(element)), findings, "not-in-info",
                  "registered, but not listed in INFO: " + GetString(element, "subscriber") + "/" +
                      GetString(element, "service"));
        facts.registered->insert(NameOf(element));
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
        AddIf(hasStood && !facts.folders.contains(path), findings, "orphan-folder",
              path + " belongs to nothing that INFO lists");
    }
    globfree(&found);
}

// Everything once.
Json::Value LookOnce(const Options &options)
{
    Json::Value report;
    Json::Value &crts = report["certificates"] = Json::Value(Json::arrayValue);
    Json::Value &findings = report["findings"] = Json::Value(Json::arrayValue);
    StoreFacts facts;
    facts.days = options.days;
    Json::Value info;
    Json::Value services;
    const std::set<int> broken = {EBADMSG, EFBIG, EINVAL};  // no JSON, too large, no file
    if (!fromFile(kInfoPath, info) && !IsMissing(errno) && !broken.contains(errno)) {
        Complain(std::string("cannot read ") + kInfoPath + ": " + strerror(errno));
        throw Failure{kCouldNotLook};
    }
    (void)fromFile(kServicesPath, services);
    if (AddIf(!info.isObject(), findings, "book-broken",
              std::string(kInfoPath) + " is missing or no JSON object")) {
        info = Json::Value(Json::objectValue);
    }
    for (const Json::Value &entry : info) {
        for (const Json::Value &service : GetMember(entry, "services")) {
            ++facts.listed[NameOf(service)];
        }
    }
    LookAtServicesBook(services, facts, findings);
    const std::string default_id = ReadDefCrtId();
    AddIf(!IsPlainFolderName(default_id) || !GetMember(info, default_id.c_str()).isObject() ||
              YLIBCFileExist(GetCrtFolderPath(default_id).c_str()) == 0,
          findings, "default-unusable",
          std::string("no new service can be registered: ") + kDefaultPath + " names \"" + default_id +
              "\", which INFO does not list or which has no folder");
    if (!options.ids.empty()) {
        findings.clear();  // What belongs to no certificate was not asked for.
    }
    for (const std::string &id : options.ids.empty() ? info.getMemberNames() : options.ids) {
        if (!info.isMember(id)) {
            Complain(std::string(kInfoPath) + " lists no certificate \"" + id + "\"");
            throw Failure{kCouldNotLook};
        }
        const Json::Value &listed = GetMember(info[id], "services");
        if (!AddIf(!listed.isArray() || !IsPlainFolderName(id), findings, "book-broken",
                   "INFO has an entry that is none of a certificate: " + id)) {
            crts.append(LookAtCrt(id, listed, facts))["default"] = id == default_id;
        }
    }
    if (options.ids.empty()) {
        LookForOrphans(facts, findings);
    }
    return report;
}

// What is told of a finding, a service or a certificate.
std::string ToLine(const Json::Value &node)
{
    if (node.isMember("code")) {
        return node["severity"].asString() + " " + node["code"].asString() + ": " + node["text"].asString();
    }
    if (node.isMember("state")) {
        return node["subscriber"].asString() + "/" + node["service"].asString() + ": " +
               node["state"].asString() + ", " + node["folder"].asString();
    }
    const std::string head = node["id"].asString() + ":" + (node["default"].asBool() ? " default," : "") +
                             (node["self_made"].asBool() ? " self-made, " : " ");
    return !node.isMember("subject")
               ? head + "no certificate that can be read"
               : head + node["subject"].asString() + ", for " + Join(node["names"]) + ", ends " +
                     node["not_after"].asString() + ", " +
                     std::to_string(node["seconds_left"].asInt64() / kDaySeconds) + " days left";
}

// The line, and below it those of what it has.
std::string ToLines(const Json::Value &node, const std::string &indentation)
{
    std::string lines = indentation + ToShownText(ToLine(node)) + "\n";
    for (const char *list : {"findings", "services"}) {
        for (const Json::Value &each : GetMember(node, list)) {
            lines += ToLines(each, indentation + "  ");
        }
    }
    return lines;
}

std::string ToReportText(const Json::Value &report)
{
    std::string lines;
    Json::ArrayIndex services = 0;
    for (const char *list : {"findings", "certificates"}) {
        for (const Json::Value &each : report[list]) {
            lines += ToLines(each, "");
            services += GetMember(each, "services").size();
        }
    }
    return report["worst"].asString() + ": " + std::to_string(report["certificates"].size()) +
           " certificates, " + std::to_string(services) + " services\n" + lines;
}

// The exit status for the worst finding anywhere in a report.
int WorstIn(const Json::Value &report)
{
    const std::string severity = GetString(report, "severity");
    int worst = severity == "critical" ? 2 : severity == "warning" ? 1 : 0;
    for (const Json::Value &part : report) {
        worst = std::max(worst, WorstIn(part));
    }
    return worst;
}

}  // namespace

int Status(const Options &options, Json::Value &)
{
    // Registrations come into SERVICES first and into INFO last, and replace folders between: what seems wrong is
    // looked at again.
    constexpr int kMostLooks = 3;
    constexpr std::chrono::milliseconds kPause(300);
    constexpr const char *kWorst[] = {"ok", "warning", "critical"};

    for (int looks = 1;; ++looks) {
        Json::Value report = LookOnce(options);
        const int worst = WorstIn(report);
        if (worst == 0 || looks == kMostLooks) {
            report["worst"] = kWorst[worst];
            fputs((options.asJson ? ToJsonLine(report) : ToReportText(report)).c_str(), stdout);
            return worst;
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace opalcrt
