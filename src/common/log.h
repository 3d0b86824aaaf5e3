// Log lines: "SOURCE:LINE message" to the system log, user facility, under the program's name (syslog(3)).
//
// SOURCE is the subsystem's name, not the file's. Each source file that logs says once which it is:
//   constexpr const char *kLogSource = log_source::kUtils;
// The formats are checked by the compiler as printf's are; %m is the text of errno. errno is what it was when
// the macro was reached, and is the same afterwards.
#pragma once

#include <syslog.h>

#include <string>

namespace opalcrt
{

namespace log_source
{
inline constexpr char kFrontEnd[] = "opalcrtregister.cpp";
inline constexpr char kUtils[] = "utils.cpp";
inline constexpr char kDirUtils[] = "dir_utils.cpp";
inline constexpr char kMkcert[] = "mkcert.cpp";
}  // namespace log_source

// The longest line that is sent: a datagram over 8 KiB is lost whole by common loggers, and syslog(3) puts
// time, name and process id in front.
constexpr size_t kLongestLogLine = 8192 - 128;

// Formats and sends a line. Where it would be longer than kLongestLogLine, the end of `longText`, one of the
// arguments, is cut off inside the line, so that what stands behind it is kept; where it is empty,
// what stands before the last 256 bytes. Use the macros.
void LogLine(int priority, const char *source, int line, const std::string &longText, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// The same, and the line ends with the platform error state as it stands.
void LogLineAndState(int priority, const char *source, int line, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

}  // namespace opalcrt

#define LOG_ERROR(...) ::opalcrt::LogLine(LOG_ERR, kLogSource, __LINE__, std::string(), __VA_ARGS__)

#define LOG_ERROR_STATE(...) ::opalcrt::LogLineAndState(LOG_ERR, kLogSource, __LINE__, __VA_ARGS__)

// `longText`, a std::string that is among the arguments (a JSON text, OpenSSL's errors), may be of any
// length.
#define LOG_ERROR_LONG(longText, ...) ::opalcrt::LogLine(LOG_ERR, kLogSource, __LINE__, longText, __VA_ARGS__)

#define LOG_DEBUG_LINE(...) ::opalcrt::LogLine(LOG_DEBUG, kLogSource, __LINE__, std::string(), __VA_ARGS__)
