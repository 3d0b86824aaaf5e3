#include "store/names.h"

#include <climits>
#include <cstring>
#include <cwchar>
#include <locale>

#include "store/paths.h"

namespace opalcrt
{

namespace
{

bool FitsWith(const std::string &name, size_t added)
{
    return name.size() + added <= NAME_MAX;
}

bool HasLockName(const std::string &subscriber, size_t serviceLength)
{
    const size_t folder = strlen("/tmp/");
    return GetServiceLockPath(subscriber, std::string(serviceLength, 'x')).size() - folder <= NAME_MAX;
}

}  // namespace

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

bool IsPlainFolderName(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos && FitsWith(name, 0);
}

bool IsUsableSubscriber(const std::string &subscriber)
{
    return IsPlainFolderName(subscriber) && subscriber != kArchiveName &&
           FitsWith(subscriber, strlen(kDefinitionSuffix)) && HasLockName(subscriber, 1);
}

bool IsUsableService(const std::string &subscriber, const std::string &service)
{
    return IsPlainFolderName(service) && FitsWith(service, strlen(kStagingSuffix)) &&
           HasLockName(subscriber, service.size()) && !service.ends_with(kStagingSuffix) &&
           !service.ends_with(kBackupSuffix);
}

std::string GetServiceLockPath(const std::string &subscriber, const std::string &service)
{
    return "/tmp/certificate_" + subscriber + "_" + service + ".lock";
}

}  // namespace opalcrt
