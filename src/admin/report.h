// What the verbs say, to people and as JSON.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

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

// The line on standard error alone.
void Complain(const std::string &text);

// One line for people on standard output, unless the caller wants JSON.
void Say(const Options &options, const std::string &text);

// Text from outside as one line of UTF-8 that no terminal obeys: what is none of it becomes "?".
std::string ToShownText(std::string text);

std::string Join(const std::vector<std::string> &texts, const char *separator = ", ");

// Appends {"code", "severity", "text"} to the array `findings`. The code has its severity in the table of report.cpp.
void Add(Json::Value &findings, const char *code, const std::string &text);

// A line for each finding.
std::string ToLines(const Json::Value &findings, const std::string &indentation);

// The worst severity anywhere in a report: 0 none, 1 warning, 2 critical; and its name.
int WorstIn(const Json::Value &report);
const char *SeverityName(int severity);

// Prints the object on one line with "format" in front, which jsoncpp, who sorts, cannot do. False when standard
// output did not take it.
bool PrintJson(const Json::Value &object);

// The end of a verb: prints its report, unless that is null, with the `result`, a code, in it; or for people "ID: RESULT",
// but nothing of "refused", which was told already. The archive is what it is when the output could not be written.
void FinishReport(const Options &options, int status, Json::Value report);

}  // namespace opalcrt
