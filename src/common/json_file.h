// JSON files and texts.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

// The largest file that is read or written: what was written must be readable.
constexpr size_t kLargestJsonFile = 64UL * 1024 * 1024;

// Reads and parses the whole file, as jsoncpp's strict mode does, and without NUL bytes: no trailing commas, no text
// after the value, no member twice. What reads differently in different readers is broken here rather than half
// understood. Strings may hold any other bytes, also such as are no UTF-8. Numbers beyond 64 bits become floating
// point; beyond that, as 1e400, they are no JSON here.
// False, with `value` null and the platform error state set, when the path is missing, is no regular file, is
// larger than `limit` bytes, is empty, nests deeper than 500, is no JSON or does not fit into memory. errno is
// that of the failed call, EBADMSG for a text that is no JSON.
bool fromFile(const std::string &path, Json::Value &value, size_t limit = kLargestJsonFile);

// The same for a regular file that is open already, from its start.
bool fromOpenFile(int fd, Json::Value &value, size_t limit = kLargestJsonFile);

// Writes the value's text as the whole file with ReplaceFile (platform/atomic_file.h): readers, and the next
// process after a power cut, see the old file or the new one. `indented` is for people (the books), without
// it the text is one line. A new file gets the mode and owner of `modelPath` (empty: of `path`) if that
// exists, else 0644. False as ReplaceFile, and with EFBIG, nothing touched, for a text over kLargestJsonFile.
bool toFile(const std::string &path, const Json::Value &value, bool indented = false,
            const std::string &modelPath = std::string());

// The same with WriteNewFile, for a file that the caller renames when it stands.
bool toNewFile(const std::string &path, const Json::Value &value, bool indented,
               const std::string &modelPath);

// The value's text on one line, ended by one line feed. Where its strings are no UTF-8, everything beyond ASCII is
// escaped, so that every reader of JSON takes it.
std::string toString(const Json::Value &value);

// The value's text on one line, with the bytes of its strings as they are.
std::string ToText(const Json::Value &value);

// The same for a log line; a long one loses its end (common/log.h).
std::string ToLogText(const Json::Value &value);

}  // namespace opalcrt
