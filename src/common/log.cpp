#include "common/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "platform/error_state.h"

namespace opalcrt {

namespace {

// What a line holds beside the one text that may be long: two paths with names of 255 bytes, and words.
constexpr size_t kRoomForTheRest = 2048;
// Never half a UTF-8 character.
void CutTo(std::string &text, size_t limit)
{
    if (text.size() > limit) {
        while (limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80) {
            --limit;
        }
        text.resize(limit);
    }
}

__attribute__((format(printf, 4, 0))) void Send(int priority, const char *source, int line,
                                                const char *format, va_list args, const char *end)
{
    const int error = errno;  // Also for %m.
    char *message = nullptr;
    if (vasprintf(&message, format, args) >= 0) {
        std::string text = source + std::string(":") + std::to_string(line) + " " + message + end;
        CutTo(text, kLongestLogLine);
        syslog(LOG_USER | priority, "%s", text.c_str());
        free(message);
    }
    errno = error;
}

}  // namespace

Failed LogLine(int priority, const char *source, int line, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    Send(priority, source, line, format, args, "");
    va_end(args);
    return Failed();
}

Failed LogLineAndState(int priority, const char *source, int line, const char *format, ...)
{
    char state[128] = {};
    snprintf(state, sizeof(state), "[0x%04X %s:%d]", static_cast<unsigned>(YLIBCErrGet()),
             YLIBCErrorGetFile(), YLIBCErrorGetLine());
    va_list args;
    va_start(args, format);
    Send(priority, source, line, format, args, state);
    va_end(args);
    return Failed();
}

std::string ShortenForLog(std::string text)
{
    CutTo(text, kLongestLogLine - kRoomForTheRest);
    return text;
}

}  // namespace opalcrt
