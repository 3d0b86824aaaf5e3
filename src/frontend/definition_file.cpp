#include "frontend/definition_file.h"

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "platform/file_test.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{
constexpr const char *kLogSource = log_source::kFrontEnd;
}  // namespace

bool LoadServiceConfig(const std::string &subscriber, Json::Value &definition, std::string &path)
{
    path.clear();
    if (!IsUsableSubscriber(subscriber) || !IsUtf8(subscriber)) {
        LOG_ERROR("Bad params: subscriber");
        return false;
    }

    // A file that cannot be looked at is chosen all the same: reading it then fails, rather than that the
    // packages' file is taken in its place.
    const std::string fileName = subscriber + kDefinitionSuffix;
    bool isPkg = false;
    if (YLIBCFileExist((kSystemDefinitionDirectory + fileName).c_str()) != 0) {
        path = kSystemDefinitionDirectory + fileName;
    } else if (YLIBCFileExist((kPackageDefinitionDirectory + fileName).c_str()) != 0) {
        path = kPackageDefinitionDirectory + fileName;
        isPkg = true;
    } else {
        LOG_ERROR("Failed to get %s", fileName.c_str());
        return false;
    }

    if (!fromFile(path, definition, kLargestDefinition)) {
        LOG_ERROR("Failed to get config from %s", path.c_str());
        return false;
    }
    if (!HasString(definition, "owner") || !IsUtf8(GetString(definition, "owner")) ||
        !HasBool(definition, "isPkg") || GetBool(definition, "isPkg") != isPkg) {
        LOG_ERROR("Bad config");
        return false;
    }
    return true;
}

}  // namespace opalcrt
