// `opalcrt install`: another key and certificate in the place of one of the archive's.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

namespace opalcrt {

struct InstallOptions {
    std::string id;
    std::vector<std::string> keyFiles;  // one, or an RSA key and an EC key
    std::vector<std::string> crtFiles;
    std::vector<std::string> chainFiles;
    bool isNew = false;
    bool onlyCheck = false;
    bool asJson = false;
};

// What the given files make, and what is wrong with them; nothing is written for one critical finding.
struct InstallPlan {
    std::vector<std::pair<std::string, std::string>> files;  // names and contents of the new folder
    Json::Value findings = Json::Value(Json::arrayValue);
};

// Reads and checks the files. All that is wrong is found, not the first thing only.
InstallPlan PlanInstall(const InstallOptions &options);

// The exit status. The new folder is made whole beside the old one and exchanged with it in one step
// (admin/archive_folder.h) under the recovery lock.
int Install(const InstallOptions &options);

}  // namespace opalcrt
