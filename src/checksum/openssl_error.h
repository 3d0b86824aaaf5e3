// OpenSSL's own error text in the log.
#pragma once

namespace opalcrt {

// Logs "STEP [TEXT]" with OpenSSL's pending errors (ERR_print_errors(3)), which are gone afterwards.
void LogOpenSSLError(const char *step);

}  // namespace opalcrt
