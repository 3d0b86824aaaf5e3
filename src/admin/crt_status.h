// What one certificate of INFO and the services that have it look like on the disk.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace opalcrt
{

// Subscriber and service.
using ServiceId = std::pair<std::string, std::string>;

// Nothing when the element of a book names no service that can have a folder.
std::optional<ServiceId> IdOfService(const Json::Value &element);

// What is the same for all certificates of one look.
struct StoreFacts {
    time_t now = 0;
    int days = 0;
    std::string defaultId;
    std::map<ServiceId, int> listed;                // how often INFO lists the service
    std::optional<std::set<ServiceId>> registered;  // what SERVICES lists; nothing when that says nothing now
    std::map<std::string, uid_t> owners;            // those asked for until now
    std::set<std::string> folders;                  // looked at until now
    bool isHindered = false;  // something may not be read: the answers are worth nothing
};

// The certificate's part of the report (admin/status.h).
Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts);

}  // namespace opalcrt
