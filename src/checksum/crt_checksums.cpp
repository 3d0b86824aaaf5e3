#include "checksum/crt_checksums.h"

#include <openssl/pem.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "checksum/openssl_error.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/openssl.h"
#include "platform/file_read.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// Opens a certificate's file; null, logged, also when a link or ".." on the way leads elsewhere.
UniqueFile OpenCrtFile(const std::string &path)
{
    errno = 0;
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(path.c_str(), nullptr), free);
    if (resolved == nullptr) {
        LOG_ERROR("Realpath %s failed. %s", path.c_str(), strerror(errno));
        return nullptr;
    }
    if (strncmp(resolved.get(), path.c_str(), strlen(resolved.get())) != 0) {
        LOG_ERROR("Invalid path for %s, %s.", resolved.get(), path.c_str());
        return nullptr;
    }
    errno = 0;
    UniqueFile file = OpenForReading(resolved.get());
    if (file == nullptr) {
        LOG_ERROR("Open %s failed. %s", resolved.get(), strerror(errno));
    }
    return file;
}

bool HashDer(const unsigned char *der, size_t length, std::string &checksum)
{
    const UniqueOpenSSL<EVP_MD_CTX> context(EVP_MD_CTX_new());
    if (context == nullptr || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
        return LogOpenSSLError("SHA256 init failed.");
    }
    if (EVP_DigestUpdate(context.get(), der, length) != 1) {
        return LogOpenSSLError("SHA256 update failed.");
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned digestLength = 0;
    if (EVP_DigestFinal_ex(context.get(), digest, &digestLength) != 1) {
        return LogOpenSSLError("SHA256 final failed.");
    }
    for (unsigned index = 0; index < digestLength; ++index) {
        char digits[3];
        snprintf(digits, sizeof(digits), "%02x", digest[index]);
        checksum += digits;
    }
    return true;
}

bool GetCrtChecksum(const std::string &cert_id, std::string &checksum)
{
    UniqueFile file = OpenCrtFile(GetCrtFolderPath(cert_id) + "/cert.pem");
    if (file == nullptr) {
        return false;
    }
    ReadNoOpenSSLConfig();
    const UniqueOpenSSL<X509> crt(PEM_read_X509(file.get(), nullptr, NoPassword, nullptr));
    file.reset();
    if (crt == nullptr) {
        return LogOpenSSLError("Read X509 failed.");
    }

    unsigned char *encoded = nullptr;
    const int length = i2d_X509(crt.get(), &encoded);
    const UniqueOpenSSL<unsigned char> der(encoded);
    if (length < 0) {
        return LogOpenSSLError("PEM to DER failed.");
    }
    return HashDer(der.get(), static_cast<size_t>(length), checksum);
}

bool AppendServices(const std::string &cert_id, const Json::Value &services, Json::Value &report)
{
    std::string checksum;
    for (const Json::Value &serviceObj : services) {
        if (!serviceObj.isObject()) {
            return LOG_ERROR("Incorrect format for %s", kInfoPath);
        }
        // Only for the first one, and only then: a certificate without services may be missing.
        if (checksum.empty() && !GetCrtChecksum(cert_id, checksum)) {
            return false;
        }
        Json::Value entry(Json::objectValue);
        entry["service"] = GetMember(serviceObj, "service");
        entry["subscriber"] = GetMember(serviceObj, "subscriber");
        entry["checksum"] = checksum;
        report.append(std::move(entry));
    }
    return true;
}

}  // namespace

bool ListCrtChecksums(Json::Value &report)
{
    errno = 0;
    Json::Value info;
    if (!fromFile(kInfoPath, info)) {
        return LOG_ERROR("Open %s failed. %s", kInfoPath, strerror(errno));
    }
    if (!info.isObject()) {
        return LOG_ERROR("Incorrect format for %s", kInfoPath);
    }

    for (const std::string &cert_id : info.getMemberNames()) {
        Json::Value entry;
        info.removeMember(cert_id, &entry);  // Gone after its turn: it makes room for the report.
        const Json::Value &services = GetMember(entry, "services");
        if (!services.isArray()) {
            return LOG_ERROR("Incorrect format for %s", kInfoPath);
        }
        if (!AppendServices(cert_id, services, report)) {
            return false;
        }
    }
    return true;
}

}  // namespace opalcrt
