#include "admin/crt_status.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "admin/certificate.h"
#include "admin/message.h"
#include "admin/report.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "deploy/key_types.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr time_t kDay = 24L * 60 * 60;

// A deployment is over within the time that it waits for its lock.
constexpr time_t kDeploymentSeconds = 60;

struct Pair {
    UniqueX509 crt;
    UniqueKey key;
};

void AddTimeFindings(const std::string &file, const X509 &crt, const StoreFacts &facts, Json::Value &findings)
{
    const CrtFacts crtFacts = DescribeCrt(crt);
    if (crtFacts.notAfter < facts.now) {
        AddFinding(findings, "expired", file + " has ended: " + ToTimeText(crtFacts.notAfter));
    } else if (crtFacts.notBefore > facts.now) {
        AddFinding(findings, "not-yet-valid", file + " has not begun: " + ToTimeText(crtFacts.notBefore));
    } else if (crtFacts.notAfter - facts.now < facts.days * kDay) {
        AddFinding(findings, "expires-soon", file + " ends soon: " + ToTimeText(crtFacts.notAfter));
    }
}

// The certificate and key in the two files, with a finding for each that is there and holds none.
Pair ReadPair(FolderLook &folder, const std::string &prefix, StoreFacts &facts, Json::Value &findings)
{
    for (const char *name : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        const int error = FileIn(folder, prefix + name).error;
        facts.isHindered = facts.isHindered || error == EACCES || error == EPERM;
        if (error != 0 && error != ENOENT) {
            AddFinding(findings, "unreadable", prefix + name + ": " + strerror(error));
        }
    }
    Pair pair;
    const FileLook &crt = FileIn(folder, prefix + "cert.pem");
    const FileLook &key = FileIn(folder, prefix + "privkey.pem");
    if (crt.error == 0 && (pair.crt = FirstCrt(crt.text)) == nullptr) {
        AddFinding(findings, "unreadable", prefix + "cert.pem holds no certificate");
    }
    if (key.error == 0 && (pair.key = FirstKey(key.text)) == nullptr) {
        AddFinding(findings, "unreadable",
                   prefix + "privkey.pem holds no key that can be read without a password");
    }
    return pair;
}

