// What a service has of its certificate, compared with the archive's.
#pragma once

#include <json/value.h>
#include <openssl/x509.h>
#include <sys/types.h>

#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "admin/store_look.h"

namespace opalcrt {

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

// Adds what is wrong with the certificate's time: "FILE has ended", and the like.
void AddTimeFinding(const std::string &file, const X509 &crt, const StoreFacts &facts, Json::Value &findings);

// The service's part of the report (admin/status.h). `archive` is its certificate's folder, `typePrefixes` are the file
// name prefixes of the certificate's key types.
Json::Value LookAtService(const Json::Value &element, const ServiceId &id, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts);

}  // namespace opalcrt
