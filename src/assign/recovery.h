// Certificates of the archive that have lost files, and how they are mended.
//
// A mend works in place, file by file, under the mark .mending (store/paths.h; its steps: docs/on-disk.md). While the
// mark is there the folder is not complete, whatever it holds: who meets it waits for the mend under way, and makes one
// that was cut off again.
#pragma once

#include <string>

namespace opalcrt {

// Whether the certificate can be used: INFO has an entry for it and its folder is complete, already or after
// it was mended. False, logged, otherwise. INFO is read without the info lock (it is replaced by renaming)
// and never changed. Takes the recovery lock (exclusive, 30 s) for a mend; the caller may hold no lock. A folder or
// file that cannot be looked at (EIO, EACCES, ENOMEM) is not a missing one: nothing is generated then, since that
// would replace a key which may be good.
bool CheckAndRecoverCrt(const std::string &cert_id);

// Whether the folder is a real one without the mark and holds cert.pem, privkey.pem and fullchain.pem, and for each
// key type of the certificate the three prefixed files. Only existence is tested. When the answer is false, logged,
// errno is 0 or that of a missing file (IsMissing); any other says why something could not be looked at.
bool IsCrtComplete(const std::string &cert_id, const std::string &folder);

// Generates a new self-signed set into the folder under the recovery lock (exclusive, 30 s), marks it in
// `cert_info` ({"is_broken": true}, replacing what that file held) and sends the notification
// "certificate_broken", whose failure does not count. What was generated before a failure stays; the mark does, too,
// unless the folder lacks one of its three plain files even so. When only cert_info could not be written, the
// certificate is complete although false is answered.
// Files of key types are not generated: a certificate that lacks one of those is mended at every check.
bool RecoverCrt(const std::string &cert_id, const std::string &folder);

}  // namespace opalcrt
