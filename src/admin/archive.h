// The archive's certificate folders and INFO, as the verbs change them.
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

// Whether there is a new folder, or the old one that was exchanged with it: not all is done, or a run is under way.
bool HasNewFolder(const std::string &cert_id);

// Removes what a run that was cut off, or could not end its work, has left of a new folder. False, told.
bool RemoveNewFolder(const std::string &cert_id);

// Makes a new folder, for root alone, which `fill` puts the files into; they are on the disk when it answers true, and
// it has told why when not. Then exchanges it with the certificate's folder, or moves it there when there is none, and
// removes the old one. The exit status: after kRefused the archive is as it was; after kPartlyChanged the new folder
// stands, but may not survive a power cut, or the old one is not removed. With `keepsOld` that is left to the caller: as
// long as it is there, it tells the next run that the services have not all got what they are to get.
int ReplaceCrtFolder(const std::string &cert_id, const std::function<bool(const std::string &folder)> &fill,
                     bool keepsOld = false);

// Names and contents of a new folder's files.
using CrtFiles = std::map<std::string, std::string>;

// Reads and checks the files that an administrator has given, and makes the new ones of them. All that is wrong goes into
// `findings`, not the first thing only; when something critical is among them, the files are worth nothing.
CrtFiles PlanInstall(const Options &options, Json::Value &findings);

// INFO as it is now. False, told, when it is no JSON object.
bool ReadInfo(Json::Value &info);

// Writes INFO as `change` has made it under the info lock, unless that answers that it left it as it was. False, told.
bool ChangeInfo(const std::function<bool(Json::Value &info)> &change);

// Whether INFO lists the certificate. False, told.
bool IsListedCrt(const std::string &cert_id, const Json::Value &info);

// Whether it also has a folder that is complete, as it is, without a mend. False, told.
bool IsUsableCrt(const std::string &cert_id, const Json::Value &info);

}  // namespace opalcrt
