#include "admin/certificate.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <regex>
#include <string_view>

#include "admin/report.h"
#include "platform/string_list.h"

namespace opalcrt {

namespace {

// Whether there was something to take.
template <typename Type, typename List>
bool Take(Type *value, List &list)
{
    if (value != nullptr) {
        list.emplace_back(value);
    }
    return value != nullptr;
}

void TakeBlock(std::string_view name, std::string_view header, const unsigned char *data, long size,
               PemContent &content)
{
    bool isGood = true;
    if (name.ends_with("CERTIFICATE")) {
        isGood = Take(d2i_X509_AUX(nullptr, &data, size), content.crts);
    } else if (name == PEM_STRING_PKCS8 || header.find("ENCRYPTED") != std::string_view::npos) {
        content.hasEncryptedKey = true;
    } else if (name.ends_with("PRIVATE KEY")) {
        isGood = Take(d2i_AutoPrivateKey(nullptr, &data, size), content.keys);
    }
    content.isBroken = content.isBroken || !isGood;
}

std::string TextOf(BIO &bio)
{
    char *data = nullptr;
    const long size = BIO_get_mem_data(&bio, &data);
    return size > 0 ? std::string(data, static_cast<size_t>(size)) : std::string();
}

UniqueOpenSSL<BIO> ReadFrom(const std::string &text)
{
    return UniqueOpenSSL<BIO>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string ToText(const ASN1_STRING *string)
{
    unsigned char *utf8 = nullptr;
    const int size = ASN1_STRING_to_UTF8(&utf8, string);
    std::string text(reinterpret_cast<const char *>(utf8), size > 0 ? static_cast<size_t>(size) : 0);
    OPENSSL_free(utf8);
    return text;
}

std::string ToAddress(const ASN1_STRING *octets)
{
    const int size = ASN1_STRING_length(octets);
    char text[INET6_ADDRSTRLEN] = {};
    if (size == 4 || size == 16) {
        inet_ntop(size == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(octets), text, sizeof(text));
    }
    return text;
}

std::vector<std::string> ListNames(const X509 &crt)
{
    std::vector<std::string> names;
    auto *alternatives =
        static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(&crt, NID_subject_alt_name, nullptr, nullptr));
    for (int at = 0; at < sk_GENERAL_NAME_num(alternatives); ++at) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(alternatives, at);
        if (name->type == GEN_DNS) {
            names.push_back(ToText(name->d.dNSName));
        } else if (name->type == GEN_IPADD) {
            names.push_back(ToAddress(name->d.iPAddress));
        }
    }
    GENERAL_NAMES_free(alternatives);

    const X509_NAME *subject = X509_get_subject_name(&crt);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (names.empty() && at >= 0) {
        names.push_back(ToText(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at))));
    }
    return names;
}

time_t ToTime(const ASN1_TIME *time)
{
    struct tm parts = {};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

}  // namespace

PemContent ParsePem(std::string text)
{
    if (text.starts_with("\xEF\xBB\xBF")) {
        text.erase(0, 3);
    }
    constexpr char kJoined[] = "----------BEGIN ";
    for (size_t at = 0; (at = text.find(kJoined, at)) != std::string::npos;) {
        text.insert(at + 5, 1, '\n');
    }

    PemContent content;
    const UniqueOpenSSL<BIO> bio = ReadFrom(text);
    char *name = nullptr;
    char *header = nullptr;
    unsigned char *data = nullptr;
    long size = 0;
    while (PEM_read_bio(bio.get(), &name, &header, &data, &size) == 1) {
        TakeBlock(name, header, data, size, content);
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_clear_free(data, static_cast<size_t>(size));
    }
    content.isBroken = content.isBroken || ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE;
    ERR_clear_error();
    return content;
}

UniqueOpenSSL<X509> FirstCrt(const std::string &text)
{
    PemContent content = ParsePem(text);
    return content.crts.empty() ? nullptr : std::move(content.crts.front());
}

UniqueOpenSSL<EVP_PKEY> FirstKey(const std::string &text)
{
    PemContent content = ParsePem(text);
    return content.keys.empty() ? nullptr : std::move(content.keys.front());
}

