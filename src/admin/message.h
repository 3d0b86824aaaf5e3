// What the verbs say: text from outside (names of files, certificates and services) is made fit to be shown first.
#pragma once

#include <json/value.h>

#include <source_location>
#include <string>

namespace opalcrt
{

// The verbs' exit statuses; `status` has those of a monitoring plugin (admin/status.h).
constexpr int kDone = 0;
constexpr int kRefused = 1;  // or failed; nothing was changed
constexpr int kWrongUsage = 64;

// One line on standard error and the same to the system log. Answers kRefused.
int Refuse(const std::string &text, std::source_location where = std::source_location::current());

// The same for a failed call: adds the text of errno.
int RefuseCall(const std::string &text, std::source_location where = std::source_location::current());

// The text as valid UTF-8: where it is none, every byte beyond ASCII becomes U+FFFD. Other readers of the JSON would
// refuse all of it for one such byte.
std::string ToUtf8(const std::string &text);

// ToUtf8, and one line that no terminal obeys: control characters become "?".
std::string ToShownText(const std::string &text);

// Prints the object on one line with "format" in front, which jsoncpp, who sorts, cannot do. False when standard
// output did not take it.
bool PrintJson(const Json::Value &object);

}  // namespace opalcrt
