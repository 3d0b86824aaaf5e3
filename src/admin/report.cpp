#include "admin/report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <regex>
#include <set>

#include "common/json_file.h"
#include "common/log.h"
#include "common/utf8.h"
#include "platform/atomic_file.h"

namespace opalcrt {

namespace {

// What is not among them is critical.
const std::set<std::string> kWarnings = {
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

bool Complain(const std::string &text)
{
    fprintf(stderr, "opalcrt: %s\n", ToShownText(text).c_str());
    return false;
}

void Say(const Options &options, const std::string &text)
{
    if (!options.asJson) {
        printf("%s\n", ToShownText(text).c_str());
        fflush(stdout);
    }
}

std::string ToShownText(const std::string &text)
{
    // U+0080 to U+009F are control characters as well; in UTF-8 they begin with C2.
    static const std::regex kControls("[\\x00-\\x1F\\x7F]|\xC2[\x80-\x9F]");
    static const std::regex kAllButAscii("[^ -~]");
    return std::regex_replace(text, IsUtf8(text) ? kControls : kAllButAscii, "?");
}

std::string Join(const Json::Value &texts, const char *separator)
{
    std::string joined;
    for (const Json::Value &text : texts) {
        joined += (joined.empty() ? "" : separator) + text.asString();
    }
    return joined;
}

bool AddIf(bool isSo, Json::Value &findings, const char *code, const std::string &text)
{
    if (isSo) {
        Json::Value &finding = findings.append(Json::objectValue);
        finding["code"] = code;
        finding["severity"] = kWarnings.contains(code) ? "warning" : "critical";
        finding["text"] = text;
    }
    return isSo;
}

bool PrintJson(const Json::Value &object)
{
    return WriteAll(STDOUT_FILENO, "{\"format\":1," + toString(object).substr(1));
}

void FinishReport(const Options &options, int status, Json::Value report)
{
    static const std::map<std::string, const char *> kTexts = {
        {"can-be-installed", "can be installed"},
        {"done", "done"},
        {"due", "due"},
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
    if (options.asJson) {
        PrintJson(report);
    } else if (const auto text = kTexts.find(report["result"].asString()); text != kTexts.end()) {
        Say(options, (report.isMember("id") ? report["id"].asString() + ": " : "") + text->second);
    }
}

}  // namespace opalcrt
