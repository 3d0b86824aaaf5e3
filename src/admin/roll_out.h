// Giving services their certificates.
#pragma once

#include <json/value.h>

#include <map>
#include <string>

#include "admin/verbs.h"

namespace opalcrt {

using ServicesByCrt = std::map<std::string, Json::Value>;

// INFO's services by the certificate that each has: one that is listed several times has the first, in byte order of
// the ids, as the engine sees it too. What is no service is left out.
ServicesByCrt ListServices(const Json::Value &info);

// Gives the services what the archive holds of the certificate `cert_id`, or, when that is empty, of the one that each
// has, and runs their hooks; a line for each as it happens. Certificates that are not complete are refused, not mended.
// Adds them to `report`, and answers the exit status.
int RollOut(const ServicesByCrt &services, const std::string &cert_id, const Options &options,
            Json::Value &report);

// RollOut of the services of one certificate, or, when no id is given, of all.
int RollOutCrt(const Options &options, Json::Value &report);

}  // namespace opalcrt
