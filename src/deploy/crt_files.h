// Single files and folders of certificates.
#pragma once

#include <sys/types.h>

#include <string>

namespace opalcrt {

// Copies sourceFolder/name to destinationFolder/name with /bin/cp; the copy has mode 0400, this owner, and is
// on the disk when this returns. A private key is never readable by others on the way, whatever mode the
// source has (ExecPrivately). False, logged, otherwise, also when the source is no regular file or the copy
// shorter than it; what cp has written stays.
bool CopyCrtFile(const std::string &sourceFolder, const std::string &destinationFolder,
                 const std::string &name, uid_t uid, gid_t gid);

// Whether the path resolves to itself (IsCanonicalPath) and is a folder. Logged only when it does not resolve
// to itself. errno says why not: 0 when it resolves to something else, otherwise that of realpath(3) or stat(2),
// ENOTDIR when it is no folder.
bool CheckRealDirectory(const std::string &path);

}  // namespace opalcrt
