#include "checksum/openssl_error.h"

#include <string>

#include "common/libcrypto.h"
#include "common/log.h"

namespace opalcrt
{

namespace
{
constexpr const char *kLogSource = log_source::kUtils;
}

void LogOpenSSLError(const char *step)
{
    BIO *bio = libcrypto.BIO_new(libcrypto.BIO_s_mem());
    if (bio == nullptr) {
        LOG_ERROR("Fatal Error. new bio failed.");
        return;
    }
    libcrypto.ERR_print_errors(bio);
    char *data = nullptr;
    const long length = libcrypto.BIO_ctrl(bio, BIO_CTRL_INFO, 0, &data);
    const std::string text(data != nullptr ? data : "", length > 0 ? static_cast<size_t>(length) : 0);
    LOG_ERROR_LONG(text, "%s [%s]", step, text.c_str());
    libcrypto.BIO_free(bio);
}

}  // namespace opalcrt
