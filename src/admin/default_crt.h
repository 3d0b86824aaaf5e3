// `opalcrt default`: the certificate that new services get.
#pragma once

#include <string>

namespace opalcrt {

// Prints its id. False, told, when there is none.
bool PrintDefault();

// Makes it the one that DEFAULT names. False, told, for one that a registration could not use. Takes the recovery lock.
bool SetDefault(const std::string &cert_id);

}  // namespace opalcrt
