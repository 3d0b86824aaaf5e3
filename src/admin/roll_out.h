// Giving services their certificates: the verbs `deploy` and `assign`, and the end of `install` and `renew`.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "admin/options.h"

namespace opalcrt {

using ServicesByCrt = std::map<std::string, Json::Value>;

// INFO's services by the certificate that each has: one that is listed several times has the first, in byte order of
// the ids, as the engine sees it too. What is no service is left out.
ServicesByCrt ListServices(const Json::Value &info);

// Gives the services what the archive holds of the certificate `cert_id`, or, when that is empty, of the one that each
// has, and runs their hooks; a line for each as it happens. Certificates that are not complete are refused, not mended.
// Prints the end of `report`, and answers the exit status.
int RollOut(const ServicesByCrt &services, const std::string &cert_id, Json::Value report, bool asJson);

// `opalcrt deploy`: RollOut of the services of one certificate, or, when the id is empty, of all.
int RollOutCrt(const std::string &cert_id, const Json::Value &report, bool asJson);

// `opalcrt assign`
int Assign(const Options &options);

}  // namespace opalcrt
