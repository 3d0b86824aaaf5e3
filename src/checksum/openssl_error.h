// OpenSSL's own error text in the log.
#pragma once

#include "common/log.h"

namespace opalcrt {

// Logs "STEP [TEXT]" with OpenSSL's pending errors (ERR_print_errors(3)), which are gone afterwards.
Failed LogOpenSSLError(const char *step);

}  // namespace opalcrt
