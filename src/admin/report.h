// What the verbs say, to people and as JSON.
#pragma once

#include <json/value.h>

#include <string>

#include "admin/verbs.h"

namespace opalcrt {

// What Refuse answers, and with it the function that refuses.
struct Refused {
    operator bool() const { return false; }
    operator int() const { return kRefused; }
};

// One line on standard error and the same to the system log; RefuseCall adds the text of errno.
Refused Refuse(const std::string &text, int line = __builtin_LINE());
Refused RefuseCall(const std::string &text, int line = __builtin_LINE());

// The line on standard error alone; false.
bool Complain(const std::string &text);

// One line for people on standard output, unless the caller wants JSON.
void Say(const Options &options, const std::string &text);

// Text from outside as one line of UTF-8 that no terminal obeys: what is none of it becomes "?".
std::string ToShownText(const std::string &text);

// The strings of the array, with something between them.
std::string Join(const Json::Value &texts, const char *separator = ", ");

// If it is so, appends {"code", "severity", "text"} to the array `findings`; the code has its severity in the table of
// report.cpp. Answers whether it is so.
bool AddIf(bool isSo, Json::Value &findings, const char *code, const std::string &text);

// Prints the object on one line with "format" in front, which jsoncpp, who sorts, cannot do. False when standard
// output did not take it.
bool PrintJson(const Json::Value &object);

// The end of a verb: prints its report, unless that is null, with the `result`, a code, in it; or for people "ID: RESULT",
// but nothing of "refused", which was told already. The archive is what it is when the output could not be written.
void FinishReport(const Options &options, int status, Json::Value report);

}  // namespace opalcrt
