// Service objects: the JSON object that names one service and goes through all books.
//   display_name        string    required   shown to users
//   display_name_i18n   string    optional
//   subscriber          string    required   the package or component that owns the service
//   service             string    required   its name within the subscriber
//   isPkg               boolean   required   true: a package's service
//   owner               string    required   user that owns the files of the service folder
//   user_setable, multiple_cert   boolean, optional, not checked here
// No required or present string may be empty. A service is identified by subscriber and service, byte for byte.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace opalcrt {

// Whether the service object is as above. Only a missing member is logged.
bool IsServiceObjValid(const Json::Value &serviceObj);

// Whether both names can become folders (store/names.h).
bool HasUsableNames(const Json::Value &serviceObj);

// What a service is known by. The views are into the object and have no data where the member is missing or no string.
struct ServiceName {
    std::string_view subscriber;
    std::string_view service;
    bool operator==(const ServiceName &) const = default;
    auto operator<=>(const ServiceName &) const = default;
    bool IsWhole() const { return subscriber.data() != nullptr && service.data() != nullptr; }
};

ServiceName NameOf(const Json::Value &serviceObj);

// Whether the service object is the subscriber's and, if the filter is not empty, is that service. False for
// anything malformed.
bool MatchService(const Json::Value &serviceObj, const std::string &subscriber, const std::string &filter);

}  // namespace opalcrt
