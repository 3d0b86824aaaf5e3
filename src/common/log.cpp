#include "common/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/error_state.h"

namespace opalcrt {

namespace {

// What a line holds beside the one text that may be long: two paths with names of 255 bytes, and words.
constexpr size_t kRoomForTheRest = 2048;

// How much of the text stays within the limit: never half a UTF-8 character.
size_t CutLength(std::string_view text, size_t limit)
{
    while (limit < text.size() && limit > 0 && (static_cast<unsigned char>(text[limit]) & 0xC0) == 0x80) {
        --limit;
    }
    return std::min(limit, text.size());
}

}  // namespace

Failed LogLine(int priority, const char *source, int line, bool withState, const char *format, ...)
{
    // Nothing is allocated: the line that says that there is no memory has to go out, too.
    const int error = errno;  // Also for %m.
    char text[kLongestLogLine + 2];
    size_t used = static_cast<size_t>(snprintf(text, sizeof(text), "%s:%d ", source, line));
    va_list args;
    va_start(args, format);
    errno = error;
    vsnprintf(text + used, sizeof(text) - used, format, args);
    va_end(args);
    if (withState) {
        used = strlen(text);
        snprintf(text + used, sizeof(text) - used, "[0x%04X %s:%d]", static_cast<unsigned>(YLIBCErrGet()),
                 YLIBCErrorGetFile(), YLIBCErrorGetLine());
    }
    syslog(LOG_USER | priority, "%.*s", static_cast<int>(CutLength(text, kLongestLogLine)), text);
    errno = error;
    return Failed();
}

std::string ShortenForLog(std::string text)
{
    text.resize(CutLength(text, kLongestLogLine - kRoomForTheRest));
    return text;
}

}  // namespace opalcrt
