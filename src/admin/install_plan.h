// What the files that an administrator was given make of a certificate's folder.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "admin/verbs.h"

namespace opalcrt {

// Names and contents of the new folder's files.
using InstallFiles = std::map<std::string, std::string>;

// Reads and checks the given files, and makes the new ones of them. All that is wrong goes into `findings`, not the
// first thing only; when something critical is among them, the files are worth nothing.
InstallFiles PlanInstall(const Options &options, Json::Value &findings);

}  // namespace opalcrt
