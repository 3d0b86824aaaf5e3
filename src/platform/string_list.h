// Lists of texts, and what an IP address looks like.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace opalcrt {

struct SzList {
    std::vector<std::string> items;
};

// An empty list with room for `size` items (it grows when more are added); null when there is no memory.
std::unique_ptr<SzList> YLIBCSzListAlloc(size_t size);

// The item at `index`, which must be below items.size(); it lives as long as the list is not changed.
const char *YLIBCSzListGet(const SzList &list, size_t index);

// Splits `text` at every `separator` and appends the pieces, empty ones too. The number of the list's items, or -1
// when a parameter is null or the separator empty.
int YLIBCStrSep(const char *text, const char *separator, SzList *list);

// 1 when the text is an IPv4 address in dotted form or an IPv6 address (inet_pton(3)), else 0.
int BlYLIBIsIpAddr(const char *text);

}  // namespace opalcrt
