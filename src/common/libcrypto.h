// OpenSSL's library, loaded when a certificate is looked at and not before: loading it takes longer than everything
// else in the start of a command, and most runs look at none. It is the machine's own libcrypto all the same, with
// its updates.
#pragma once

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace opalcrt
{

// The functions that are used. OpenSSL's macros (OPENSSL_free, BIO_get_mem_data) would call the library directly;
// what they stand for is here instead.
#define OPALCRT_LIBCRYPTO_FUNCTIONS(DO) \
    DO(BIO_ctrl)                        \
    DO(BIO_free)                        \
    DO(BIO_new)                         \
    DO(BIO_new_file)                    \
    DO(BIO_s_mem)                       \
    DO(CRYPTO_free)                     \
    DO(ERR_print_errors)                \
    DO(EVP_DigestFinal_ex)              \
    DO(EVP_DigestInit_ex)               \
    DO(EVP_DigestUpdate)                \
    DO(EVP_MD_CTX_free)                 \
    DO(EVP_MD_CTX_new)                  \
    DO(EVP_PKEY_free)                   \
    DO(EVP_sha256)                      \
    DO(OPENSSL_init_crypto)             \
    DO(PEM_read_X509)                   \
    DO(PEM_read_bio_PrivateKey)         \
    DO(PEM_read_bio_X509)               \
    DO(X509_check_private_key)          \
    DO(X509_free)                       \
    DO(i2d_X509)

struct LibCrypto {
#define OPALCRT_MEMBER(function) decltype(&::function) function = nullptr;
    OPALCRT_LIBCRYPTO_FUNCTIONS(OPALCRT_MEMBER)
#undef OPALCRT_MEMBER
};

// Nothing in it may be called before LoadLibCrypto has answered true.
extern LibCrypto libcrypto;

// Loads the library, once, without the configuration file that the caller's OPENSSL_CONF may name. False, with the
// cause logged as `source` (common/log.h), when it or a function is not there.
bool LoadLibCrypto(const char *source);

}  // namespace opalcrt
