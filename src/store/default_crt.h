// DEFAULT, the file that names the certificate of new services.
#pragma once

#include <string>

namespace opalcrt {

// The id of the system default certificate: the first line of DEFAULT, at most 15 bytes of it, without the
// newline (other white space is part of the id). Empty when there is none (not logged) or when no folder has
// that name (logged).
std::string GetDefCrtId();

}  // namespace opalcrt
