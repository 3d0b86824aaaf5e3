#include "admin/report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "common/json_file.h"
#include "common/log.h"
#include "common/utf8.h"
#include "platform/atomic_file.h"

namespace opalcrt {

namespace {

constexpr int kWarning = 1;
constexpr int kCritical = 2;

// What is not among them is critical: expired, not-yet-valid, key-mismatch, incomplete, unreadable, chain-mismatch,
// copy-missing, copy-mismatch, copy-exposed, default-unusable, book-broken, and what an installation is refused for.
constexpr const char *kWarnings[] = {
    "expires-soon", "old-copy",      "mended",          "mend-unfinished", "listed-twice", "not-in-services",
    "not-in-info",  "orphan-folder", "mended-for-ever", "chain-unknown",   "name-lost",
};

}  // namespace

Refused Refuse(const std::string &text, int line)
{
    Complain(text);
    LogLine(LOG_ERR, LOG_SOURCE, line, false, "%s", ToShownText(text).c_str());
    return Refused();
}

Refused RefuseCall(const std::string &text, int line) { return Refuse(text + ": " + strerror(errno), line); }

void Complain(const std::string &text) { fprintf(stderr, "opalcrt: %s\n", ToShownText(text).c_str()); }

void Say(const Options &options, const std::string &text)
{
    if (!options.asJson) {
        printf("%s\n", ToShownText(text).c_str());
        fflush(stdout);
    }
}

std::string ToShownText(std::string text)
{
    const bool isUtf8 = IsUtf8(text);
    for (size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        // U+0080 to U+009F are control characters as well; in UTF-8 they begin with C2.
        if (isUtf8 && byte == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0) {
            text.replace(at, 2, "?");
        } else if (byte < 0x20 || byte == 0x7F || (!isUtf8 && byte >= 0x80)) {
            text[at] = '?';
        }
    }
    return text;
}

std::string Join(const std::vector<std::string> &texts, const char *separator)
{
    std::string joined;
    for (const std::string &text : texts) {
        joined += (joined.empty() ? "" : separator) + text;
    }
    return joined;
}

void Add(Json::Value &findings, const char *code, const std::string &text)
{
    const bool isWarning = std::any_of(std::begin(kWarnings), std::end(kWarnings),
                                       [code](const char *known) { return strcmp(known, code) == 0; });
    Json::Value finding(Json::objectValue);
    finding["code"] = code;
    finding["severity"] = SeverityName(isWarning ? kWarning : kCritical);
    finding["text"] = text;
    findings.append(std::move(finding));
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

int WorstIn(const Json::Value &report)
{
    if (report.isObject() && report.isMember("severity")) {
        return report["severity"] == SeverityName(kCritical) ? kCritical : kWarning;
    }
    int worst = 0;
    for (const Json::Value &part : report) {
        worst = std::max(worst, WorstIn(part));
    }
    return worst;
}

const char *SeverityName(int severity)
{
    return severity == 0 ? "ok" : severity == kWarning ? "warning" : "critical";
}

bool PrintJson(const Json::Value &object)
{
    return WriteAll(STDOUT_FILENO, "{\"format\":1," + toString(object).substr(1));
}

void FinishReport(const Options &options, int status, Json::Value report)
{
    static const std::map<std::string, std::string> kTexts = {
        {"can-be-installed", "can be installed"},
        {"not-due", "not due"},
        {"not-self-made", "left alone, it is not self-made"},
        {"partly-done", "not all is done"},
    };
    if (report.isNull()) {
        return;
    }
    if (!report.isMember("result")) {
        report["result"] = status == kDone ? "done" : status == kRefused ? "refused" : "partly-done";
    }
    const std::string result = report["result"].asString();
    const auto text = kTexts.find(result);
    if (options.asJson) {
        PrintJson(report);
    } else if (result != "refused") {
        Say(options, (report.isMember("id") ? report["id"].asString() + ": " : "") +
                         (text != kTexts.end() ? text->second : result));
    }
}

}  // namespace opalcrt
