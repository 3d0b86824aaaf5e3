#include "frontend/definition_file.h"

#include <unistd.h>

#include <cerrno>
#include <climits>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/utf8.h"
#include "platform/file_read.h"
#include "platform/file_test.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A package with ten thousand services. The books take 64 MiB (common/json_file.h), and a service object can be ten times
// as long as its element here.
constexpr size_t kLargestDefinition = 1024UL * 1024;

bool ReadDefinition(DefinitionFile &file, Json::Value &definition)
{
    const UniqueFd fd = OpenRegularFile(file.path.c_str());
    struct stat status = {};
    if (!fd.IsOpen() || fstat(fd.Get(), &status) != 0) {
        return false;
    }
    file.read = status;
    // As a whole, written anew: an escape can stand for what is no character.
    return fromOpenFile(fd.Get(), definition, kLargestDefinition) && IsUtf8(ToText(definition));
}

}  // namespace

bool LoadServiceConfig(const std::string &subscriber, Json::Value &definition, DefinitionFile &file)
{
    file = DefinitionFile();
    if (!IsUsableSubscriber(subscriber) || !IsUtf8(subscriber)) {
        return LOG_ERROR("Bad params: subscriber");
    }

    // A file that cannot be looked at is chosen all the same: reading it then fails, rather than that the
    // packages' file is taken in its place.
    const std::string fileName = subscriber + kDefinitionSuffix;
    bool isPkg = false;
    if (YLIBCFileExist((kSystemDefinitionDirectory + fileName).c_str()) != 0) {
        file.path = kSystemDefinitionDirectory + fileName;
    } else if (YLIBCFileExist((kPackageDefinitionDirectory + fileName).c_str()) != 0) {
        file.path = kPackageDefinitionDirectory + fileName;
        isPkg = true;
    } else {
        return LOG_ERROR("Failed to get %s", fileName.c_str());
    }

    if (!ReadDefinition(file, definition)) {
        return LOG_ERROR("Failed to get config from %s", file.path.c_str());
    }
    if (!HasString(definition, "owner") || GetString(definition, "owner").size() >= LOGIN_NAME_MAX ||
        !HasBool(definition, "isPkg") || GetBool(definition, "isPkg") != isPkg) {
        return LOG_ERROR("Bad config");
    }
    return true;
}

bool RemoveDefinition(const DefinitionFile &file)
{
    struct stat now = {};
    if (file.read && stat(file.path.c_str(), &now) == 0 && !IsSameFile(now, *file.read)) {
        return true;
    }
    return unlink(file.path.c_str()) == 0 || errno == ENOENT;
}

}  // namespace opalcrt
