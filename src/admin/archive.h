// The archive's certificate folders and INFO, as the verbs change them.
//
// A folder is replaced in one step. What a kill leaves is the old folder or the new one, each whole, and the other, or a
// part of it, under the name that a new folder is made under, "." + id + ".new". That is there until all services have
// what the archive has; the next run removes it. Whoever replaces one holds the recovery lock: mends and the work files
// of a generation are kept apart by it.
//
// Where a function tells of no failure, it throws one (admin/report.h).
#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>

#include "admin/verbs.h"
#include "common/scoped_lock.h"

namespace opalcrt {

// Takes the recovery lock. Failures end with `status`.
std::unique_ptr<ScopedLock> TakeRecoverLock(int status = kRefused);

// Whether there is a new folder, or the old one that was exchanged with it: not all is done, or a run is under way.
bool HasNewFolder(const std::string &cert_id);

// Removes it. Failures end with `status`.
void RemoveNewFolder(const std::string &cert_id, int status);

// Makes a new folder, for root alone, which `fill` puts the files into. Then
// exchanges it with the certificate's folder; or moves it there when there is none, and INFO lists the certificate
// then. After kRefused the archive's folder is as it was; after kPartlyChanged the new one stands, but may not survive a
// power cut, or INFO lists a new certificate that has no folder yet. The old folder stays, as above.
void ReplaceCrtFolder(const std::string &cert_id, const std::function<void(const std::string &folder)> &fill);

// INFO as it is now, a JSON object. A failure ends with `status`.
Json::Value ReadInfo(int status = kRefused);

// Writes INFO as `change` makes it under the info lock, unless nothing has changed. Failures end with `status`.
void ChangeInfo(int status, const std::function<void(Json::Value &info)> &change);

// Unless INFO lists the certificate, fails.
void RequireListed(const std::string &cert_id);

// Whether it has a folder that is complete, as it is, without a mend. False, told.
bool IsWhole(const std::string &cert_id);

// Unless INFO lists it and it is whole, fails.
void RequireUsable(const std::string &cert_id);

}  // namespace opalcrt
