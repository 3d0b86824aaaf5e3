// Certificates of the archive that have lost files, and how they are mended.
#pragma once

#include <string>

namespace opalcrt
{

// Whether the certificate can be used: INFO has an entry for it and its folder is complete, already or after
// it was mended. False, logged, otherwise. INFO is read without the info lock (it is replaced by renaming)
// and never changed. Takes the recovery lock for a mend; the caller may hold no lock. A folder or file that
// cannot be looked at (EIO, EACCES, ENOMEM) is not a missing one: nothing is generated then, since that would
// replace a key which may be good.
bool CheckAndRecoverCrt(const std::string &certId);

// Whether the folder is a real one and holds cert.pem, privkey.pem and fullchain.pem, and for each key type
// of the certificate the three prefixed files. Only existence is tested. `isUnknown` is set when the answer
// is false only because something could not be looked at.
bool IsCrtComplete(const std::string &certId, const std::string &folder, bool &isUnknown);

// Generates a new self-signed set into the folder under the recovery lock (exclusive, 30 s), marks it in
// `cert_info` ({"is_broken": true}, replacing what that file held) and sends the notification
// "certificate_broken", whose failure does not count. What was generated before a failure stays. From before the
// generation until the notification the note kRecoveryNotePath, {"cert_id": ...}, says what is under way: a run that
// is killed leaves it, and the next check of any certificate marks and announces that one if its folder is complete.
// A note that cannot be written is logged and done without.
// Files of key types are not generated: a certificate that lacks one of those is mended at every check.
bool RecoverCrt(const std::string &certId, const std::string &folder);

}  // namespace opalcrt
