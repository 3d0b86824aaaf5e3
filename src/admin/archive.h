// The archive's certificate folders and INFO, as the verbs change them.
//
// A folder is replaced in one step. What a kill leaves is the old folder or the new one, each whole, and a part of the
// other under the name that a new folder is made under, which the next run removes. Whoever replaces one holds the
// recovery lock: mends and the work files of a generation are kept apart by it.
#pragma once

#include <json/value.h>

#include <string>

#include "common/scoped_lock.h"

namespace opalcrt {

// The recovery lock; a refusal is told.
struct RecoverLock {
    RecoverLock();
    explicit operator bool() const { return lock.IsHeld(); }
    ScopedLock lock;
};

// The folder that a new one is made in: "." + id + ".new".
std::string GetNewFolderPath(const std::string &cert_id);

// Makes it anew, empty and for root alone. False, told.
bool MakeNewFolder(const std::string &cert_id);

// Removes what a run that was cut off, or could not end its work, has left there. False, told.
bool RemoveNewFolder(const std::string &cert_id);

// Exchanges it, whose files are on the disk, with the certificate's folder, or moves it there when there is none, and
// removes the old one. The exit status: after kRefused the archive is as it was; after kPartlyChanged the new folder
// stands, but may not survive a power cut, or the old one is not removed.
int ExchangeFolder(const std::string &cert_id);

// INFO as it is now. False, told, when it is no JSON object.
bool ReadInfo(Json::Value &info);

// Whether INFO lists the certificate and its folder is complete, as it is, without a mend. False, told.
bool IsUsableCrt(const std::string &cert_id, const Json::Value &info);

}  // namespace opalcrt
