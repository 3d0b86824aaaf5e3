// Certificate folders of the archive, replaced in one step. What a kill leaves is the old folder or the new one, each
// whole, and a part of the other one under the name that a new folder is made under, which the next run removes.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace opalcrt {

// Tells that it could not be had. False, always.
bool RefuseLock();

// The folder that a new one is made in: "." + id + ".new".
std::string GetNewFolderPath(const std::string &cert_id);

// Makes it anew, empty and for root alone. False, told.
bool MakeNewFolder(const std::string &cert_id);

// Exchanges it, whose files are on the disk, with the certificate's folder, or moves it there when there is none, and
// removes the old one. False, told, with the archive as it was.
bool ExchangeFolder(const std::string &cert_id);

// All of it, with files of these names and contents.
bool PutIntoArchive(const std::string &cert_id,
                    const std::vector<std::pair<std::string, std::string>> &files);

// Gives INFO an entry without services for the certificate. Takes the info lock. False, told.
bool AddToInfo(const std::string &cert_id);

}  // namespace opalcrt
