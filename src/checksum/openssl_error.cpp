#include "checksum/openssl_error.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <string>

#include "common/log.h"

namespace opalcrt {

void LogOpenSSLError(const char *step)
{
    BIO *bio = BIO_new(BIO_s_mem());
    if (bio == nullptr) {
        LOG_ERROR("Fatal Error. new bio failed.");
        return;
    }
    ERR_print_errors(bio);
    const char *data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    const std::string text(data != nullptr ? data : "", length > 0 ? static_cast<size_t>(length) : 0);
    LOG_ERROR("%s [%s]", step, ShortenForLog(text).c_str());
    BIO_free(bio);
}

}  // namespace opalcrt
