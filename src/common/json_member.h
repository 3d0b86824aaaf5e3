// Members of JSON values from outside, whatever their shape: jsoncpp throws when a member is asked of a number or an
// array, or when a value has no such form.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

// The member itself; null when `object` is no object or has no such member.
const Json::Value &GetMember(const Json::Value &object, const char *key);

// The member as a string (5 is "5", true is "true"), or as a boolean (a number but 0 is true); the empty string or false
// when it is missing, or has no such form.
std::string GetString(const Json::Value &object, const char *key);
bool GetBool(const Json::Value &object, const char *key);

// Whether the member is there and of just this type.
bool HasString(const Json::Value &object, const char *key);
bool HasBool(const Json::Value &object, const char *key);

}  // namespace opalcrt
