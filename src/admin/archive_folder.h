// Certificate folders of the archive, replaced in one step.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace opalcrt
{

// How long the recovery lock is waited for.
constexpr int kRecoverLockSeconds = 30;

// The folder in which a certificate is made before it takes its place.
std::string GetNewFolderPath(const std::string &cert_id);

// Makes that folder anew, empty and for root alone. False, told.
bool MakeNewFolder(const std::string &cert_id);

// Exchanges it, synced, with the certificate's folder, or moves it there when there is none, and removes the old one.
// False, told, with the archive as it was. The caller holds the recovery lock.
bool ExchangeFolder(const std::string &cert_id);

// All three: the files are names and contents.
bool PutIntoArchive(const std::string &cert_id,
                    const std::vector<std::pair<std::string, std::string>> &files);

// Gives INFO an entry without services for the certificate. Takes the info lock. False, told.
bool AddToInfo(const std::string &cert_id);

}  // namespace opalcrt
