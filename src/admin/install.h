// `opalcrt install`: another key and certificate in the place of one of the archive's.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

#include "admin/options.h"

namespace opalcrt {

// Names and contents of the new folder's files.
using InstallFiles = std::vector<std::pair<std::string, std::string>>;

// Reads and checks the given files, and makes the new ones of them. All that is wrong goes into `findings`, not the
// first thing only; when something critical is among them, the files are worth nothing.
InstallFiles PlanInstall(const Options &options, Json::Value &findings);

// The exit status. The new folder is made whole beside the old one and exchanged with it in one step
// (admin/archive.h) under the recovery lock; then the certificate's services get it (admin/roll_out.h).
int Install(const Options &options);

}  // namespace opalcrt
