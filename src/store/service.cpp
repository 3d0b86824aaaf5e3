#include "store/service.h"

#include "common/json_member.h"
#include "common/log.h"
#include "store/names.h"

namespace opalcrt {

namespace {

struct ServiceObjKey {
    const char *name;
    Json::ValueType type;
    bool isRequired;
};

constexpr ServiceObjKey kServiceObjKeys[] = {
    {"display_name", Json::stringValue, true}, {"display_name_i18n", Json::stringValue, false},
    {"subscriber", Json::stringValue, true},   {"service", Json::stringValue, true},
    {"isPkg", Json::booleanValue, true},       {"owner", Json::stringValue, true},
};

// Without a copy, and of strings only: a service is known by nothing else.
std::string_view View(const Json::Value &object, const char *key)
{
    const char *begin = nullptr;
    const char *end = nullptr;
    const Json::Value &member = GetMember(object, key);
    const bool isString = member.isString() && member.getString(&begin, &end);
    return isString ? std::string_view(begin, static_cast<size_t>(end - begin)) : std::string_view();
}

}  // namespace

bool IsServiceObjValid(const Json::Value &serviceObj)
{
    for (const ServiceObjKey &key : kServiceObjKeys) {
        const bool isPresent = serviceObj.isObject() && serviceObj.isMember(key.name);
        if (!isPresent && key.isRequired) {
            return LOG_ERROR("Lack of necesary key. [%s]", key.name);
        }
        if (!isPresent) {
            continue;
        }
        const Json::Value &member = GetMember(serviceObj, key.name);
        if (member.type() != key.type || (member.isString() && member.asString().empty())) {
            return false;
        }
    }
    return true;
}

bool HasUsableNames(const Json::Value &serviceObj)
{
    const ServiceName name = NameOf(serviceObj);
    const std::string subscriber(name.subscriber);
    return IsUsableSubscriber(subscriber) && IsUsableService(subscriber, std::string(name.service));
}

ServiceName NameOf(const Json::Value &serviceObj)
{
    return {View(serviceObj, "subscriber"), View(serviceObj, "service")};
}

bool MatchService(const Json::Value &serviceObj, const std::string &subscriber, const std::string &filter)
{
    const ServiceName name = NameOf(serviceObj);
    return name.IsWhole() && name.subscriber == subscriber && (filter.empty() || name.service == filter);
}

}  // namespace opalcrt
