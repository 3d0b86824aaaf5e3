// `opalcrt default`: the certificate that new services get.
#pragma once

#include <string>

namespace opalcrt
{

// Prints its id. The exit status.
int PrintDefault();

// Makes it the one that DEFAULT names; refused is what a registration could not use. Takes the recovery lock.
int SetDefault(const std::string &cert_id);

}  // namespace opalcrt
