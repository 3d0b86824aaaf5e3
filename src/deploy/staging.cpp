#include "deploy/staging.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "deploy/crt_files.h"
#include "deploy/dir_utils.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// What the files look like; all zero for one that is not there. The mark of a mend is the last one.
std::vector<struct stat> TakeSnapshot(const DeployPlan &plan, const std::string &cert_id)
{
    std::vector<std::string> paths;
    for (const DeployPlan::File &file : plan.files) {
        paths.push_back(GetCrtFolderPath(cert_id) + "/" + file.name);
    }
    paths.push_back(GetMendingMarkPath(cert_id));

    std::vector<struct stat> snapshot(paths.size());
    for (size_t index = 0; index < paths.size(); ++index) {
        if (stat(paths[index].c_str(), &snapshot[index]) != 0) {
            snapshot[index] = {};
        }
    }
    return snapshot;
}

bool CopyPlannedFile(const DeployPlan::File &file, const std::string &crtFolder, const std::string &staging,
                     uid_t uid, gid_t gid)
{
    const int exists = file.isOptional ? YLIBCFileExist((crtFolder + "/" + file.name).c_str()) : 1;
    return exists == 0 || CopyCrtFile(crtFolder, staging, file.name, uid, gid);
}

}  // namespace

bool CopyPlannedFiles(const DeployPlan &plan, const std::string &cert_id, const std::string &staging,
                      uid_t uid, gid_t gid)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause(20);

    const Clock::time_point end = Clock::now() + std::chrono::seconds(kRecoverLockSeconds);
    for (bool isAgain = false;; isAgain = true) {
        const std::vector<struct stat> before = TakeSnapshot(plan, cert_id);
        if (const bool isBeingMended = before.back().st_nlink != 0; !isBeingMended) {
            if (isAgain && !RecreateDirectory(staging, kServiceFolderMode)) {
                return false;
            }
            const bool isCopied =
                std::all_of(plan.files.begin(), plan.files.end(), [&](const DeployPlan::File &file) {
                    return CopyPlannedFile(file, GetCrtFolderPath(cert_id), staging, uid, gid);
                });
            // Half of an old certificate and half of a new one would not match.
            const std::vector<struct stat> after = TakeSnapshot(plan, cert_id);
            if (std::equal(before.begin(), before.end(), after.begin(), IsSameFile)) {
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
