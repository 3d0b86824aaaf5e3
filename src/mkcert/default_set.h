// The default certificate set: a private CA and a server certificate signed by it, valid for 366 days, with
// RSA keys of 2048 bits, made into a folder:
//   opal-ca-privkey.pem  opal-ca-cert.pem  privkey.pem  cert.pem  fullchain.pem (a copy of cert.pem)
// Work files lie under /usr/opal/etc/ssl and have fixed names: the caller holds the recovery lock.
#pragma once

#include <string>

#include "mkcert/config_files.h"

namespace opalcrt {

// What the default certificate is for.
inline constexpr char kDefaultName[] = "kestrel";

// Generates the set into the folder, which is made when it is missing; what stood there under these names is
// replaced, other files are left alone. 0 on success; -1, logged, otherwise.
//
// The files are written in place, one after the other, and synced at the end: while that goes on, and after a failure,
// they need not belong together, which the caller has to note (assign/recovery.h). Nothing is removed but links and
// second names (mkcert/output_file.h).
int genDefaultCrtSet(const std::string &folder);

// The same with a subject and names of its own: `aliasText` as genCrt has it (mkcert/crt_creation.h).
int genNamedCrtSet(const std::string &folder, const std::string &commonName, const std::string &aliasText);

// Generates the CA. 0, or the failed step's answer: -1, or 1 when certificate and key do not match.
int genCASet(const CsrSubject &subject, unsigned bits, const std::string &folder);

// Makes the CA's self-signed certificate from its request. 0 or -1.
int genCACrt(const std::string &caCrtPath, const std::string &caKeyPath);

// Generates key, certificate and chain of the server, signed by the CA that is in the folder. 0 or -1.
int genCrtSet(const CsrSubject &subject, unsigned bits, const std::string &aliasText,
              const std::string &folder);

}  // namespace opalcrt
