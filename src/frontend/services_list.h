// SERVICES, the list of registered services: a JSON array of service objects, each service once, in the order
// of their first registration. It must exist; no command makes it.
//
// Both changes take the services lock (exclusive, 60 s) from the reading to the writing. False, logged, with
// the list untouched, when the lock cannot be had, the list is missing or broken, or cannot be written (but
// see ReplaceFile in platform/atomic_file.h for a failed sync of the folder).
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

// Puts each of the service objects in the place of the listed one with the same subscriber and service, or at
// the end.
bool AppendRegisterServices(const Json::Value &services);

// Removes what MatchService (store/service.h) finds.
bool RemoveRegisterServices(const std::string &subscriber, const std::string &filter);

}  // namespace opalcrt
