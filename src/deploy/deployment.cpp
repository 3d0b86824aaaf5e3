#include "deploy/deployment.h"

#include <cerrno>
#include <vector>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "deploy/staging.h"
#include "platform/file_test.h"
#include "platform/users.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

constexpr int kServiceLockSeconds = 60;

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
bool StageAndMove(const DeployPlan &plan, const Json::Value &serviceObj, const std::string &cert_id,
                  const std::string &serviceFolder, const std::string &staging, uid_t uid, gid_t gid)
{
    if (!RecreateDirectory(staging, kServiceFolderMode)) {
        return LOG_ERROR("Failed to clean %s", staging.c_str());
    }
    if (!CopyPlannedFiles(plan, cert_id, staging, uid, gid)) {
        return LOG_ERROR("Failed to copy cert files from %s to %s", GetCrtFolderPath(cert_id).c_str(),
                         staging.c_str());
    }
    // Syncs the staging folder too, and with it the names of the files copied before.
    if (!toFile(staging + "/info", MakeInfo(plan, serviceObj, serviceFolder))) {
        return LOG_ERROR("Failed to write info to service certificate folder [%d]", errno);
    }
    if (!MoveDirectory(staging, serviceFolder)) {
        return LOG_ERROR("Failed to move %s to %s", staging.c_str(), serviceFolder.c_str());
    }
    return true;
}

bool DeployCrt(const std::string &cert_id, const Json::Value &serviceObj, const DeployPlan &plan)
{
    const std::string crtFolder = GetCrtFolderPath(cert_id);
    const std::string owner = GetString(serviceObj, "owner");
    const std::string subscriber = GetString(serviceObj, "subscriber");
    const std::string service = GetString(serviceObj, "service");
    const std::string serviceFolder = GetServiceFolderPath(GetBool(serviceObj, "isPkg"), subscriber, service);
    const std::string lockPath = GetServiceLockPath(subscriber, service);
    const std::string staging = serviceFolder + kStagingSuffix;

    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    if (OPALUserGetUGID(owner, &uid, &gid) < 0) {
        return LOG_ERROR_STATE("Failed to OPALUserGetUGID [%s].", owner.c_str());
    }
    if (YLIBCFileCheckDir(crtFolder.c_str()) != 1) {
        return LOG_ERROR_STATE("[%s] doesn't exist.", crtFolder.c_str());
    }

    const ScopedLock lock(lockPath.c_str(), kLockExclusive, kServiceLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return LOG_ERROR("Failed to lock [%s]", lockPath.c_str());
    }

    if (!StageAndMove(plan, serviceObj, cert_id, serviceFolder, staging, uid, gid)) {
        if (!RemovePath(staging)) {
            LOG_ERROR("Failed to remove %s", staging.c_str());
        }
        return false;
    }
    return true;
}

}  // namespace

bool DeployServiceCrt(const std::string &cert_id, const Json::Value &serviceObj)
{
    if (!GetBool(serviceObj, "multiple_cert")) {
        return DeploySingleCrt(cert_id, serviceObj);
    }
    for (;;) {
        const std::vector<KeyType> types = GetCrtKeyTypes(cert_id);
        const bool isDone =
            types.empty() ? DeploySingleCrt(cert_id, serviceObj) : DeployMultipleCrt(cert_id, serviceObj);
        // A certificate with other key types may have taken its place meanwhile.
        if (isDone || types == GetCrtKeyTypes(cert_id)) {
            return isDone;
        }
    }
}

bool DeploySingleCrt(const std::string &cert_id, const Json::Value &serviceObj)
{
    const DeployPlan plan = {
        {{"cert.pem"}, {"privkey.pem"}, {"fullchain.pem"}, {"chain.pem", true}, {"opal-ca-cert.pem", true}},
        {""},
    };
    return DeployCrt(cert_id, serviceObj, plan);
}

bool DeployMultipleCrt(const std::string &cert_id, const Json::Value &serviceObj)
{
    const std::vector<KeyType> types = GetCrtKeyTypes(cert_id);
    if (types.empty()) {
        return LOG_ERROR("Empty key types, Failed to setup multiple mode");
    }

    DeployPlan plan;
    for (const KeyType type : types) {
        const std::string prefix = KeyTypePrefix(type);
        for (const char *name : kKeyTypeFiles) {
            plan.files.push_back({prefix + name});
        }
        plan.prefixes.push_back(prefix);
    }
    return DeployCrt(cert_id, serviceObj, plan);
}

}  // namespace opalcrt
