// Looking at certificates and services without a trace: no lock, no log line, nothing written. What the engine asks of
// the same files it asks with log lines, and mends.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <set>
#include <string>

#include "store/service.h"

namespace opalcrt {

// What is the same for all certificates of one look.
struct StoreFacts {
    int days = 30;
    std::map<ServiceName, int> listed;  // how often INFO lists the service
    // What SERVICES lists; nothing when it cannot be read.
    std::optional<std::set<ServiceName>> registered;
    std::set<std::string> folders;  // looked at until now
};

// The part of the report (admin/verbs.h) for one certificate and the services that have it. Where no certificate could
// be read it has no `not_after` and the like.
Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &services, StoreFacts &facts);

}  // namespace opalcrt
