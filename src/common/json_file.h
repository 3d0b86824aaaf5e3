// JSON files and texts.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt
{

// Reads and parses the whole file. Only strict JSON (RFC 8259) is taken: no comments, no trailing commas, no
// text after the value, no member twice, no NUL byte. Every one of these reads differently in different
// readers, and a comment would be lost at the next write; so such a file is broken here rather than half
// understood. Strings may hold any other bytes, also such as are no UTF-8. False, with `value` null and the
// platform error state set, when the path is missing, is no regular file, is larger than 64 MiB, is empty,
// nests deeper than 500 or is no JSON. errno is that of the failed call, EBADMSG for a text that is no JSON.
bool fromFile(const std::string &path, Json::Value &value);

// Writes the value's text as the whole file with ReplaceFile (platform/atomic_file.h): readers, and the next
// process after a power cut, see the old file or the new one. `indented` is for people (the books), without
// it the text is one line. A new file gets the mode and owner of `modelPath` (empty: of `path`) if that
// exists, else 0644. False as ReplaceFile.
bool toFile(const std::string &path, const Json::Value &value, bool indented = false,
            const std::string &modelPath = std::string());

// The value's text on one line, ended by one line feed; bytes beyond ASCII stay as they are.
std::string toString(const Json::Value &value);

// The same without the line feed, for log lines.
std::string ToLogText(const Json::Value &value);

}  // namespace opalcrt
