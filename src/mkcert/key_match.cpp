#include "mkcert/key_match.h"

#include <openssl/pem.h>

#include "common/log.h"
#include "common/openssl.h"
#include "platform/file_read.h"

namespace opalcrt {

namespace {

// OpenSSL's own file BIO leaves its descriptor open in children; "e" is O_CLOEXEC (fopen(3)).
UniqueOpenSSL<BIO> OpenBio(const std::string &path)
{
    UniqueOpenSSL<BIO> bio(BIO_new_file(path.c_str(), "re"));
    if (bio == nullptr) {
        LOG_ERROR("Failed to BIO_new_file. [%s]", path.c_str());
    }
    return bio;
}

}  // namespace

int checkCrtKeyMatch(const std::string &crtPath, const std::string &keyPath)
{
    if (YLIBCFileUTF8BomStrip(crtPath.c_str()) != 0 || YLIBCFileUTF8BomStrip(keyPath.c_str()) != 0) {
        return LOG_ERROR("Failed to strip utf8 BOM");
    }

    ReadNoOpenSSLConfig();
    const UniqueOpenSSL<BIO> crtBio = OpenBio(crtPath);
    if (crtBio == nullptr) {
        return -1;
    }
    const UniqueOpenSSL<X509> crt(PEM_read_bio_X509(crtBio.get(), nullptr, NoPassword, nullptr));
    if (crt == nullptr) {
        return LOG_ERROR("Failed to read cert from %s", crtPath.c_str());
    }

    const UniqueOpenSSL<BIO> keyBio = OpenBio(keyPath);
    if (keyBio == nullptr) {
        return -1;
    }
    const UniqueOpenSSL<EVP_PKEY> key(PEM_read_bio_PrivateKey(keyBio.get(), nullptr, NoPassword, nullptr));
    if (key == nullptr) {
        return LOG_ERROR("Failed to read private key from %s", keyPath.c_str());
    }

    return X509_check_private_key(crt.get(), key.get()) == 1 ? 0 : 1;
}

}  // namespace opalcrt