// Answers the certificate.
UniqueX509 LookAtPair(FolderLook &folder, const std::string &prefix, StoreFacts &facts, Json::Value &findings)
{
    Pair pair = ReadPair(folder, prefix, facts, findings);
    if (pair.crt == nullptr) {
        return nullptr;
    }
    if (pair.key != nullptr && !IsKeyOf(*pair.key, *pair.crt)) {
        AddFinding(findings, "key-mismatch", prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
    }
    AddTimeFindings(prefix + "cert.pem", *pair.crt, facts, findings);

    const FileLook &chain = FileIn(folder, prefix + "fullchain.pem");
    if (chain.text.find("----------BEGIN") != std::string::npos) {
        AddFinding(findings, "unreadable",
                   prefix + "fullchain.pem has an END and a BEGIN on one line, which no server reads");
    } else if (chain.error == 0 && !chain.text.starts_with(FileIn(folder, prefix + "cert.pem").text)) {
        const UniqueX509 first = FirstCrt(chain.text);
        if (first == nullptr || !IsSameCrt(*first, *pair.crt)) {
            AddFinding(
                findings, "chain-mismatch",
                prefix + "fullchain.pem does not begin with the certificate of " + prefix + "cert.pem");
        }
    }
    return std::move(pair.crt);
}

std::string Join(const std::vector<std::string> &names)
{
    std::string joined;
    for (const std::string &name : names) {
        joined += (joined.empty() ? "" : ", ") + name;
    }
    return joined;
}

void LookAtKeyOwner(const FileLook &key, const std::string &name, const std::string &owner, StoreFacts &facts,
                    Json::Value &findings)
{
    const auto [found, isNew] = facts.owners.try_emplace(owner);
    uid_t uid = 0;
    gid_t gid = 0;
    if (isNew && OPALUserGetUGID(owner, &uid, &gid) == 0) {
        found->second = {uid, gid};
    }
    if ((key.info.st_mode & 0377) != 0) {
        char mode[8];
        snprintf(mode, sizeof(mode), "%04o", key.info.st_mode & 07777);
        AddFinding(findings, "copy-exposed", name + " has mode " + mode + " instead of 0400");
    }
    if (!found->second) {
        AddFinding(findings, "copy-exposed", name + " should belong to " + owner + ", who is no user here");
    } else if (found->second != std::pair(key.info.st_uid, key.info.st_gid)) {
        AddFinding(findings, "copy-exposed",
                   name + " belongs to " + std::to_string(key.info.st_uid) + ":" +
                       std::to_string(key.info.st_gid) + " instead of " + owner);
    }
}

// Those of the files that a deployment puts there, and the `info` that names them, which cannot be read.
std::string ListLost(FolderLook &copy, const std::vector<std::string> &names, StoreFacts &facts)
{
    std::vector<std::string> lost;
    for (const std::string &name : names) {
        const int error = FileIn(copy, name).error;
        facts.isHindered = facts.isHindered || error == EACCES || error == EPERM;
        if (error != 0) {
            lost.push_back(name + (error == ENOENT ? "" : std::string(" (") + strerror(error) + ")"));
        }
    }
    if (!IsIn(copy.fd.Get(), "info")) {
        lost.emplace_back("info");
    }
    return Join(lost);
}

// Compares the service's folder with the archive's, and answers the state.
std::string LookAtCopy(const std::string &path, FolderLook &archive, const std::vector<std::string> &prefixes,
                       const std::string &owner, StoreFacts &facts, Json::Value &findings)
{
    FolderLook copy = LookAtFolder(path);
    facts.isHindered = facts.isHindered || copy.error == EACCES;
    std::vector<std::string> names;
    for (const std::string &prefix : prefixes) {
        names.insert(names.end(), {prefix + "cert.pem", prefix + "privkey.pem", prefix + "fullchain.pem"});
    }
    const std::string lost =
        copy.error != 0 ? path + ": " + strerror(copy.error) : ListLost(copy, names, facts);
    if (!lost.empty()) {
        AddFinding(findings, "copy-missing", lost);
        return "copy-missing";
    }

    if (prefixes.front().empty()) {
        names.insert(names.end(), {"chain.pem", "opal-ca-cert.pem"});
    }
    std::set<std::string> differing;
    for (const std::string &name : names) {
        const FileLook &theirs = FileIn(copy, name);
        const FileLook &ours = FileIn(archive, name);
        if (theirs.error != ours.error || theirs.text != ours.text) {
            differing.insert(name);
        }
    }
    for (const std::string &prefix : prefixes) {
        LookAtKeyOwner(FileIn(copy, prefix + "privkey.pem"), prefix + "privkey.pem", owner, facts, findings);
    }
    std::string state = findings.empty() ? "current" : "copy-exposed";
    for (const std::string &prefix : prefixes) {
        if (!differing.contains(prefix + "cert.pem") && !differing.contains(prefix + "privkey.pem")) {
            continue;
        }
        const Pair pair = {FirstCrt(FileIn(copy, prefix + "cert.pem").text),
                           FirstKey(FileIn(copy, prefix + "privkey.pem").text)};
        if (pair.crt == nullptr || pair.key == nullptr || !IsKeyOf(*pair.key, *pair.crt)) {
            AddFinding(findings, "copy-mismatch",
                       prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
            state = "copy-mismatch";
        } else {
            AddTimeFindings("the copy's " + prefix + "cert.pem", *pair.crt, facts, findings);
        }
    }
    if (!differing.empty()) {
        const std::vector<std::string> list(differing.begin(), differing.end());
        AddFinding(findings, "old-copy", "differs from the archive: " + Join(list));
        state = state == "current" ? "old-copy" : state;
    }
    return state;
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

Json::Value LookAtService(const Json::Value &element, const ServiceId &id, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts)
{
    const std::string path = GetServiceFolderPath(GetBool(element, "isPkg"), id.first, id.second);
    const bool isMultiple = GetBool(element, "multiple_cert") && !typePrefixes.empty();
    const std::vector<std::string> prefixes = isMultiple ? typePrefixes : std::vector<std::string>{""};

    Json::Value service(Json::objectValue);
    service["subscriber"] = ToUtf8(id.first);
    service["service"] = ToUtf8(id.second);
    service["folder"] = ToUtf8(path);
    Json::Value findings(Json::arrayValue);
    std::string state = LookAtCopy(path, archive, prefixes, GetString(element, "owner"), facts, findings);
    if (state == "copy-missing" || state == "copy-mismatch") {
        findings = Json::Value(Json::arrayValue);
        state = IsBeingReplaced(path, facts.now)
                    ? "being-replaced"
                    : LookAtCopy(path, archive, prefixes, GetString(element, "owner"), facts, findings);
    }
    service["state"] = state;
    if (facts.listed[id] > 1) {
        AddFinding(findings, "listed-twice", "INFO lists it " + std::to_string(facts.listed[id]) + " times");
    }
    if (facts.registered && !facts.registered->contains(id)) {
        AddFinding(findings, "not-in-services", "SERVICES does not list it");
    }
    service["findings"] = std::move(findings);
    facts.folders.insert(path);
    return service;
}

void AddFacts(const X509 &crt, const StoreFacts &facts, Json::Value &object)
{
    const CrtFacts crtFacts = DescribeCrt(crt);
    object["subject"] = ToUtf8(crtFacts.subject);
    object["names"] = Json::Value(Json::arrayValue);
    for (const std::string &name : crtFacts.names) {
        object["names"].append(ToUtf8(name));
    }
    object["not_before"] = ToTimeText(crtFacts.notBefore);
    object["not_after"] = ToTimeText(crtFacts.notAfter);
    object["seconds_left"] = static_cast<Json::Int64>(crtFacts.notAfter - facts.now);
    object["sha256"] = crtFacts.sha256;
}

// What is wrong with the folder as a whole.
void LookAtCrtFolder(const std::string &path, FolderLook &folder,
                     const std::vector<std::string> &typePrefixes, Json::Value &findings)
{
    if (folder.error != 0 && folder.error != ENOENT && folder.error != ENOTDIR) {
        AddFinding(findings, "unreadable", path + ": " + strerror(folder.error));
        return;
    }
    if (IsReachedThroughLink(path)) {
        AddFinding(findings, "mended-for-ever",
                   path + " is a link: every registration makes a new certificate");
    }
    if (folder.error != 0) {
        AddFinding(findings, "incomplete",
                   "the next registration makes a new certificate: there is no " + path);
        return;
    }
    if (const auto missing = ListMissingFiles(folder.fd.Get(), ""); !missing.empty()) {
        AddFinding(findings, "incomplete",
                   "the next registration makes a new certificate: " + path + " lacks " + Join(missing));
    }
    for (const std::string &prefix : typePrefixes) {
        if (const auto missing = ListMissingFiles(folder.fd.Get(), prefix); !missing.empty()) {
            AddFinding(findings, "mended-for-ever",
                       "every registration makes a new certificate: renew.json names " +
                           prefix.substr(0, prefix.size() - 1) + ", but " + Join(missing) + " is missing");
        }
    }
    if (IsIn(folder.fd.Get(), kMendingMark)) {
        AddFinding(findings, "mend-unfinished", path + " is being mended, or that was cut off");
    }
    Json::Value crtInfo;
    if (fromFile(path + "/cert_info", crtInfo) && GetBool(crtInfo, "is_broken")) {
        AddFinding(findings, "mended", "it had lost files, and a generated one has taken its place");
    }
}

}  // namespace

std::optional<ServiceId> IdOfService(const Json::Value &element)
{
    ServiceId id(GetString(element, "subscriber"), GetString(element, "service"));
    if (!IsUsableSubscriber(id.first) || !IsUsableService(id.first, id.second)) {
        return std::nullopt;
    }
    return id;
}

Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts)
{
    Json::Value crt(Json::objectValue);
    crt["id"] = ToUtf8(cert_id);
    crt["default"] = cert_id == facts.defaultId;
    crt["self_made"] = false;
    crt["services"] = Json::Value(Json::arrayValue);
    crt["findings"] = Json::Value(Json::arrayValue);
    Json::Value &findings = crt["findings"];
    const Json::Value &services = GetMember(entry, "services");
    if (!services.isArray() || !IsPlainFolderName(cert_id)) {
        AddFinding(findings, "book-broken", "INFO has an entry that is none of a certificate: " + cert_id);
        return crt;
    }

    std::vector<std::string> typePrefixes;
    for (const KeyType type : GetCrtKeyTypes(cert_id)) {
        typePrefixes.push_back(KeyTypePrefix(type));
    }
    const std::string path = GetCrtFolderPath(cert_id);
    FolderLook folder = LookAtFolder(path);
    facts.isHindered = facts.isHindered || folder.error == EACCES;
    LookAtCrtFolder(path, folder, typePrefixes, findings);
    if (folder.error == 0) {
        if (const UniqueX509 main = LookAtPair(folder, "", facts, findings)) {
            AddFacts(*main, facts, crt);
            const UniqueX509 ca = FirstCrt(FileIn(folder, "opal-ca-cert.pem").text);
            crt["self_made"] = ca != nullptr && IsSignedBy(*main, *ca);
        }
        for (const std::string &prefix : typePrefixes) {
            LookAtPair(folder, prefix, facts, findings);
        }
    }

    for (const Json::Value &element : services) {
        if (const std::optional<ServiceId> id = IdOfService(element)) {
            crt["services"].append(LookAtService(element, *id, folder, typePrefixes, facts));
        } else {
            AddFinding(findings, "book-broken",
                       "INFO lists something that is no service: " + ToLogText(element));
        }
    }
    return crt;
}

}  // namespace opalcrt
