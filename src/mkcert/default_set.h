// The default certificate set: a private CA and a server certificate signed by it, valid for 366 days, with
// RSA keys of 2048 bits, made into a folder:
//   opal-ca-privkey.pem  opal-ca-cert.pem  privkey.pem  cert.pem  fullchain.pem (a copy of cert.pem)
// Work files lie under /usr/opal/etc/ssl and have fixed names: the caller holds the recovery lock.
#pragma once

#include <string>

#include "mkcert/config_files.h"

namespace opalcrt
{

// What the default certificate is for.
inline constexpr char kDefaultName[] = "kestrel";

// Generates the set into the folder, which is made when it is missing; what stood there under these names is
// replaced, other files are left alone. 0 on success; -1, logged, otherwise.
//
// The files are made in place, and whether a folder is whole is told only by which files are there. So the
// old fullchain.pem goes, and that is synced, before anything that services receive is replaced, and it is
// made again last, after all else is synced; while it is being copied privkey.pem is called privkey.pem.held.
// A generation that failed or was cut off leaves a folder that lacks one of the two, and the next check
// generates again; except when the CA's key or request failed: then all that services receive is as it was.
int genDefaultCrtSet(const std::string &folder);

// The same with a subject and names of its own: `aliasText` as genCrt has it (mkcert/crt_creation.h).
int genNamedCrtSet(const std::string &folder, const std::string &commonName, const std::string &aliasText);

// Generates the CA, and removes fullchain.pem once the CA's request stands. 0, or the failed step's answer:
// -1, or 1 when certificate and key do not match.
int genCASet(const CsrSubject &subject, unsigned bits, const std::string &folder);

// Makes the CA's self-signed certificate from its request. 0 or -1.
int genCACrt(const std::string &caCrtPath, const std::string &caKeyPath);

// Generates key, certificate and chain of the server, signed by the CA that is in the folder. fullchain.pem
// must be gone (genCASet). 0 or -1.
int genCrtSet(const CsrSubject &subject, unsigned bits, const std::string &aliasText,
              const std::string &folder);

}  // namespace opalcrt
