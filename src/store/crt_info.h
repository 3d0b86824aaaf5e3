// INFO, the book that says which services use which certificate: a JSON object with one member per
// certificate id, each an object whose `services` is an array of service objects
// (store/service.h). Members that are not used here are written back as they were read, but for numbers beyond 64
// bits, which become floating point.
#pragma once

#include <json/value.h>

#include <string>

namespace opalcrt {

constexpr int kInfoLockSeconds = 30;

// Looks up which certificate INFO gives the service. True when that could be done: `cert_id` is then the first
// id, in byte order, that lists the service, or is left as it was when none does. False, logged, when the
// object is invalid, the info lock cannot be had (shared, 30 s) or INFO is missing or broken.
// Takes and releases the info lock itself: the caller must not hold it.
bool GetServiceCrtId(const Json::Value &serviceObj, std::string &cert_id);

// Removes the service and every malformed element from the array `services`, and appends the service object, which may
// be one of its elements, at its end unless `removeOnly` is set.
void UpdateServiceList(Json::Value &services, const Json::Value &serviceObj, bool removeOnly);

// INFO as it is on the disk now, parsed anew only when it was replaced since the last reading. Null, with the platform
// error state and errno set, when it is missing or no JSON. The value may be no object. It is good until INFO is
// read, taken or written again.
const Json::Value *ReadCrtInfo();

// The same to be changed: `info` is the caller's, and the next reading parses the file unless WriteCrtInfo gets it
// back. False, `info` null, as ReadCrtInfo fails.
bool TakeCrtInfo(Json::Value &info);

// Replaces INFO by `info` in one step, through INFO.temp: readers see the old file or the new one.
// The caller holds the info lock exclusively from its read of INFO until this returns.
// False, logged, with INFO untouched when INFO.temp cannot be written or renamed (a written INFO.temp then
// stays); when only the sync of the folder fails after the rename, the new INFO stands although false is
// answered.
bool WriteCrtInfo(Json::Value info);

}  // namespace opalcrt
