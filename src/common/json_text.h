// The text of JSON values.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt
{

enum class JsonLayout {
    kOneLine,   // no white space at all
    kIndented,  // for people: a line for each member and element, indented with tabs
};

// The value's text without a line feed at its end. Strings keep their bytes, also such as are no UTF-8; only what
// JSON demands is escaped. Written here rather than with jsoncpp's writer, which takes more than twice as long: a
// registration beside many others spends its time on the text of INFO.
std::string ToJsonText(const Json::Value &value, JsonLayout layout);

}  // namespace opalcrt
