// Key types: a certificate may hold one key pair per type, each with files of its own.
#pragma once

#include <string>
#include <vector>

namespace opalcrt {

enum class KeyType { RSA = 0, ECC = 1 };

// What every key type has, each with the type's prefix, in the order in which they are looked for and copied.
inline constexpr const char *kKeyTypeFiles[] = {"cert.pem", "fullchain.pem", "privkey.pem"};

// "RSA" or "ECC"; "RSA" for any other value.
std::string KeyTypeName(KeyType type);

// What the type's file names start with: "RSA-" or "ECC-".
std::string KeyTypePrefix(KeyType type);

// The certificate's key types, from the member `key_types` of its renew.json, in the order given there.
// Empty when the file cannot be read as JSON, or when the member is missing, empty, or has no form as a string.
std::vector<KeyType> GetCrtKeyTypes(const std::string &cert_id);

bool HasCrtKeyTypes(const std::string &cert_id);

// Parses names separated by "/", for instance "RSA / ECC". Unknown names are passed over, names given twice
// stay twice; RSA and ECC when no name is known.
std::vector<KeyType> ParseKeyTypes(const std::string &text);

// The pieces of `text` between the delimiters, trimmed, without the empty ones. The search goes on one byte
// after a delimiter's start, so a delimiter is one byte long.
std::vector<std::string> SplitTrimmed(const std::string &text, const std::string &delimiter);

// Without the white space (isspace(3) in the C locale) at both ends.
std::string TrimSpace(const std::string &text);

}  // namespace opalcrt
