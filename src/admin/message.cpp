#include "admin/message.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/json_file.h"
#include "common/log.h"
#include "platform/atomic_file.h"
#include "store/names.h"

namespace opalcrt
{

int Refuse(const std::string &text, std::source_location where)
{
    const std::string shown = ToShownText(text);
    fprintf(stderr, "opalcrt: %s\n", shown.c_str());
    LogLine(LOG_ERR, "opalcrt.cpp", static_cast<int>(where.line()), std::string(), "%s", shown.c_str());
    return kRefused;
}

int RefuseCall(const std::string &text, std::source_location where)
{
    return Refuse(text + ": " + strerror(errno), where);
}

std::string ToUtf8(const std::string &text)
{
    if (IsUtf8(text)) {
        return text;
    }
    std::string fit;
    for (const char byte : text) {
        fit += static_cast<unsigned char>(byte) < 0x80 ? std::string(1, byte) : "\xEF\xBF\xBD";
    }
    return fit;
}

std::string ToShownText(const std::string &text)
{
    std::string shown = ToUtf8(text);
    for (size_t at = 0; at < shown.size(); ++at) {
        const auto byte = static_cast<unsigned char>(shown[at]);
        // U+0080 to U+009F are control characters as well; in UTF-8 they begin with C2.
        const bool isC1 = byte == 0xC2 && static_cast<unsigned char>(shown[at + 1]) < 0xA0;
        if (byte < 0x20 || byte == 0x7F || isC1) {
            shown.replace(at, isC1 ? 2 : 1, "?");
        }
    }
    return shown;
}

bool PrintJson(const Json::Value &object)
{
    return WriteAll(STDOUT_FILENO, "{\"format\":1," + toString(object).substr(1));
}

}  // namespace opalcrt
