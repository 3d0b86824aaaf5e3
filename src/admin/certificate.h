// Certificates and keys as PEM, and what they say. Nothing here logs or asks for a password.
#pragma once

#include <json/value.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "common/openssl.h"

namespace opalcrt {

// A regular file of at most 1 MiB, as all are but the books, for who wants to know why it could not be read.
struct FileLook {
    int error = 0;  // errno of OpenRegularFile or ReadWhole
    std::string text;
    struct stat info = {};
};
FileLook LookAtFile(const std::string &path);

// The first certificate, or the first private key; null when the text holds none, or it is damaged.
UniqueOpenSSL<X509> FirstCrt(const std::string &text);
UniqueOpenSSL<EVP_PKEY> FirstKey(const std::string &text);

// What a report tells of a certificate: its `subject` ("C=TW, O=Kestrel Inc., CN=kestrel"), its `names` (host names and
// addresses of subjectAltName, or else the common name), `not_before` and `not_after` (RFC 3339, in UTC), `seconds_left`, and `sha256` of its
// DER encoding in lower-case hexadecimal digits.
Json::Value DescribeCrt(const X509 &crt);

constexpr int64_t kDaySeconds = 24 * 60 * 60;

// Adds to `findings` (admin/report.h) that it has ended, has not begun, or has less than so many days left.
void AddTimeFinding(const std::string &what, const X509 &crt, int days, Json::Value &findings);

// Whether the issuer's name and key made this signature, and may: it is a CA, or the certificate itself.
bool IsSignedBy(const X509 &crt, const X509 &issuer);

bool IsKeyOf(const EVP_PKEY &key, const X509 &crt);

// Whether a client that asks for this host name or address takes the certificate (X509_check_host(3)).
bool IsFor(const X509 &crt, const std::string &name);

// Whether it is a name that clients can ask for, and a certificate can be made for.
bool IsHostName(const std::string &name);

// One block, ended by a line feed. Empty on failure.
std::string ToPem(const X509 &crt);
std::string ToPem(const EVP_PKEY &key);

}  // namespace opalcrt
