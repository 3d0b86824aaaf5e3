#include "common/utf8.h"

#include <cwchar>
#include <locale>

namespace opalcrt {

bool IsUtf8(const std::string &text)
{
    const auto &codec =
        std::use_facet<std::codecvt<char32_t, char8_t, std::mbstate_t>>(std::locale::classic());
    const auto *begin = reinterpret_cast<const char8_t *>(text.data());
    std::mbstate_t state = {};
    const int good = codec.length(state, begin, begin + text.size(), text.size());
    if (static_cast<size_t>(good) != text.size()) {
        return false;
    }
    // The library takes halves of surrogate pairs, which RFC 3629 forbids: ED and then A0 to BF.
    for (size_t at = text.find('\xED'); at != std::string::npos; at = text.find('\xED', at + 1)) {
        if (static_cast<unsigned char>(text[at + 1]) >= 0xA0) {
            return false;
        }
    }
    return true;
}

}  // namespace opalcrt
