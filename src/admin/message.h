// What the verbs say. Text from outside (names of files, certificates and services) is made fit to be shown first.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace opalcrt {

// The verbs' exit statuses; `status` has those of a monitoring plugin (admin/status.h).
constexpr int kDone = 0;
constexpr int kRefused = 1;        // or failed; nothing was changed
constexpr int kPartlyChanged = 3;  // changed, but not to the end
constexpr int kWrongUsage = 64;

// One line on standard error and the same to the system log; RefuseCall adds the text of errno. False, always.
bool Refuse(const std::string &text, int line = __builtin_LINE());
bool RefuseCall(const std::string &text, int line = __builtin_LINE());

// The text as valid UTF-8: where it is none, every byte beyond ASCII becomes U+FFFD. Other readers of the JSON would
// refuse all of it for one such byte.
std::string ToUtf8(const std::string &text);

// ToUtf8, and one line that no terminal obeys: control characters become "?".
std::string ToShownText(const std::string &text);

// "a, b, c"
std::string Join(const std::vector<std::string> &texts);

// Appends {"code", "severity", "text"} to the array `findings`. Its severity is the code's, in the table of message.cpp.
void AddFinding(Json::Value &findings, const char *code, const std::string &text);

// The worst severity in the array: 0 none, 1 warning, 2 critical; and its name.
int WorstIn(const Json::Value &findings);
const char *SeverityName(int severity);

// A line for each finding.
std::string ToLines(const Json::Value &findings, const std::string &indentation);

// Prints the object on one line with "format" in front, which jsoncpp, who sorts, cannot do. False when standard
// output did not take it.
bool PrintJson(const Json::Value &object);

}  // namespace opalcrt
