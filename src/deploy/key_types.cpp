#include "deploy/key_types.h"

#include <utility>

#include "common/json_file.h"
#include "common/json_member.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

struct NamedKeyType {
    KeyType type;
    const char *name;
};

constexpr NamedKeyType kKeyTypes[] = {{KeyType::RSA, "RSA"}, {KeyType::ECC, "ECC"}};

}  // namespace

std::string KeyTypeName(KeyType type)
{
    for (const NamedKeyType &known : kKeyTypes) {
        if (known.type == type) {
            return known.name;
        }
    }
    return kKeyTypes[0].name;
}

std::string KeyTypePrefix(KeyType type) { return KeyTypeName(type) + "-"; }

std::vector<KeyType> GetCrtKeyTypes(const std::string &cert_id)
{
    Json::Value renew;
    if (!fromFile(GetCrtFolderPath(cert_id) + "/renew.json", renew)) {
        return {};
    }
    const std::string text = GetString(renew, "key_types");
    return text.empty() ? std::vector<KeyType>() : ParseKeyTypes(text);
}

bool HasCrtKeyTypes(const std::string &cert_id) { return !GetCrtKeyTypes(cert_id).empty(); }

std::vector<KeyType> ParseKeyTypes(const std::string &text)
{
    std::vector<KeyType> types;
    for (const std::string &piece : SplitTrimmed(text, "/")) {
        for (const NamedKeyType &known : kKeyTypes) {
            if (piece == known.name) {
                types.push_back(known.type);
            }
        }
    }
    return types.empty() ? std::vector<KeyType>{KeyType::RSA, KeyType::ECC} : types;
}

std::vector<std::string> SplitTrimmed(const std::string &text, const std::string &delimiter)
{
    std::vector<std::string> pieces;
    const auto keep = [&pieces](const std::string &piece) {
        if (std::string trimmed = TrimSpace(piece); !trimmed.empty()) {
            pieces.push_back(std::move(trimmed));
        }
    };
    size_t start = 0;
    for (size_t end; (end = text.find(delimiter, start)) != std::string::npos; start = end + 1) {
        keep(text.substr(start, end - start));
    }
    keep(text.substr(start));
    return pieces;
}

std::string TrimSpace(const std::string &text)
{
    constexpr char kWhiteSpace[] = " \t\n\v\f\r";
    const size_t first = text.find_first_not_of(kWhiteSpace);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

}  // namespace opalcrt
