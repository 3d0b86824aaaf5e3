#include "common/json_member.h"

#include <cstring>

namespace opalcrt {

const Json::Value &GetMember(const Json::Value &object, const char *key)
{
    const Json::Value *member = object.isObject() ? object.find(key, key + strlen(key)) : nullptr;
    return member != nullptr ? *member : Json::Value::nullSingleton();
}

std::string GetString(const Json::Value &object, const char *key)
{
    const Json::Value &member = GetMember(object, key);
    return member.isConvertibleTo(Json::stringValue) ? member.asString() : std::string();
}

bool GetBool(const Json::Value &object, const char *key)
{
    const Json::Value &member = GetMember(object, key);
    return member.isConvertibleTo(Json::booleanValue) && member.asBool();
}

bool HasString(const Json::Value &object, const char *key) { return GetMember(object, key).isString(); }

bool HasBool(const Json::Value &object, const char *key) { return GetMember(object, key).isBool(); }

}  // namespace opalcrt
