// Log lines: "SOURCE:LINE message" to the system log, user facility, under the program's name (syslog(3)).
//
// SOURCE is the subsystem's name, not the file's: LOG_SOURCE, which src/CMakeLists.txt gives each target. The formats
// are checked by the compiler as printf's are; %m is the text of errno as the arguments have left it. errno is the same
// afterwards, and no memory is taken. A line over kLongestLogLine loses its end: give it texts of any length through
// ToLogText (common/json_file.h) or ShortenForLog.
#pragma once

#include <syslog.h>

#include <cstddef>
#include <string>

namespace opalcrt {

// A datagram over 8 KiB is lost whole by common loggers, and syslog(3) puts time, name and process id in front.
constexpr size_t kLongestLogLine = 8192 - 128;

// What the macros answer, and with them the function that has failed: `return LOG_ERROR("...");` is false or -1.
struct Failed {
    operator bool() const { return false; }
    operator int() const { return -1; }
};

// Use the macros. With the state the line ends with the platform error state as it stands.
Failed LogLine(int priority, const char *source, int line, bool withState, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// The text without its end where it is so long that the line might not be sent whole; never cut within a UTF-8
// character.
std::string ShortenForLog(std::string text);

}  // namespace opalcrt

#define LOG_ERROR(...) ::opalcrt::LogLine(LOG_ERR, LOG_SOURCE, __LINE__, false, __VA_ARGS__)
#define LOG_ERROR_STATE(...) ::opalcrt::LogLine(LOG_ERR, LOG_SOURCE, __LINE__, true, __VA_ARGS__)
#define LOG_DEBUG_LINE(...) ::opalcrt::LogLine(LOG_DEBUG, LOG_SOURCE, __LINE__, false, __VA_ARGS__)
