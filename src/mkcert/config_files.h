// Configuration files for the openssl program: subjects (openssl-req(1)) and extensions (x509v3_config(5)).
//
// Every function answers 0 on success and -1, logged, on failure; before the file is opened a failure leaves
// an earlier file alone. Errors while lines are written do not change the answer, but a file that could not
// be written whole is removed: openssl then fails, instead of signing without the extensions.
#pragma once

#include <string>

#include "platform/string_list.h"

namespace opalcrt {

// The subject of a certificate request; an empty field is left out. Values are written between single quotes
// without escaping.
struct CsrSubject {
    std::string countryName;
    std::string stateOrProvinceName;
    std::string localityName;
    std::string organizationName;
    std::string organizationalUnitName;
    std::string commonName;
    std::string emailAddress;
};

// Creates the folder that will hold the file, and those above it, with /bin/mkdir -p.
int genDirectory(const std::string &filePath);

// Writes the configuration of a certificate request.
int modifyCsrCfg(const std::string &path, const CsrSubject &subject);

// Writes the extensions of the self-signed CA certificate.
int genCACnf(const char *path);

// Writes the extensions of the server certificate. The items of `aliases` become its subjectAltName: IP
// addresses and host names in order, without the empty ones; none at all leaves the default line.
int genServerCnf(const char *path, const SzList *aliases);

}  // namespace opalcrt
