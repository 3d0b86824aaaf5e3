#include "common/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "platform/error_state.h"

namespace opalcrt
{

namespace
{

constexpr size_t kKeptEnd = 256;

std::string Format(const char *format, va_list args)
{
    va_list measured;
    va_copy(measured, args);
    const int length = vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

// Shortens `longText` inside `line`, or else what stands before the line's end, where codes and paths are; never
// in the middle of a UTF-8 character.
void CutLongText(std::string &line, const std::string &longText)
{
    if (line.size() <= kLongestLogLine) {
        return;
    }
    const size_t excess = line.size() - kLongestLogLine;
    const size_t start = longText.size() > excess ? line.find(longText) : std::string::npos;
    const size_t end = start == std::string::npos ? line.size() - kKeptEnd : start + longText.size();
    size_t cut = end - excess;
    while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    line.erase(cut, end - cut);
}

void Send(int priority, const char *source, int line, const std::string &longText, const std::string &message)
{
    std::string text = source + std::string(":") + std::to_string(line) + " " + message;
    CutLongText(text, longText);
    syslog(LOG_USER | priority, "%s", text.c_str());
}

std::string ErrorState()
{
    char text[128] = {};
    snprintf(text, sizeof(text), "[0x%04X %s:%d]", static_cast<unsigned>(YLIBCErrGet()), YLIBCErrorGetFile(),
             YLIBCErrorGetLine());
    return text;
}

}  // namespace

void LogLine(int priority, const char *source, int line, const std::string &longText, const char *format, ...)
{
    const int error = errno;
    va_list args;
    va_start(args, format);
    const std::string message = Format(format, args);
    va_end(args);
    Send(priority, source, line, longText, message);
    errno = error;
}

void LogLineAndState(int priority, const char *source, int line, const char *format, ...)
{
    const int error = errno;
    va_list args;
    va_start(args, format);
    const std::string message = Format(format, args);
    va_end(args);
    Send(priority, source, line, std::string(), message + ErrorState());
    errno = error;
}

}  // namespace opalcrt
