#include "deploy/staging.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "deploy/crt_files.h"
#include "deploy/dir_utils.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// What one of the certificate's files looked like, or with which errno it was missing.
struct SourceFile {
    int error = 0;
    struct stat status = {};

    explicit SourceFile(const std::string &path)
    {
        if (stat(path.c_str(), &status) != 0) {
            error = errno;
        }
    }
    bool operator==(const SourceFile &other) const
    {
        return error == other.error && IsSameFile(status, other.status);
    }
};

using Snapshot = std::vector<SourceFile>;

// The mark of a mend is the last one.
Snapshot TakeSnapshot(const DeployPlan &plan, const std::string &cert_id)
{
    Snapshot snapshot;
    for (const DeployPlan::File &file : plan.files) {
        snapshot.emplace_back(GetCrtFolderPath(cert_id) + "/" + file.name);
    }
    snapshot.emplace_back(GetMendingMarkPath(cert_id));
    return snapshot;
}

bool IsBeingMended(const Snapshot &snapshot) { return snapshot.back().error == 0; }

bool CopyPlannedFile(const DeployPlan::File &file, const std::string &crtFolder, const std::string &staging,
                     uid_t uid, gid_t gid)
{
    const int exists = file.isOptional ? YLIBCFileExist((crtFolder + "/" + file.name).c_str()) : 1;
    return exists == 0 || (exists == 1 && CopyCrtFile(crtFolder, staging, file.name, uid, gid));
}

}  // namespace

bool CopyPlannedFiles(const DeployPlan &plan, const std::string &cert_id, const std::string &staging,
                      uid_t uid, gid_t gid)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause(20);

    const Clock::time_point end = Clock::now() + std::chrono::seconds(kRecoverLockSeconds);
    for (bool isAgain = false;; isAgain = true) {
        const Snapshot before = TakeSnapshot(plan, cert_id);
        if (!IsBeingMended(before)) {
            if (isAgain && !RecreateDirectory(staging, kServiceFolderMode)) {
                return false;
            }
            const bool isCopied =
                std::all_of(plan.files.begin(), plan.files.end(), [&](const DeployPlan::File &file) {
                    return CopyPlannedFile(file, GetCrtFolderPath(cert_id), staging, uid, gid);
                });
            // Half of an old certificate and half of a new one would not match.
            if (before == TakeSnapshot(plan, cert_id)) {
                return isCopied;
            }
        }
        if (Clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace opalcrt
