#include "mkcert/key_match.h"

#include <memory>

#include "common/libcrypto.h"
#include "common/log.h"
#include "common/no_password.h"
#include "platform/file_test.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kMkcert;

struct OpenSSLFree {
    void operator()(BIO *bio) const { libcrypto.BIO_free(bio); }
    void operator()(X509 *crt) const { libcrypto.X509_free(crt); }
    void operator()(EVP_PKEY *key) const { libcrypto.EVP_PKEY_free(key); }
};
using UniqueBio = std::unique_ptr<BIO, OpenSSLFree>;
using UniqueX509 = std::unique_ptr<X509, OpenSSLFree>;
using UniqueKey = std::unique_ptr<EVP_PKEY, OpenSSLFree>;

// OpenSSL's own file BIO leaves its descriptor open in children; "e" is O_CLOEXEC (fopen(3)).
UniqueBio OpenBio(const std::string &path)
{
    UniqueBio bio(libcrypto.BIO_new_file(path.c_str(), "re"));
    if (bio == nullptr) {
        LOG_ERROR("Failed to BIO_new_file. [%s]", path.c_str());
    }
    return bio;
}

}  // namespace

int checkCrtKeyMatch(const std::string &crtPath, const std::string &keyPath)
{
    if (YLIBCFileUTF8BomStrip(crtPath.c_str()) != 0 || YLIBCFileUTF8BomStrip(keyPath.c_str()) != 0) {
        LOG_ERROR("Failed to strip utf8 BOM");
        return -1;
    }

    if (!LoadLibCrypto(kLogSource)) {
        return -1;
    }
    const UniqueBio crtBio = OpenBio(crtPath);
    if (crtBio == nullptr) {
        return -1;
    }
    const UniqueX509 crt(libcrypto.PEM_read_bio_X509(crtBio.get(), nullptr, NoPassword, nullptr));
    if (crt == nullptr) {
        LOG_ERROR("Failed to read cert from %s", crtPath.c_str());
        return -1;
    }

    const UniqueBio keyBio = OpenBio(keyPath);
    if (keyBio == nullptr) {
        return -1;
    }
    const UniqueKey key(libcrypto.PEM_read_bio_PrivateKey(keyBio.get(), nullptr, NoPassword, nullptr));
    if (key == nullptr) {
        LOG_ERROR("Failed to read private key from %s", keyPath.c_str());
        return -1;
    }

    return libcrypto.X509_check_private_key(crt.get(), key.get()) == 1 ? 0 : 1;
}

}  // namespace opalcrt
