// What one certificate of INFO and the services that have it look like on the disk.
#pragma once

#include <json/value.h>

#include <string>

#include "admin/service_status.h"

namespace opalcrt {

// The certificate's part of the report (admin/status.h).
Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts);

}  // namespace opalcrt
