#include "deploy/key_types.h"

#include <utility>

#include "common/json_file.h"
#include "common/json_member.h"
#include "store/paths.h"

namespace opalcrt
{

std::string KeyTypeName(KeyType type)
{
    return type == KeyType::ECC ? "ECC" : "RSA";
}

std::string KeyTypePrefix(KeyType type)
{
    return KeyTypeName(type) + "-";
}

std::vector<KeyType> GetCrtKeyTypes(const std::string &certId)
{
    Json::Value renew;
    if (!fromFile(GetCrtFolderPath(certId) + "/renew.json", renew)) {
        return {};
    }
    const std::string text = GetString(renew, "key_types");
    return text.empty() ? std::vector<KeyType>() : ParseKeyTypes(text);
}

bool HasCrtKeyTypes(const std::string &certId)
{
    return !GetCrtKeyTypes(certId).empty();
}

std::vector<KeyType> ParseKeyTypes(const std::string &text)
{
    std::vector<KeyType> types;
    for (const std::string &piece : SplitTrimmed(text, "/")) {
        if (piece == KeyTypeName(KeyType::RSA)) {
            types.push_back(KeyType::RSA);
        } else if (piece == KeyTypeName(KeyType::ECC)) {
            types.push_back(KeyType::ECC);
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
