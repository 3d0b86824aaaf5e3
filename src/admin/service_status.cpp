#include "admin/service_status.h"

#include <openssl/x509.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "admin/certificate.h"
#include "admin/message.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A deployment is over within the time that it waits for its lock.
constexpr time_t kDeploymentSeconds = 60;

void LookAtKeyOwner(const FileLook &key, const std::string &name, const std::string &owner, StoreFacts &facts,
                    Json::Value &findings)
{
    const auto [known, isNew] = facts.owners.try_emplace(owner, static_cast<uid_t>(-1));
    if (isNew) {
        (void)OPALUserGetUGID(owner, &known->second, nullptr);
    }
    char found[64];
    snprintf(found, sizeof(found), "mode %04o and user %u", key.info.st_mode & 07777, key.info.st_uid);
    if ((key.info.st_mode & 0377) != 0 || key.info.st_uid != known->second) {
        AddFinding(findings, "copy-exposed", name + " has " + found + " instead of 0400 and " + owner);
    }
}

// What a deployment puts there and cannot be read: "a, b".
std::string ListLostFiles(const std::string &path, FolderLook &copy, const std::vector<std::string> &names)
{
    if (copy.error != 0) {
        return path + ": " + strerror(copy.error);
    }
    std::vector<std::string> lost;
    for (const std::string &name : names) {
        if (const int error = FileIn(copy, name).error; error != 0) {
            lost.push_back(name + ": " + strerror(error));
        }
    }
    if (!IsIn(copy.fd.Get(), "info")) {
        lost.emplace_back("info, which names the others");
    }
    return Join(lost);
}

