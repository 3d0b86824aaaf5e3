#include "admin/certificate.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <regex>

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

Json::Value ListNames(const X509 &crt)
{
    Json::Value names(Json::arrayValue);
    const UniqueOpenSSL<GENERAL_NAMES> alternatives(
        static_cast<GENERAL_NAMES *>(X509_get_ext_d2i(&crt, NID_subject_alt_name, nullptr, nullptr)));
    for (int at = 0; at < sk_GENERAL_NAME_num(alternatives.get()); ++at) {
        GENERAL_NAME *name = sk_GENERAL_NAME_value(alternatives.get(), at);
        if (name->type == GEN_DNS || name->type == GEN_IPADD) {
            // "DNS:kestrel", "IP Address:192.0.2.7"
            const std::string text = Written([name](BIO *bio) { return GENERAL_NAME_print(bio, name); });
            names.append(text.substr(text.find(':') + 1));
        }
    }
    char name[256];
    if (names.empty() &&
        X509_NAME_get_text_by_NID(X509_get_subject_name(&crt), NID_commonName, name, sizeof(name)) > 0) {
        names.append(name);
    }
    return names;
}

// What is no time is over.
int64_t SecondsUntil(const ASN1_TIME *time)
{
    int days = 0;
    int seconds = 0;
    return ASN1_TIME_diff(&days, &seconds, nullptr, time) == 1 ? days * kDaySeconds + seconds : -1;
}

std::string ToTimeText(const ASN1_TIME *time)
{
    std::string text =
        Written([time](BIO *bio) { return ASN1_TIME_print_ex(bio, time, ASN1_DTFLGS_ISO8601); });
    std::ranges::replace(text, ' ', 'T');
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

UniqueOpenSSL<X509> FirstCrt(const std::string &text)
{
    const UniqueOpenSSL<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    return UniqueOpenSSL<X509>(PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr));
}

UniqueOpenSSL<EVP_PKEY> FirstKey(const std::string &text)
{
    const UniqueOpenSSL<BIO> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    return UniqueOpenSSL<EVP_PKEY>(PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassword, nullptr));
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
    Json::Value facts(Json::objectValue);
    facts["subject"] = Written(
        [&crt](BIO *bio) { return X509_NAME_print_ex(bio, X509_get_subject_name(&crt), 0, kHowSubjects); });
    facts["names"] = ListNames(crt);
    facts["not_before"] = ToTimeText(X509_get0_notBefore(&crt));
    facts["not_after"] = ToTimeText(X509_get0_notAfter(&crt));
    facts["seconds_left"] = SecondsUntil(X509_get0_notAfter(&crt));
    facts["sha256"] = digits;
    return facts;
}

void AddTimeFinding(const std::string &what, const X509 &crt, int days, Json::Value &findings)
{
    const int64_t left = SecondsUntil(X509_get0_notAfter(&crt));
    const std::string end = ToTimeText(X509_get0_notAfter(&crt));
    AddIf(left < 0, findings, "expired", what + " has ended: " + end) ||
        AddIf(SecondsUntil(X509_get0_notBefore(&crt)) > 0, findings, "not-yet-valid",
              what + " has not begun; is the clock right?") ||
        AddIf(left < days * kDaySeconds, findings, "expires-soon", what + " ends soon: " + end);
}

// OpenSSL keeps what it has worked out of a certificate inside it, so these of its functions take no const.
bool IsSignedBy(const X509 &crt, const X509 &issuer)
{
    return (&crt == &issuer || X509_check_ca(const_cast<X509 *>(&issuer)) != 0) &&
           X509_check_issued(const_cast<X509 *>(&issuer), const_cast<X509 *>(&crt)) == X509_V_OK &&
           X509_verify(const_cast<X509 *>(&crt), X509_get0_pubkey(&issuer)) == 1;
}

bool IsKeyOf(const EVP_PKEY &key, const X509 &crt) { return X509_check_private_key(&crt, &key) == 1; }

bool IsFor(const X509 &crt, const std::string &name)
{
    return X509_check_host(const_cast<X509 *>(&crt), name.data(), name.size(), 0, nullptr) == 1 ||
           X509_check_ip_asc(const_cast<X509 *>(&crt), name.c_str(), 0) == 1;
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
        return PEM_write_bio_PrivateKey(bio, &key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

}  // namespace opalcrt
