// Which files a deployment copies, and the copying of all of them from one generation of the certificate.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace opalcrt {

// All in which the two modes of deployment differ: the files, in the order of copying, and the file name prefixes of
// the elements of `certs`.
struct DeployPlan {
    struct File {
        std::string name;
        bool isOptional = false;
    };
    std::vector<File> files;
    std::vector<std::string> prefixes;
};

// Copies the plan's files (CopyCrtFile) from the certificate's folder into the empty staging folder. An optional
// file that is not there is no failure, one that cannot be looked at is. A certificate that changes meanwhile, or
// is being mended, is copied again once it stands still, into a staging folder made anew, for at most as long as
// a mend is waited for. False, logged, when that was not to be had; the staging folder then holds some of the files.
bool CopyPlannedFiles(const DeployPlan &plan, const std::string &cert_id, const std::string &staging,
                      uid_t uid, gid_t gid);

// Of the service's folder and its staging folder.
inline constexpr mode_t kServiceFolderMode = 0755;

}  // namespace opalcrt
