// The checksum report: which certificate is in use where.
#pragma once

#include <json/value.h>

namespace opalcrt {

// Appends to the array `report` one object for each service that INFO lists, certificates in the order of
// their ids: copies of the listed `service` and `subscriber`, whatever their type, and `checksum`, the
// SHA-256 of the certificate's DER encoding as 64 lower-case hexadecimal digits (its fingerprint). The
// certificate is the first one in the cert.pem of its archive folder. A certificate without services is not
// opened. Only reads, and takes no lock: INFO is always replaced as a whole. False, logged, at the first
// thing that is wrong; the report must not be used then.
bool ListCrtChecksums(Json::Value &report);

}  // namespace opalcrt
