// What the verbs say, to people and as JSON.
#pragma once

#include <json/value.h>

#include <string>

#include "admin/verbs.h"

namespace opalcrt {

// Ends a verb with this exit status; why has been told.
struct Failure {
    int status;
};

// One line on standard error and the same to the system log.
void Tell(const std::string &text, int line = __builtin_LINE());

// Unless it is so, tells the text, RequireCall with that of errno, and throws a Failure.
void Require(bool isSo, const std::string &text, int status = kRefused, int line = __builtin_LINE());
void RequireCall(bool isSo, const std::string &text, int status = kRefused, int line = __builtin_LINE());

// The line on standard error alone.
void Complain(const std::string &text);

// One line for people on standard output, unless the caller wants JSON.
void Say(const Options &options, const std::string &text);

// Text from outside as one line of UTF-8 that no terminal obeys: what is none of it becomes "?".
std::string ToShownText(const std::string &text);

// The strings of the array, with something between them.
std::string Join(const Json::Value &texts, const char *separator = ", ");

// If it is so, appends {"code", "severity", "text"} to the array `findings`; the code has its severity in the table of
// report.cpp. Answers whether it is so.
bool AddIf(bool isSo, Json::Value &findings, const char *code, const std::string &text);

// The object on one line with "format" in front, which jsoncpp, who sorts, cannot do.
std::string ToJsonLine(const Json::Value &object);

// The end of a verb: prints its report, unless that is null, with the `result`, a code, in it; or for people "ID: RESULT",
// but nothing of "refused", which was told already. The archive is what it is when the output could not be written.
void FinishReport(const Options &options, int status, Json::Value report);

}  // namespace opalcrt
