// DEFAULT, the file that names the certificate of new services.
#pragma once

#include <string>

namespace opalcrt {

// What fits into an id that new services can be given.
inline constexpr size_t kLongestDefaultId = 15;

// The id of the system default certificate: the first line of DEFAULT, at most kLongestDefaultId bytes of it, without the
// newline (other white space is part of the id). Empty when there is none (not logged) or when no folder has
// that name (logged).
std::string GetDefCrtId();

// The same without a look at the folder; nothing is logged.
std::string ReadDefCrtId();

}  // namespace opalcrt
