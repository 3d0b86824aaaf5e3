#include "admin/report.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include <unistd.h>

#include "admin/message.h"
#include "platform/atomic_file.h"

namespace opalcrt
{

namespace
{

constexpr const char *kSeverities[] = {"ok", "warning", "critical"};

struct Code {
    const char *name;
    int severity;
};

constexpr Code kCodes[] = {
    {"expired", 2},         {"not-yet-valid", 2},    {"key-mismatch", 2},    {"incomplete", 2},
    {"unreadable", 2},      {"chain-mismatch", 2},   {"copy-missing", 2},    {"copy-mismatch", 2},
    {"copy-exposed", 2},    {"default-unusable", 2}, {"book-broken", 2},     {"expires-soon", 1},
    {"old-copy", 1},        {"mended", 1},           {"mend-unfinished", 1}, {"listed-twice", 1},
    {"not-in-services", 1}, {"not-in-info", 1},      {"orphan-folder", 1},   {"mended-for-ever", 1},
};

int WorstIn(const Json::Value &findings)
{
    int worst = 0;
    for (const Json::Value &finding : findings) {
        worst = std::max(worst, finding["severity"] == kSeverities[2] ? 2 : 1);
    }
    return worst;
}

std::string Join(const Json::Value &texts)
{
    std::string joined;
    for (const Json::Value &text : texts) {
        joined += (joined.empty() ? "" : ", ") + text.asString();
    }
    return joined;
}

void AppendFindings(const Json::Value &findings, const char *indentation, std::string &text)
{
    for (const Json::Value &finding : findings) {
        text += indentation + finding["severity"].asString() + " " + finding["code"].asString() + ": " +
                ToShownText(finding["text"].asString()) + "\n";
    }
}

void AppendCrt(const Json::Value &crt, std::string &text)
{
    text += ToShownText(crt["id"].asString()) + ":";
    text += crt["default"].asBool() ? " default," : "";
    text += crt["self_made"].asBool() ? " self-made," : "";
    if (crt.isMember("not_after")) {
        constexpr Json::Int64 kDay = 24L * 60 * 60;
        text += " " + ToShownText(crt["subject"].asString()) + ", for " + ToShownText(Join(crt["names"])) +
                ", ends " + crt["not_after"].asString() + ", " +
                std::to_string(crt["seconds_left"].asInt64() / kDay) + " days left\n";
    } else {
        text += " cannot be read\n";
    }
    AppendFindings(crt["findings"], "  ", text);
    for (const Json::Value &service : crt["services"]) {
        text += "  " +
                ToShownText(service["subscriber"].asString() + "/" + service["service"].asString() + ": " +
                            service["state"].asString() + ", " + service["folder"].asString()) +
                "\n";
        AppendFindings(service["findings"], "    ", text);
    }
}

std::string ToText(const Report &report)
{
    Json::ArrayIndex services = 0;
    for (const Json::Value &crt : report.certificates) {
        services += crt["services"].size();
    }
    std::string text = kSeverities[WorstOf(report)] + (": " + std::to_string(report.certificates.size())) +
                       " certificates, " + std::to_string(services) + " services\n";
    AppendFindings(report.findings, "", text);
    for (const Json::Value &crt : report.certificates) {
        AppendCrt(crt, text);
    }
    return text;
}

}  // namespace

void AddFinding(Json::Value &findings, const char *code, const std::string &text)
{
    const auto *found = std::find_if(std::begin(kCodes), std::end(kCodes),
                                     [code](const Code &known) { return strcmp(known.name, code) == 0; });
    Json::Value finding(Json::objectValue);
    finding["code"] = code;
    finding["severity"] = kSeverities[found->severity];
    finding["text"] = ToUtf8(text);
    findings.append(std::move(finding));
}

int WorstOf(const Report &report)
{
    int worst = WorstIn(report.findings);
    for (const Json::Value &crt : report.certificates) {
        worst = std::max(worst, WorstIn(crt["findings"]));
        for (const Json::Value &service : crt["services"]) {
            worst = std::max(worst, WorstIn(service["findings"]));
        }
    }
    return worst;
}

bool PrintReport(const Report &report, bool asJson)
{
    if (!asJson) {
        return WriteAll(STDOUT_FILENO, ToText(report));
    }
    Json::Value object(Json::objectValue);
    object["worst"] = kSeverities[WorstOf(report)];
    object["certificates"] = report.certificates;
    object["findings"] = report.findings;
    return PrintJson(object);
}

}  // namespace opalcrt
