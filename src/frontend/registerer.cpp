#include "frontend/registerer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "assign/engine.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "frontend/caller_check.h"
#include "frontend/definition_file.h"
#include "frontend/services_list.h"
#include "platform/error_state.h"
#include "store/names.h"

namespace opalcrt {

namespace {

bool Init(int argc, char *argv[], Json::Value &definition, DefinitionFile &file)
{
    if (!LoadServiceConfig(argv[1], definition, file)) {
        return false;
    }
    if (!CheckOwnerPermission(GetString(definition, "owner"))) {
        return LOG_ERROR_STATE("Failed to init, ");
    }
    definition["isPkg"] = GetBool(definition, "isPkg");
    definition["subscriber"] = argv[1];
    if (argc == 3) {
        definition["service"] = argv[2];
    }
    return true;
}

bool IsGoodElement(const Json::Value &element, const std::string &subscriber)
{
    if (!HasString(element, "service") || !HasString(element, "display_name")) {
        return false;
    }
    const std::string service = GetString(element, "service");
    return service.empty() || IsUsableService(subscriber, service);
}

Json::Value MakeServiceObj(const Json::Value &definition, const Json::Value &element)
{
    Json::Value serviceObj(Json::objectValue);
    if (HasString(element, "display_name_i18n")) {
        serviceObj["display_name_i18n"] = element["display_name_i18n"];
    }
    for (const char *key : {"user_setable", "multiple_cert"}) {
        if (HasBool(element, key)) {
            serviceObj[key] = element[key];
        }
    }
    for (const char *key : {"subscriber", "isPkg", "owner"}) {
        serviceObj[key] = definition[key];
    }
    for (const char *key : {"service", "display_name"}) {
        serviceObj[key] = element[key];
    }
    return serviceObj;
}

}  // namespace

int Registerer(int argc, char *argv[])
{
    Json::Value definition;
    DefinitionFile file;
    const bool isReady = Init(argc, argv, definition, file);
    if (!RemoveDefinition(file)) {
        LOG_ERROR("Failed to unlink %s (%s)", file.path.c_str(), strerror(errno));
        YLIBCErrSetEx(kErrUnlink, LOG_SOURCE, __LINE__);
    }
    if (!isReady) {
        printf("Failed to init registerer\n");
        return 1;
    }

    Json::Value services(Json::arrayValue);
    if (!PrepareServices(definition, services)) {
        printf("Failed to prepare services\n");
        return 1;
    }
    if (!AppendRegisterServices(services)) {
        printf("Failed to append register services\n");
        return 1;
    }
    if (!DeployDefCrt(services, kActionDefault, "")) {
        printf("Failed to DeployDefCrt for %s\n", GetString(definition, "subscriber").c_str());
        return 1;
    }
    return 0;
}

bool PrepareServices(const Json::Value &definition, Json::Value &services)
{
    services = Json::Value(Json::arrayValue);
    if (!GetMember(definition, "services").isArray() || !HasString(definition, "subscriber") ||
        !HasString(definition, "owner") || !HasBool(definition, "isPkg")) {
        return LOG_ERROR("Invalid config: %s", ToLogText(definition).c_str());
    }

    const std::string filter = HasString(definition, "service") ? GetString(definition, "service") : "";
    const std::string subscriber = GetString(definition, "subscriber");
    for (const Json::Value &element : definition["services"]) {
        if (!IsGoodElement(element, subscriber)) {
            LOG_ERROR("Bad service config: %s", ToLogText(element).c_str());
            services = Json::Value(Json::arrayValue);
            return false;
        }
        const std::string service = GetString(element, "service");
        if (!filter.empty() && service != filter) {
            continue;
        }
        services.append(MakeServiceObj(definition, element));
        LOG_ERROR("Register certificate for %s/%s%s", subscriber.c_str(), service.c_str(),
                  GetBool(definition, "isPkg") ? "(pkg)" : "");
        if (!filter.empty()) {
            break;
        }
    }
    return true;
}

}  // namespace opalcrt
