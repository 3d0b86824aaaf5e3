#include "admin/message.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

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

bool Refuse(const std::string &text, int line)
{
    const std::string shown = ToShownText(text);
    fprintf(stderr, "opalcrt: %s\n", shown.c_str());
    LogLine(LOG_ERR, "opalcrt.cpp", line, "%s", shown.c_str());
    return false;
}

bool RefuseCall(const std::string &text, int line) { return Refuse(text + ": " + strerror(errno), line); }

std::string ToUtf8(const std::string &text)
{
    if (IsUtf8(text)) {
        return text;
    }
    std::string fit;
    for (const char byte : text) {
        fit += static_cast<unsigned char>(byte) < 0x80 ? std::string(1, byte) : "\xEF\xBF\xBD";
    }
    return fit;
}

std::string ToShownText(const std::string &text)
{
    std::string shown = ToUtf8(text);
    for (size_t at = 0; at < shown.size(); ++at) {
        const auto byte = static_cast<unsigned char>(shown[at]);
        // U+0080 to U+009F are control characters as well; in UTF-8 they begin with C2.
        if (byte == 0xC2 && static_cast<unsigned char>(shown[at + 1]) < 0xA0) {
            shown.replace(at, 2, "?");
        } else if (byte < 0x20 || byte == 0x7F) {
            shown[at] = '?';
        }
    }
    return shown;
}

std::string Join(const std::vector<std::string> &texts)
{
    std::string joined;
    for (const std::string &text : texts) {
        joined += (joined.empty() ? "" : ", ") + text;
    }
    return joined;
}

void AddFinding(Json::Value &findings, const char *code, const std::string &text)
{
    const bool isWarning = std::any_of(std::begin(kWarnings), std::end(kWarnings),
                                       [code](const char *known) { return strcmp(known, code) == 0; });
    Json::Value finding(Json::objectValue);
    finding["code"] = code;
    finding["severity"] = SeverityName(isWarning ? kWarning : kCritical);
    finding["text"] = ToUtf8(text);
    findings.append(std::move(finding));
}

int WorstIn(const Json::Value &findings)
{
    int worst = 0;
    for (const Json::Value &finding : findings) {
        worst = std::max(worst, finding["severity"] == SeverityName(kCritical) ? kCritical : kWarning);
    }
    return worst;
}

const char *SeverityName(int severity)
{
    return severity == 0 ? "ok" : severity == kWarning ? "warning" : "critical";
}

std::string ToLines(const Json::Value &findings, const std::string &indentation)
{
    std::string text;
    for (const Json::Value &finding : findings) {
        text += indentation + finding["severity"].asString() + " " + finding["code"].asString() + ": " +
                ToShownText(finding["text"].asString()) + "\n";
    }
    return text;
}

bool PrintJson(const Json::Value &object)
{
    return WriteAll(STDOUT_FILENO, "{\"format\":1," + toString(object).substr(1));
}

}  // namespace opalcrt
