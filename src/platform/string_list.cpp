#include "platform/string_list.h"

#include <arpa/inet.h>

#include <cstring>
#include <new>

#include "platform/error_state.h"

namespace opalcrt {

std::unique_ptr<SzList> YLIBCSzListAlloc(size_t size)
try {
    auto list = std::make_unique<SzList>();
    list->items.reserve(size);
    return list;
} catch (const std::bad_alloc &) {
    return nullptr;
}

const char *YLIBCSzListGet(const SzList &list, size_t index) { return list.items[index].c_str(); }

int YLIBCStrSep(const char *text, const char *separator, SzList *list)
{
    if (text == nullptr || separator == nullptr || *separator == '\0' || list == nullptr) {
        SET_PLATFORM_ERROR(kErrBadParameter);
        return -1;
    }
    for (const char *end; (end = strstr(text, separator)) != nullptr; text = end + strlen(separator)) {
        list->items.emplace_back(text, end);
    }
    list->items.emplace_back(text);
    return static_cast<int>(list->items.size());
}

int BlYLIBIsIpAddr(const char *text)
{
    in6_addr address = {};
    return inet_pton(AF_INET, text, &address) == 1 || inet_pton(AF_INET6, text, &address) == 1 ? 1 : 0;
}

}  // namespace opalcrt
