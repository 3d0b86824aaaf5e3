#include "frontend/registerer.h"

#include <unistd.h>

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

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kFrontEnd;

bool Init(int argc, char *argv[], Json::Value &definition, std::string &definitionPath)
{
    if (!LoadServiceConfig(argv[1], definition, definitionPath)) {
        return false;
    }
    if (!CheckOwnerPermission(GetString(definition, "owner"))) {
        LOG_ERROR_STATE("Failed to init, ");
        return false;
    }
    definition["isPkg"] = GetBool(definition, "isPkg");
    definition["subscriber"] = argv[1];
    if (argc == 3) {
        definition["service"] = argv[2];
    }
    return true;
}

void RemoveDefinition(const std::string &path)
{
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        LOG_ERROR("Failed to unlink %s (%s)", path.c_str(), strerror(errno));
        YLIBCErrSetEx(kErrUnlink, kLogSource, __LINE__);
    }
}

bool IsGoodElement(const Json::Value &element, const std::string &subscriber)
{
    if (!HasString(element, "service") || !HasString(element, "display_name")) {
        return false;
    }
    // JSON is UTF-8 (RFC 8259, 8.1): other readers of the books and the report refuse what is not.
    for (const char *key : {"service", "display_name", "display_name_i18n"}) {
        if (!IsUtf8(GetString(element, key))) {
            return false;
        }
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

void LogInvalidConfig(const Json::Value &definition)
{
    const std::string text = ToLogText(definition);
    LOG_ERROR_LONG(text, "Invalid config: %s", text.c_str());
}

bool MakeServices(const Json::Value &definition, Json::Value &services)
{
    if (!GetMember(definition, "services").isArray() || !HasString(definition, "subscriber") ||
        !HasString(definition, "owner") || !HasBool(definition, "isPkg")) {
        LogInvalidConfig(definition);
        return false;
    }

    const std::string filter = GetString(definition, "service");
    const std::string subscriber = GetString(definition, "subscriber");
    for (const Json::Value &element : definition["services"]) {
        if (!IsGoodElement(element, subscriber)) {
            const std::string text = ToLogText(element);
            LOG_ERROR_LONG(text, "Bad service config: %s", text.c_str());
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
    if (ToLogText(services).size() > kLargestDefinition) {
        LogInvalidConfig(definition);
        return false;
    }
    return true;
}

}  // namespace

int Registerer(int argc, char *argv[])
{
    Json::Value definition;
    std::string definitionPath;
    const bool isReady = Init(argc, argv, definition, definitionPath);
    RemoveDefinition(definitionPath);
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
    if (!MakeServices(definition, services)) {
        services = Json::Value(Json::arrayValue);
        return false;
    }
    return true;
}

}  // namespace opalcrt
