#include "admin/certificate.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cctype>
#include <regex>
#include <utility>

#include "admin/report.h"
#include "platform/file_read.h"
#include "platform/string_list.h"

namespace opalcrt {

namespace {

// What a function of OpenSSL writes; empty when it fails.
template <typename Write>
std::string Written(const Write &write)
{
    const UniqueOpenSSL<BIO> bio(BIO_new(BIO_s_mem()));
    const bool isWritten = write(bio.get()) > 0;
    char *data = nullptr;
    const long size = BIO_get_mem_data(bio.get(), &data);
    return isWritten ? std::string(data, static_cast<size_t>(size)) : std::string();
}

std::string ToText(const ASN1_STRING *string)
{
    return Written(
        [string](BIO *bio) { return ASN1_STRING_print_ex(bio, string, ASN1_STRFLGS_UTF8_CONVERT); });
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

Json::Value ListNames(const X509 &crt)
{
    Json::Value names(Json::arrayValue);
    const UniqueOpenSSL<GENERAL_NAMES> alternatives(
        static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(&crt, NID_subject_alt_name, nullptr, nullptr)));
    for (int at = 0; at < sk_GENERAL_NAME_num(alternatives.get()); ++at) {
        const GENERAL_NAME *name = sk_GENERAL_NAME_value(alternatives.get(), at);
        if (name->type == GEN_DNS || name->type == GEN_IPADD) {
            names.append(name->type == GEN_DNS ? ToText(name->d.dNSName) : ToAddress(name->d.iPAddress));
        }
    }
    const X509_NAME *subject = X509_get_subject_name(&crt);
    const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (names.empty() && at >= 0) {
        names.append(ToText(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at))));
    }
    return names;
}

time_t ToTime(const ASN1_TIME *time)
{
    struct tm parts = {};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

std::string ToTimeText(time_t time)
{
    struct tm parts = {};
    char text[32] = {};
    strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&time, &parts));
    return text;
}

}  // namespace

FileLook LookAtFile(const std::string &path)
{
    constexpr size_t kLargestFile = 1024UL * 1024;

    FileLook look;
    const UniqueFd fd = OpenRegularFile(path.c_str());
    if (!fd.IsOpen() || fstat(fd.Get(), &look.info) != 0 || !ReadWhole(fd.Get(), kLargestFile, look.text)) {
        look.error = errno;
        look.text.clear();
    }
    return look;
}

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
    const UniqueOpenSSL<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    STACK_OF(X509_INFO) *blocks = PEM_X509_INFO_read_bio(bio.get(), nullptr, NoPassword, nullptr);
    content.isBroken = blocks == nullptr;
    for (int at = 0; at < sk_X509_INFO_num(blocks); ++at) {
        X509_INFO &block = *sk_X509_INFO_value(blocks, at);
        content.hasEncryptedKey = content.hasEncryptedKey || block.enc_data != nullptr;
        if (block.x509 != nullptr) {
            content.crts.emplace_back(std::exchange(block.x509, nullptr));
        }
        if (block.x_pkey != nullptr && block.x_pkey->dec_pkey != nullptr) {
            content.keys.emplace_back(std::exchange(block.x_pkey->dec_pkey, nullptr));
        }
    }
    sk_X509_INFO_pop_free(blocks, X509_INFO_free);
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

Json::Value DescribeCrt(const X509 &crt)
{
    constexpr unsigned long kHowSubjects =
        XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN | ASN1_STRFLGS_UTF8_CONVERT | ASN1_STRFLGS_ESC_CTRL;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    X509_digest(&crt, EVP_sha256(), digest, &size);
    std::string digits;
    for (unsigned at = 0; at < size; ++at) {
        digits += {"0123456789abcdef"[digest[at] >> 4], "0123456789abcdef"[digest[at] & 15]};
    }
    const time_t end = ToTime(X509_get0_notAfter(&crt));
    Json::Value facts(Json::objectValue);
    facts["subject"] = Written(
        [&crt](BIO *bio) { return X509_NAME_print_ex(bio, X509_get_subject_name(&crt), 0, kHowSubjects); });
    facts["names"] = ListNames(crt);
    facts["not_before"] = ToTimeText(ToTime(X509_get0_notBefore(&crt)));
    facts["not_after"] = ToTimeText(end);
    facts["seconds_left"] = static_cast<Json::Int64>(end - time(nullptr));
    facts["sha256"] = digits;
    return facts;
}

void AddTimeFinding(const std::string &what, const X509 &crt, int days, Json::Value &findings)
{
    const time_t now = time(nullptr);
    const time_t begin = ToTime(X509_get0_notBefore(&crt));
    const time_t end = ToTime(X509_get0_notAfter(&crt));
    const std::string endText = ToTimeText(end);
    AddIf(end < now, findings, "expired", what + " has ended: " + endText) ||
        AddIf(begin > now, findings, "not-yet-valid",
              what + " begins " + ToTimeText(begin) + "; is the clock right?") ||
        AddIf(end - now < days * kDaySeconds, findings, "expires-soon", what + " ends soon: " + endText);
}

// OpenSSL keeps what it has worked out of a certificate inside it, so these of its functions take no const.
bool IsSignedBy(const X509 &crt, const X509 &issuer)
{
    const bool isSigned =
        (&crt == &issuer || X509_check_ca(const_cast<X509 *>(&issuer)) != 0) &&
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
    const UniqueOpenSSL<X509_STORE> known(X509_STORE_new());
    const UniqueOpenSSL<X509_STORE_CTX> check(X509_STORE_CTX_new());
    const bool isKnown =
        X509_STORE_set_default_paths(known.get()) == 1 &&
        X509_STORE_set_flags(known.get(), X509_V_FLAG_NO_CHECK_TIME) == 1 &&
        X509_STORE_CTX_init(check.get(), known.get(), const_cast<X509 *>(&crt), nullptr) == 1 &&
        X509_verify_cert(check.get()) == 1;
    ERR_clear_error();
    return isKnown;
}

std::string ToPlainName(std::string name)
{
    if (const UniqueOpenSSL<ASN1_OCTET_STRING> octets(a2i_IPADDRESS(name.c_str())); octets != nullptr) {
        return ToAddress(octets.get());
    }
    std::ranges::transform(name, name.begin(), [](unsigned char letter) { return std::tolower(letter); });
    return name;
}

bool IsHostName(const std::string &name)
{
    const std::string label = "[A-Za-z0-9]([A-Za-z0-9-]{0,61}[A-Za-z0-9])?";
    return name.size() <= 253 && BlYLIBIsIpAddr(name.c_str()) == 0 &&
           std::regex_match(name, std::regex(label + "(\\." + label + ")*"));
}

std::string ToPem(const X509 &crt)
{
    return Written([&crt](BIO *bio) { return PEM_write_bio_X509(bio, const_cast<X509 *>(&crt)); });
}

std::string ToPem(const EVP_PKEY &key)
{
    return Written([&key](BIO *bio) {
        return PEM_write_bio_PKCS8PrivateKey(bio, const_cast<EVP_PKEY *>(&key), nullptr, nullptr, 0, nullptr,
                                             nullptr);
    });
}

}  // namespace opalcrt
