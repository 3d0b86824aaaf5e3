#include "admin/report.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <regex>
#include <set>

#include "common/json_file.h"
#include "common/log.h"
#include "common/utf8.h"

namespace opalcrt {

void Tell(const std::string &text, int line)
{
    Complain(text);
    LogLine(LOG_ERR, LOG_SOURCE, line, false, "%s", ToShownText(text).c_str());
}

void Require(bool isSo, const std::string &text, int status, int line)
{
    if (!isSo) {
        Tell(text, line);
        throw Failure{status};
    }
}

void RequireCall(bool isSo, const std::string &text, int status, int line)
{
    Require(isSo, text + ": " + strerror(errno), status, line);
}

void Complain(const std::string &text) { fprintf(stderr, "opalcrt: %s\n", ToShownText(text).c_str()); }

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
    static const std::set<std::string> kWarnings = {
        "expires-soon",    "old-copy",        "mended",      "mend-unfinished",
        "listed-twice",    "not-in-services", "not-in-info", "orphan-folder",
        "mended-for-ever", "chain-unknown",   "name-lost",
    };
    if (isSo) {
        Json::Value &finding = findings.append(Json::objectValue);
        finding["code"] = code;
        finding["severity"] = kWarnings.contains(code) ? "warning" : "critical";
        finding["text"] = text;
    }
    return isSo;
}

std::string ToJsonLine(const Json::Value &object) { return "{\"format\":1," + toString(object).substr(1); }

void FinishReport(const Options &options, int status, Json::Value report)
{
    if (report.isNull()) {
        return;
    }
    if (!report.isMember("result")) {
        report["result"] = status == kDone ? "done" : status == kRefused ? "refused" : "partly-done";
    }
    if (options.asJson) {
        fputs(ToJsonLine(report).c_str(), stdout);
    } else if (report["result"] != "refused") {
        Say(options,
            (report.isMember("id") ? report["id"].asString() + ": " : "") + report["result"].asString());
    }
}

}  // namespace opalcrt
