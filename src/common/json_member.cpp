#include "common/json_member.h"

#include <cstring>
#include <string_view>

namespace opalcrt
{

namespace
{

// GetString without a copy. The view of a missing member has no data.
std::string_view View(const Json::Value &object, const char *key)
{
    const char *begin = nullptr;
    const char *end = nullptr;
    const Json::Value &member = GetMember(object, key);
    const bool isString = member.isString() && member.getString(&begin, &end);
    return isString ? std::string_view(begin, static_cast<size_t>(end - begin)) : std::string_view();
}

}  // namespace

const Json::Value &GetMember(const Json::Value &object, const char *key)
{
    const Json::Value *member = object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
    return member != nullptr ? *member : Json::Value::nullSingleton();
}

std::string GetString(const Json::Value &object, const char *key)
{
    const Json::Value &member = GetMember(object, key);
    return member.isString() ? member.asString() : std::string();
}

bool GetBool(const Json::Value &object, const char *key)
{
    const Json::Value &member = GetMember(object, key);
    return member.isBool() && member.asBool();
}

bool HasString(const Json::Value &object, const char *key)
{
    return GetMember(object, key).isString();
}

bool HasBool(const Json::Value &object, const char *key)
{
    return GetMember(object, key).isBool();
}

std::optional<ServiceName> NameOf(const Json::Value &serviceObj)
{
    const ServiceName name = {View(serviceObj, "subscriber"), View(serviceObj, "service")};
    if (name.subscriber.data() == nullptr || name.service.data() == nullptr) {
        return std::nullopt;
    }
    return name;
}

}  // namespace opalcrt
