// Members of JSON values from outside, whatever their shape: jsoncpp throws when a member is asked of a
// number or an array, and converts between types without a word; here the wrong type is a missing member.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

namespace opalcrt
{

// The member itself; null when `object` is no object or has no such member.
const Json::Value &GetMember(const Json::Value &object, const char *key);

// The member's value; the empty string or false when it is missing or of another type.
std::string GetString(const Json::Value &object, const char *key);
bool GetBool(const Json::Value &object, const char *key);

bool HasString(const Json::Value &object, const char *key);
bool HasBool(const Json::Value &object, const char *key);

// What a service object is known by: its `subscriber` and `service`, byte for byte. The views are into the object.
struct ServiceName {
    std::string_view subscriber;
    std::string_view service;
    bool operator==(const ServiceName &) const = default;
};

// Nothing when the value is no object or one of the two is no string.
std::optional<ServiceName> NameOf(const Json::Value &serviceObj);

}  // namespace opalcrt
