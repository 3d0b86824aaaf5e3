#include "store/names.h"

#include <climits>
#include <cstring>

#include "store/paths.h"

namespace opalcrt {

namespace {

bool FitsWith(const std::string &name, size_t added) { return name.size() + added <= NAME_MAX; }

// The lock file's name is the longest that is made of both.
bool HasLockName(const std::string &subscriber, size_t serviceLength)
{
    return FitsWith(GetServiceLockPath(subscriber, "").substr(strlen("/tmp/")), serviceLength);
}

}  // namespace

bool IsPlainFolderName(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos && FitsWith(name, 0);
}

bool IsUsableSubscriber(const std::string &subscriber)
{
    return IsPlainFolderName(subscriber) && subscriber != kArchiveName &&
           FitsWith(subscriber, strlen(kDefinitionSuffix)) && HasLockName(subscriber, 1);
}

bool IsUsableService(const std::string &subscriber, const std::string &service)
{
    return IsPlainFolderName(service) && FitsWith(service, strlen(kStagingSuffix)) &&
           HasLockName(subscriber, service.size()) && !service.ends_with(kStagingSuffix) &&
           !service.ends_with(kBackupSuffix);
}

}  // namespace opalcrt
