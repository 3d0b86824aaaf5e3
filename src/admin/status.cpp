#include <glob.h>
#include <unistd.h>

#include <algorithm>
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
    if (AddIf(!services.isArray(), findings, "book-broken",
              std::string("nothing can be registered: ") + kServicesPath + " is missing or no JSON array")) {
        return;
    }
    facts.registered.emplace();
    for (const Json::Value &element : services) {
        const std::string name = GetString(element, "subscriber") + "/" + GetString(element, "service");
        if (!HasUsableNames(element)) {
            AddIf(true, findings, "book-broken",
                  "SERVICES lists something that is no service: " + ToLogText(element));
        } else {
            AddIf(!facts.listed.contains(NameOf(element)), findings, "not-in-info",
                  name + " is registered, but not listed in INFO");
        }
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

// Everything once. False, told, when there is nothing to be looked at.
bool LookOnce(const Options &options, Json::Value &report)
{
    report = Json::Value(Json::objectValue);
    Json::Value &crts = report["certificates"] = Json::Value(Json::arrayValue);
    Json::Value &findings = report["findings"] = Json::Value(Json::arrayValue);
    StoreFacts facts;
    facts.days = options.days;
    Json::Value info;
    Json::Value services;
    if (!fromFile(kInfoPath, info) && errno != EBADMSG && errno != EFBIG) {
        return Complain(std::string("cannot read ") + kInfoPath + ": " + strerror(errno));
    }
    if (AddIf(!info.isObject(), findings, "book-broken", std::string(kInfoPath) + " is no JSON object")) {
        info = Json::Value(Json::objectValue);
    }
    for (const Json::Value &entry : info) {
        const Json::Value &list = GetMember(entry, "services");
        for (Json::ArrayIndex at = 0; list.isArray() && at < list.size(); ++at) {
            ++facts.listed[NameOf(list[at])];
        }
    }
    (void)fromFile(kServicesPath, services);
    LookAtServicesBook(services, facts, findings);
    const std::string id = ReadDefCrtId();
    AddIf(!IsPlainFolderName(id) || !GetMember(info, id.c_str()).isObject() ||
              YLIBCFileExist(GetCrtFolderPath(id).c_str()) == 0,
          findings, "default-unusable",
          std::string("no new service can be registered: ") + kDefaultPath + " names \"" + id +
              "\", which INFO does not list or which has no folder");
    for (const std::string &cert_id : options.ids.empty() ? info.getMemberNames() : options.ids) {
        if (!info.isMember(cert_id)) {
            return Complain(std::string(kInfoPath) + " lists no certificate \"" + cert_id + "\"");
        }
        crts.append(LookAtCrt(cert_id, info[cert_id], facts))["default"] = cert_id == id;
    }
    if (options.ids.empty()) {
        LookForOrphans(facts, findings);
    } else {
        findings.clear();  // What belongs to no certificate was not asked for.
    }
    return true;
}

std::string ToLine(const char *indentation, const std::string &text)
{
    return indentation + ToShownText(text) + "\n";
}

std::string ToLines(const char *indentation, const Json::Value &findings)
{
    std::string lines;
    for (const Json::Value &finding : findings) {
        lines += ToLine(indentation, finding["severity"].asString() + " " + finding["code"].asString() +
                                         ": " + finding["text"].asString());
    }
    return lines;
}

std::string CrtText(const Json::Value &crt)
{
    const std::string text = crt["id"].asString() + ":" + (crt["default"].asBool() ? " default," : "") +
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
        text += ToLine("", CrtText(crt)) + ToLines("  ", crt["findings"]);
        services += crt["services"].size();
        for (const Json::Value &service : crt["services"]) {
            text +=
                ToLine("  ", service["subscriber"].asString() + "/" + service["service"].asString() + ": " +
                                 service["state"].asString() + ", " + service["folder"].asString()) +
                ToLines("    ", service["findings"]);
        }
    }
    return report["worst"].asString() + ": " + std::to_string(report["certificates"].size()) +
           " certificates, " + std::to_string(services) + " services\n" + ToLines("", report["findings"]) +
           text;
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

    if (geteuid() != 0) {
        Complain("only root can read the keys");
        return kCouldNotLook;
    }
    Json::Value report;
    for (int looks = 1; LookOnce(options, report); ++looks) {
        const int worst = WorstIn(report);
        if (worst == 0 || looks == kMostLooks) {
            report["worst"] = kWorst[worst];
            const bool isPrinted =
                options.asJson ? PrintJson(report) : WriteAll(STDOUT_FILENO, ToReportText(report));
            return isPrinted ? worst : kCouldNotLook;
        }
        std::this_thread::sleep_for(kPause);
    }
    return kCouldNotLook;
}

}  // namespace opalcrt
