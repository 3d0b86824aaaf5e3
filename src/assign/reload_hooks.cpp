#include "assign/reload_hooks.h"

#include "common/json_member.h"
#include "common/log.h"
#include "platform/file_test.h"
#include "platform/process.h"
#include "store/paths.h"

namespace opalcrt {

int ReloadService(const Json::Value &serviceObj, int *ended)
{
    const bool isPkg = GetBool(serviceObj, "isPkg");
    const std::string subscriber = GetString(serviceObj, "subscriber");
    const std::string service = GetString(serviceObj, "service");
    const std::string hooks[] = {
        (isPkg ? kPackageDefinitionDirectory : kSystemDefinitionDirectory) + subscriber,
        (isPkg ? kPackageLibexecDirectory : kSystemLibexecDirectory) + subscriber,
    };

    for (const std::string &hook : hooks) {
        // A hook that cannot be looked at counts as one that is there: it then fails to start, and says so.
        if (YLIBCFileExist(hook.c_str()) == 0) {
            continue;
        }
        const int result = YLIBCExecl(hook.c_str(), kExecHook, service.c_str(), nullptr);
        if (ended != nullptr) {
            *ended = result < 0 ? 126 : result;
        }
        if (result < 0) {
            LOG_ERROR_STATE("Failed to [%s][%s].", hook.c_str(), service.c_str());
            return result;
        }
        return 0;
    }
    return 0;
}

}  // namespace opalcrt
