// The report of `status`: what was found, as JSON from the first to the last, and how it is told.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt
{

struct Report {
    Json::Value certificates = Json::Value(Json::arrayValue);
    Json::Value findings = Json::Value(Json::arrayValue);  // of what belongs to no certificate
};

// Appends {"code", "severity", "text"} to the array `findings`. The code is one of the table in report.cpp.
void AddFinding(Json::Value &findings, const char *code, const std::string &text);

// The worst severity of all findings: 0 ok, 1 warning, 2 critical.
int WorstOf(const Report &report);

// Prints it on standard output: one line that tells all for a monitor that shows one, and a line for each certificate,
// service and finding; or the JSON on one line. False when it could not be printed.
bool PrintReport(const Report &report, bool asJson);

}  // namespace opalcrt
