// Puts a certificate of the archive into a service's folder.
//
// A service folder holds the certificate's files, mode 0400 and the service's owner, and `info`, a JSON
// object that tells the service where they lie:
//   subscriber, service   strings
//   certs                 array of objects with `cert`, `key` and `chain` (the full chain file), absolute paths
//                         in the service folder
// Single mode: cert.pem, privkey.pem, fullchain.pem, and chain.pem and opal-ca-cert.pem where the archive has
// them; one element in `certs`. Multiple mode: for each key type in the certificate's order its three
// prefixed files and one element. Nothing else is in the folder.
//
// The new folder is assembled beside the old one, path + ".temp", synced, and moved into place whole (MoveDirectory;
// docs/on-disk.md). Both run under the service lock (exclusive, 60 s), which they take themselves. All files are of
// one generation of the certificate (deploy/staging.h). False, logged, with the service folder as it was, but for what
// MoveDirectory says; the staging folder is removed.
//
// Only root may be able to write the certificate root and the subscriber's folder: who can exchange the
// staging folder for a link while it is filled has root write elsewhere.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

// Multiple mode when the service object's `multiple_cert` is true and the certificate lists key types, else
// single mode. `cert_id` names a folder of the archive; the service object is valid (IsServiceObjValid) and
// its names are usable (store/names.h). Done again when that failed and the key types are other ones now: a certificate
// with others has taken its place (opalcrt install), and nobody may fail because of that.
bool DeployServiceCrt(const std::string &cert_id, const Json::Value &serviceObj);

bool DeploySingleCrt(const std::string &cert_id, const Json::Value &serviceObj);

// Fails when the certificate lists no key type.
bool DeployMultipleCrt(const std::string &cert_id, const Json::Value &serviceObj);

}  // namespace opalcrt
