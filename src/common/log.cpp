#include "common/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "platform/error_state.h"

namespace opalcrt {

namespace {

// What a line holds beside the one text that may be long: two paths with names of 255 bytes, and words.
constexpr size_t kRoomForTheRest = 2048;
constexpr size_t kKeptEnd = 256;

// Takes out what is too much, at the latest before `end`; never half a UTF-8 character at the place of the cut.
void Cut(std::string &text, size_t limit, size_t keptEnd)
{
    if (text.size() <= limit) {
        return;
    }
    const size_t end = text.size() - keptEnd;
    size_t cut = limit - keptEnd;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    text.erase(cut, end - cut);
}

__attribute__((format(printf, 4, 0))) void Send(int priority, const char *source, int line,
                                                const char *format, va_list args, const char *end)
{
    const int error = errno;
    va_list measured;
    va_copy(measured, args);
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string message(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    errno = error;  // For %m.
    vsnprintf(message.data(), message.size() + 1, format, args);

    std::string text = source + std::string(":") + std::to_string(line) + " " + message + end;
    Cut(text, kLongestLogLine, kKeptEnd);
    syslog(LOG_USER | priority, "%s", text.c_str());
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
    Cut(text, kLongestLogLine - kRoomForTheRest, 0);
    return text;
}

}  // namespace opalcrt
