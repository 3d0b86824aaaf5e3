// Keys, requests and certificates, made by the program /usr/bin/openssl (openssl-genrsa(1), openssl-req(1),
// openssl-x509(1)). Every file made gets mode 0400 right after the run that made it.
//
// Every function answers 0 on success and -1, logged, on failure; what was written until then stays. The work
// files have fixed names: the caller holds the recovery lock.
#pragma once

#include <string>

#include "mkcert/config_files.h"

namespace opalcrt {

// Makes an RSA key of `bits` bits, PEM. Nobody else can read it at any moment: openssl makes a new file with
// mode 0600, and one that stands there is made root's before (mkcert/output_file.h).
int genKey(const std::string &keyPath, unsigned bits);

// Writes the request's configuration and makes a request for the key, signed with SHA-256. `subject` may be
// null, which is refused.
int genCsr(const std::string &configPath, const std::string &keyPath, const std::string &csrPath,
           const CsrSubject *subject);

// Makes a certificate valid for `days` days from the request, signed with SHA-256. Self-signed: it is signed
// by `keyPath`, written to `caCrtPath`, and the serial file, the output path and the alias text are not used.
// Else it is signed by the CA (`caCrtPath`, whose key is `keyPath`), written to `outputPath`, and
// `aliasText`, host names and IP addresses separated by ";", becomes its subjectAltName. The extension file
// is written first. That it could not be written is not looked at: openssl fails when there is none, and
// takes the one of an earlier run otherwise.
int genCrt(const std::string &extensionPath, const std::string &csrPath, const std::string &caCrtPath,
           const std::string &serialPath, const std::string &outputPath, const std::string &keyPath,
           bool isSelfSigned, int days, const std::string &aliasText);

// genCrt signed by the CA, with the server's extension file and the system's serial file, which is made when
// it is missing.
int genServerCrt(const std::string &csrPath, const std::string &caCrtPath, const std::string &outputPath,
                 const std::string &caKeyPath, int days, const std::string &aliasText);

}  // namespace opalcrt
