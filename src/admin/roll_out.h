// Giving services their certificates: the verbs `deploy` and `assign`, and the end of `install` and `renew`.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

namespace opalcrt {

// INFO's services by the certificate that each has: one that is listed several times has the first, in byte order of
// the ids, as the engine sees it too. What is no service is left out.
std::map<std::string, Json::Value> ListServices(const Json::Value &info);

// Gives the services, by the certificate that INFO gives them, what the archive holds of it, and runs their hooks; a
// line for each as it happens. Certificates that are not complete are refused, not mended. Prints the end of `report`,
// and answers the exit status.
int RollOut(const std::map<std::string, Json::Value> &services, Json::Value report, bool asJson);

// RollOut of the services of one certificate, or, when the id is empty, of all.
int RollOutCrt(const std::string &cert_id, Json::Value report, bool asJson);

// Gives listed services of the subscriber (`service` may be empty: all of them) another certificate. The exit status.
int Assign(const std::string &cert_id, const std::string &subscriber, const std::string &service,
           bool asJson);

}  // namespace opalcrt