// Compares the service's folder with the archive's; a file is only parsed where they differ. Answers the state.
std::string LookAtCopy(const std::string &path, FolderLook &archive, const std::vector<std::string> &prefixes,
                       const std::string &owner, StoreFacts &facts, Json::Value &findings)
{
    FolderLook copy = LookAtFolder(path);
    std::vector<std::string> names;
    for (const std::string &prefix : prefixes) {
        names.insert(names.end(), {prefix + "cert.pem", prefix + "privkey.pem", prefix + "fullchain.pem"});
    }
    const std::string lost = ListLostFiles(path, copy, names);
    facts.isHindered |= copy.isHindered;
    if (!lost.empty()) {
        AddFinding(findings, "copy-missing", lost);
        return "copy-missing";
    }

    if (prefixes.front().empty()) {
        names.insert(names.end(), {"chain.pem", "opal-ca-cert.pem"});
    }
    std::vector<std::string> differing;
    for (const std::string &name : names) {
        if (FileIn(copy, name).error != FileIn(archive, name).error ||
            FileIn(copy, name).text != FileIn(archive, name).text) {
            differing.push_back(name);
        }
    }
    std::string state = differing.empty() ? "current" : "old-copy";
    for (const std::string &prefix : prefixes) {
        const FileLook &keyFile = FileIn(copy, prefix + "privkey.pem");
        LookAtKeyOwner(keyFile, prefix + "privkey.pem", owner, facts, findings);
        if (differing.empty()) {
            continue;
        }
        const UniqueOpenSSL<X509> crt = FirstCrt(FileIn(copy, prefix + "cert.pem").text);
        const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
        if (crt == nullptr || key == nullptr || !IsKeyOf(*key, *crt)) {
            AddFinding(findings, "copy-mismatch",
                       prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
        } else {
            AddTimeFinding("the service's " + prefix + "cert.pem", *crt, facts, findings);
        }
    }
    for (const Json::Value &finding : findings) {
        state = finding["code"].asString().starts_with("copy-") ? finding["code"].asString() : state;
    }
    if (!differing.empty()) {
        AddFinding(findings, "old-copy", "differs from the archive: " + Join(differing));
    }
    return state;
}

// The file name prefixes of what the copy's `info` tells the service to use.
std::vector<std::string> ListUsedPrefixes(const std::string &path)
{
    constexpr std::string_view kName = "cert.pem";
    Json::Value info;
    std::vector<std::string> prefixes;
    (void)fromFile(path + "/info", info);
    for (const Json::Value &element : GetMember(info, "certs")) {
        const std::string crt = GetString(element, "cert");
        if (crt.starts_with(path + "/") && crt.ends_with(kName)) {
            prefixes.push_back(crt.substr(path.size() + 1, crt.size() - path.size() - 1 - kName.size()));
        }
    }
    return prefixes;
}

// A deployment removes the old folder before it moves the new one, which stands beside it, into place.
bool IsBeingReplaced(const std::string &path, time_t now)
{
    for (const char *suffix : {kStagingSuffix, kBackupSuffix}) {
        struct stat info = {};
        if (stat((path + suffix).c_str(), &info) == 0 && now - info.st_ctime < kDeploymentSeconds) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<ServiceId> IdOfService(const Json::Value &element)
{
    ServiceId id(GetString(element, "subscriber"), GetString(element, "service"));
    const bool isUsable = IsUsableSubscriber(id.first) && IsUsableService(id.first, id.second);
    return isUsable ? std::optional(id) : std::nullopt;
}

void AddTimeFinding(const std::string &file, const X509 &crt, const StoreFacts &facts, Json::Value &findings)
{
    const CrtFacts times = DescribeCrt(crt);
    if (times.notAfter < facts.now) {
        AddFinding(findings, "expired", file + " has ended: " + ToTimeText(times.notAfter));
    } else if (times.notBefore > facts.now) {
        AddFinding(findings, "not-yet-valid", file + " has not begun: " + ToTimeText(times.notBefore));
    } else if (times.notAfter - facts.now < facts.days * kDaySeconds) {
        AddFinding(findings, "expires-soon", file + " ends soon: " + ToTimeText(times.notAfter));
    }
}

Json::Value LookAtService(const Json::Value &element, const ServiceId &id, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts)
{
    const std::string path = GetServiceFolderPath(GetBool(element, "isPkg"), id.first, id.second);
    const bool isMultiple = GetBool(element, "multiple_cert") && !typePrefixes.empty();
    const std::vector<std::string> prefixes = isMultiple ? typePrefixes : std::vector<std::string>{""};
    const std::string owner = GetString(element, "owner");
    Json::Value findings;
    const auto look = [&] {
        findings = Json::Value(Json::arrayValue);
        std::string found = LookAtCopy(path, archive, prefixes, owner, facts, findings);
        // A copy from when the certificate had other key types is whole in its own way.
        const std::vector<std::string> used = found == "copy-missing" ? ListUsedPrefixes(path) : prefixes;
        if (!used.empty() && used != prefixes) {
            findings = Json::Value(Json::arrayValue);
            found = LookAtCopy(path, archive, used, owner, facts, findings);
            AddFinding(findings, "old-copy", "it was made for other key types");
            found = found == "current" ? "old-copy" : found;
        }
        return found;
    };
    std::string state = look();
    if (state == "copy-missing" || state == "copy-mismatch") {
        state = IsBeingReplaced(path, facts.now) ? "being-replaced" : look();
        if (state == "being-replaced") {
            findings = Json::Value(Json::arrayValue);
        }
    }
    if (facts.listed[id] > 1) {
        AddFinding(findings, "listed-twice", "INFO lists it " + std::to_string(facts.listed[id]) + " times");
    }
    if (facts.registered && !facts.registered->contains(id)) {
        AddFinding(findings, "not-in-services", "SERVICES does not list it");
    }
    facts.folders.insert(path);

    Json::Value service(Json::objectValue);
    service["subscriber"] = ToUtf8(id.first);
    service["service"] = ToUtf8(id.second);
    service["folder"] = ToUtf8(path);
    service["state"] = state;
    service["findings"] = std::move(findings);
    return service;
}

}  // namespace opalcrt
