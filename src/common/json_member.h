// Members of JSON values from outside, whatever their shape: jsoncpp throws when a member is asked of a
// number or an array, and converts between types without a word; here the wrong type is a missing member.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

// The member itself; null when `object` is no object or has no such member.
const Json::Value &GetMember(const Json::Value &object, const char *key);

// The member's value; the empty string or false when it is missing or of another type.
std::string GetString(const Json::Value &object, const char *key);
bool GetBool(const Json::Value &object, const char *key);

bool HasString(const Json::Value &object, const char *key);
bool HasBool(const Json::Value &object, const char *key);

}  // namespace opalcrt
