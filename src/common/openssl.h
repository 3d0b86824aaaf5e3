// What every use of OpenSSL's library needs here.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace opalcrt {

struct OpenSSLFree {
    void operator()(BIO *bio) const { BIO_free(bio); }
    void operator()(X509 *crt) const { X509_free(crt); }
    void operator()(X509_STORE *store) const { X509_STORE_free(store); }
    void operator()(X509_STORE_CTX *context) const { X509_STORE_CTX_free(context); }
    void operator()(GENERAL_NAMES *names) const { GENERAL_NAMES_free(names); }
    void operator()(EVP_PKEY *key) const { EVP_PKEY_free(key); }
    void operator()(EVP_MD_CTX *context) const { EVP_MD_CTX_free(context); }
    void operator()(ASN1_INTEGER *number) const { ASN1_INTEGER_free(number); }
    void operator()(unsigned char *memory) const { OPENSSL_free(memory); }
};

// Owns what OpenSSL has made.
template <typename Object>
using UniqueOpenSSL = std::unique_ptr<Object, OpenSSLFree>;

// To be called first: keeps OpenSSL from the configuration file that the caller's OPENSSL_CONF may name.
inline void ReadNoOpenSSLConfig() { OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr); }

// A pem_password_cb (pem_password_cb(3)) that has none: reading an encrypted file fails; without a callback OpenSSL
// would ask the terminal.
inline int NoPassword(char *, int, int, void *) { return -1; }

}  // namespace opalcrt
