// The archive's certificate folders and INFO, as the verbs change them, and what they do for the services.
//
// A folder is replaced in one step. What a kill leaves is the old folder or the new one, each whole, and a part of the
// other under the name that a new folder is made under, "." + id + ".new", which the next run removes. Whoever replaces
// one holds the recovery lock: mends and the work files of a generation are kept apart by it.
#pragma once

#include <json/value.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "admin/verbs.h"
#include "common/scoped_lock.h"

namespace opalcrt {

// Takes the recovery lock. False, told.
bool TakeRecoverLock(std::optional<ScopedLock> &lock);

// Removes what a run that was cut off, or could not end its work, has left of a new folder. False, told.
bool RemoveNewFolder(const std::string &cert_id);

// Makes a new folder, for root alone, which `fill` puts the files into; they are on the disk when it answers true, and
// it has told why when not. Then exchanges it with the certificate's folder, or moves it there when there is none, and
// removes the old one. The exit status: after kRefused the archive is as it was; after kPartlyChanged the new folder
// stands, but may not survive a power cut, or the old one is not removed.
int ReplaceCrtFolder(const std::string &cert_id, const std::function<bool(const std::string &folder)> &fill);

// INFO as it is now. False, told, when it is no JSON object.
bool ReadInfo(Json::Value &info);

// Writes INFO as `change` has made it under the info lock, unless that answers that it left it as it was. False, told.
bool ChangeInfo(const std::function<bool(Json::Value &info)> &change);

// Whether INFO lists the certificate. False, told.
bool IsListedCrt(const std::string &cert_id, const Json::Value &info);

// Whether it also has a folder that is complete, as it is, without a mend. False, told.
bool IsUsableCrt(const std::string &cert_id, const Json::Value &info);

using ServicesByCrt = std::map<std::string, Json::Value>;

// Those of INFO's services that are meant, by the certificate that each has: one that is listed several times has the
// first, in byte order of the ids, as the engine sees it too. What is no service is left out.
ServicesByCrt ListServices(
    const Json::Value &info,
    const std::function<bool(const std::string &cert_id, const Json::Value &service)> &isMeant);

// Gives the services what the archive holds of the certificate `cert_id`, or, when that is empty, of the one that each
// has, and runs their hooks; a line for each as it happens. Certificates that are not complete are refused, not mended.
// Adds them to `report`, and answers the exit status.
int RollOut(const ServicesByCrt &services, const std::string &cert_id, const Json::Value &info,
            const Options &options, Json::Value &report);

}  // namespace opalcrt
