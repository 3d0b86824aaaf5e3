#include "checksum/openssl_error.h"

#include <openssl/err.h>

#include <string>

#include "common/log.h"
#include "common/openssl.h"

namespace opalcrt {

Failed LogOpenSSLError(const char *step)
{
    const UniqueOpenSSL<BIO> bio(BIO_new(BIO_s_mem()));
    if (bio == nullptr) {
        return LOG_ERROR("Fatal Error. new bio failed.");
    }
    ERR_print_errors(bio.get());
    const char *data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    const std::string text(data != nullptr ? data : "", length > 0 ? static_cast<size_t>(length) : 0);
    return LOG_ERROR("%s [%s]", step, ShortenForLog(text).c_str());
}

}  // namespace opalcrt
