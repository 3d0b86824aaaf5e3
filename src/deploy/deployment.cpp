#include "deploy/deployment.h"

#include <cerrno>
#include <vector>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/crt_files.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "deploy/source_snapshot.h"
#include "platform/file_test.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kUtils;
constexpr int kServiceLockSeconds = 60;
constexpr mode_t kServiceFolderMode = 0755;

// All in which the two modes differ: the files, in the order of copying, and the file name prefixes of the
// elements of `certs`.
struct DeployPlan {
    struct File {
        std::string name;
        bool isOptional = false;
    };
    std::vector<File> files;
    std::vector<std::string> prefixes;
};

struct Owner {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
};

// Copies one file of the plan; an optional one that is not there is no failure, one that cannot be looked at
// is.
bool CopyPlannedFile(const DeployPlan::File &file, const std::string &crtFolder, const std::string &staging,
                     const Owner &owner)
{
    if (file.isOptional) {
        const int exists = YLIBCFileExist((crtFolder + "/" + file.name).c_str());
        if (exists <= 0) {
            return exists == 0;
        }
    }
    return CopyCrtFile(crtFolder, staging, file.name, owner.uid, owner.gid);
}

bool CopyPlannedFiles(const DeployPlan &plan, const std::string &crtFolder, const std::string &staging,
                      const Owner &owner)
{
    std::vector<std::string> names;
    for (const DeployPlan::File &file : plan.files) {
        names.push_back(file.name);
    }
    const SourceSnapshot before = TakeSnapshot(crtFolder, names);
    for (const DeployPlan::File &file : plan.files) {
        if (!CopyPlannedFile(file, crtFolder, staging, owner)) {
            return false;
        }
    }
    // Another process may have mended or renewed the certificate meanwhile: half of each would not match.
    return IsUnchanged(before, TakeSnapshot(crtFolder, names));
}

Json::Value MakeInfo(const DeployPlan &plan, const Json::Value &serviceObj, const std::string &serviceFolder)
{
    Json::Value certs(Json::arrayValue);
    for (const std::string &prefix : plan.prefixes) {
        Json::Value element(Json::objectValue);
        element["cert"] = serviceFolder + "/" + prefix + "cert.pem";
        element["key"] = serviceFolder + "/" + prefix + "privkey.pem";
        element["chain"] = serviceFolder + "/" + prefix + "fullchain.pem";
        certs.append(element);
    }
    Json::Value info(Json::objectValue);
    info["subscriber"] = GetString(serviceObj, "subscriber");
    info["service"] = GetString(serviceObj, "service");
    info["certs"] = certs;
    return info;
}

// From the empty staging folder to the moved one.
bool StageAndMove(const DeployPlan &plan, const Json::Value &serviceObj, const std::string &crtFolder,
                  const std::string &serviceFolder, const std::string &staging, const Owner &owner)
{
    if (!RecreateDirectory(staging, kServiceFolderMode)) {
        LOG_ERROR("Failed to clean %s", staging.c_str());
        return false;
    }
    if (!CopyPlannedFiles(plan, crtFolder, staging, owner)) {
        LOG_ERROR("Failed to copy cert files from %s to %s", crtFolder.c_str(), staging.c_str());
        return false;
    }
    // Syncs the staging folder too, and with it the names of the files copied before.
    if (!toFile(staging + "/info", MakeInfo(plan, serviceObj, serviceFolder))) {
        LOG_ERROR("Failed to write info to service certificate folder [%d]", errno);
        return false;
    }
    if (!MoveDirectory(staging, serviceFolder)) {
        LOG_ERROR("Failed to move %s to %s", staging.c_str(), serviceFolder.c_str());
        return false;
    }
    return true;
}

bool DeployCrt(const std::string &certId, const Json::Value &serviceObj, const DeployPlan &plan)
{
    const std::string crtFolder = GetCrtFolderPath(certId);
    const std::string ownerName = GetString(serviceObj, "owner");
    const std::string subscriber = GetString(serviceObj, "subscriber");
    const std::string service = GetString(serviceObj, "service");
    const std::string serviceFolder = GetServiceFolderPath(GetBool(serviceObj, "isPkg"), subscriber, service);
    const std::string lockPath = GetServiceLockPath(subscriber, service);
    const std::string staging = serviceFolder + kStagingSuffix;

    Owner owner;
    if (OPALUserGetUGID(ownerName, &owner.uid, &owner.gid) < 0) {
        LOG_ERROR_STATE("Failed to OPALUserGetUGID [%s].", ownerName.c_str());
        return false;
    }
    if (YLIBCFileCheckDir(crtFolder.c_str()) != 1) {
        LOG_ERROR_STATE("[%s] doesn't exist.", crtFolder.c_str());
        return false;
    }

    const ScopedLock lock(lockPath.c_str(), kLockExclusive, kServiceLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        LOG_ERROR("Failed to lock [%s]", lockPath.c_str());
        return false;
    }

    if (!StageAndMove(plan, serviceObj, crtFolder, serviceFolder, staging, owner)) {
        if (!RemovePath(staging)) {
            LOG_ERROR("Failed to remove %s", staging.c_str());
        }
        return false;
    }
    return true;
}

}  // namespace

bool DeployServiceCrt(const std::string &certId, const Json::Value &serviceObj)
{
    if (GetBool(serviceObj, "multiple_cert") && HasCrtKeyTypes(certId)) {
        return DeployMultipleCrt(certId, serviceObj);
    }
    return DeploySingleCrt(certId, serviceObj);
}

bool DeploySingleCrt(const std::string &certId, const Json::Value &serviceObj)
{
    const DeployPlan plan = {
        {{"cert.pem"}, {"privkey.pem"}, {"fullchain.pem"}, {"chain.pem", true}, {"opal-ca-cert.pem", true}},
        {""},
    };
    return DeployCrt(certId, serviceObj, plan);
}

bool DeployMultipleCrt(const std::string &certId, const Json::Value &serviceObj)
{
    const std::vector<KeyType> types = GetCrtKeyTypes(certId);
    if (types.empty()) {
        LOG_ERROR("Empty key types, Failed to setup multiple mode");
        return false;
    }

    DeployPlan plan;
    for (const KeyType type : types) {
        const std::string prefix = KeyTypePrefix(type);
        for (const char *name : {"cert.pem", "fullchain.pem", "privkey.pem"}) {
            plan.files.push_back({prefix + name});
        }
        plan.prefixes.push_back(prefix);
    }
    return DeployCrt(certId, serviceObj, plan);
}

}  // namespace opalcrt
