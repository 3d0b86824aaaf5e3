// What one certificate of INFO and the services that have it look like on the disk.
#pragma once

#include <json/value.h>

#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "store/service.h"

namespace opalcrt {

// What is the same for all certificates of one look.
struct StoreFacts {
    time_t now = 0;
    int days = 30;
    std::string defaultId;
    std::map<ServiceName, int> listed;  // how often INFO lists the service
    // What SERVICES lists; nothing when it cannot be read.
    std::optional<std::set<ServiceName>> registered;
    std::set<std::string> folders;  // looked at until now
};

// Whether an element of a book names a service that can have a folder.
bool IsService(const Json::Value &element);

// The certificate's part of the report (admin/verbs.h). Without `not_after` where no certificate could be read.
Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts);

}  // namespace opalcrt