CrtFacts DescribeCrt(const X509 &crt)
{
    CrtFacts facts;
    const UniqueOpenSSL<BIO> subject(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(
        subject.get(), X509_get_subject_name(&crt), 0,
        XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN | ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_ESC_CTRL);
    facts.subject = TextOf(*subject);
    facts.names = ListNames(crt);
    facts.notBefore = ToTime(X509_get0_notBefore(&crt));
    facts.notAfter = ToTime(X509_get0_notAfter(&crt));

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    X509_digest(&crt, EVP_sha256(), digest, &size);
    constexpr char kDigits[] = "0123456789abcdef";
    for (unsigned at = 0; at < size; ++at) {
        facts.sha256 += {kDigits[digest[at] >> 4], kDigits[digest[at] & 15]};
    }
    return facts;
}

std::string ToTimeText(time_t time)
{
    struct tm parts = {};
    char text[32] = {};
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &parts));
    return text;
}

void AddTimeFinding(const std::string &what, const X509 &crt, int days, Json::Value &findings)
{
    const time_t now = time(nullptr);
    const time_t begin = ToTime(X509_get0_notBefore(&crt));
    const time_t end = ToTime(X509_get0_notAfter(&crt));
    if (end < now) {
        Add(findings, "expired", what + " has ended: " + ToTimeText(end));
    } else if (begin > now) {
        Add(findings, "not-yet-valid", what + " begins " + ToTimeText(begin) + "; is the clock right?");
    } else if (end - now < days * kDaySeconds) {
        Add(findings, "expires-soon", what + " ends soon: " + ToTimeText(end));
    }
}

// OpenSSL keeps what it has worked out of a certificate inside it, so these of its functions take no const.
bool IsSignedBy(const X509 &crt, const X509 &issuer)
{
    const bool isSigned =
        X509_check_issued(const_cast<X509 *>(&issuer), const_cast<X509 *>(&crt)) == X509_V_OK &&
        X509_verify(const_cast<X509 *>(&crt), X509_get0_pubkey(&issuer)) == 1;
    ERR_clear_error();
    return isSigned;
}

bool IsKeyOf(const EVP_PKEY &key, const X509 &crt)
{
    const bool fits = X509_check_private_key(&crt, &key) == 1;
    ERR_clear_error();
    return fits;
}

bool IsIssuerWellKnown(const X509 &crt)
{
    X509_STORE *store = X509_STORE_new();
    X509_STORE_CTX *search = X509_STORE_CTX_new();
    X509 *issuer = nullptr;
    if (X509_STORE_set_default_paths(store) == 1 &&
        X509_STORE_CTX_init(search, store, nullptr, nullptr) == 1) {
        X509_STORE_CTX_get1_issuer(&issuer, search, const_cast<X509 *>(&crt));
    }
    const bool isKnown = issuer != nullptr && IsSignedBy(crt, *issuer);
    X509_free(issuer);
    X509_STORE_CTX_free(search);
    X509_STORE_free(store);
    ERR_clear_error();
    return isKnown;
}

bool IsHostName(const std::string &name)
{
    const std::string label = "[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?";
    return name.size() <= 253 && BlYLIBIsIpAddr(name.c_str()) == 0 &&
           std::regex_match(name, std::regex(label + "(\\." + label + ")*"));
}

std::string ToPem(const X509 &crt)
{
    const UniqueOpenSSL<BIO> bio(BIO_new(BIO_s_mem()));
    return PEM_write_bio_X509(bio.get(), const_cast<X509 *>(&crt)) == 1 ? TextOf(*bio) : std::string();
}

std::string ToPem(const EVP_PKEY &key)
{
    const UniqueOpenSSL<BIO> bio(BIO_new(BIO_s_mem()));
    const bool isWritten = PEM_write_bio_PKCS8PrivateKey(bio.get(), const_cast<EVP_PKEY *>(&key), nullptr,
                                                         nullptr, 0, nullptr, nullptr) == 1;
    return isWritten ? TextOf(*bio) : std::string();
}

}  // namespace opalcrt
