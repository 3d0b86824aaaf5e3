// What `opalcrt install` is given, looked at before anything is written.
#pragma once

#include <json/value.h>

#include <string>
#include <utility>
#include <vector>

namespace opalcrt
{

struct InstallOptions {
    std::string id;
    std::vector<std::string> keyFiles;  // one, or an RSA key and an EC key
    std::vector<std::string> crtFiles;
    std::vector<std::string> chainFiles;
    bool isNew = false;
    bool onlyCheck = false;
    bool asJson = false;
};

struct InstallPlan {
    std::vector<std::pair<std::string, std::string>> files;  // names and contents of the new folder
    Json::Value refusals =
        Json::Value(Json::arrayValue);  // {"code", "text"} each; nothing may be written then
    Json::Value warnings = Json::Value(Json::arrayValue);
};

// Reads and checks everything, and makes the files. All that is wrong is told, not the first thing only.
InstallPlan PlanInstall(const InstallOptions &options);

// Adds a refusal for each thing that speaks against the id; `files` are those of the plan. Asked once more under the
// recovery lock.
void CheckId(const InstallOptions &options, InstallPlan &plan);

}  // namespace opalcrt
