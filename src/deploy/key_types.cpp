#include "deploy/key_types.h"

#include <algorithm>
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

std::string KeyTypeName(KeyType type) { return kKeyTypes[type == KeyType::ECC ? 1 : 0].name; }

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
    for (size_t start = 0, end = 0; end != std::string::npos; start = end + 1) {
        end = text.find(delimiter, start);
        if (std::string piece = TrimSpace(text.substr(start, end - start)); !piece.empty()) {
            pieces.push_back(std::move(piece));
        }
    }
    return pieces;
}

std::string TrimSpace(const std::string &text)
{
    constexpr char kWhiteSpace[] = " \t\n\v\f\r";
    const size_t first = std::min(text.find_first_not_of(kWhiteSpace), text.size());
    return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

}  // namespace opalcrt
