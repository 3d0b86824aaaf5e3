#include "admin/crt_status.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "admin/certificate.h"
#include "admin/message.h"
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

// A deployment is over within the time that it waits for its lock.
constexpr time_t kDeploymentSeconds = 60;

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

// Answers the certificate.
UniqueX509 LookAtPair(FolderLook &folder, const std::string &prefix, const StoreFacts &facts,
                      Json::Value &findings)
{
    const auto read = [&](const char *name) -> const FileLook & {
        const FileLook &file = FileIn(folder, prefix + name);
        if (file.error != 0 && file.error != ENOENT) {
            AddFinding(findings, "unreadable", prefix + name + ": " + strerror(file.error));
        }
        return file;
    };
    const FileLook &crtFile = read("cert.pem");
    const FileLook &keyFile = read("privkey.pem");
    const FileLook &chain = read("fullchain.pem");
    UniqueX509 crt = FirstCrt(crtFile.text);
    const UniqueKey key = FirstKey(keyFile.text);
    if (crt == nullptr && crtFile.error == 0) {
        AddFinding(findings, "unreadable", prefix + "cert.pem holds no certificate");
    }
    if (key == nullptr && keyFile.error == 0) {
        AddFinding(findings, "unreadable", prefix + "privkey.pem holds no key without a password");
    }
    if (crt == nullptr) {
        return nullptr;
    }

    if (key != nullptr && !IsKeyOf(*key, *crt)) {
        AddFinding(findings, "key-mismatch", prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
    }
    AddTimeFinding(prefix + "cert.pem", *crt, facts, findings);
    if (chain.text.find("----------BEGIN") != std::string::npos) {
        AddFinding(findings, "unreadable",
                   prefix + "fullchain.pem has two blocks on one line, as no server reads it");
    } else if (chain.error == 0 && !chain.text.starts_with(crtFile.text)) {
        const UniqueX509 first = FirstCrt(chain.text);
        if (first == nullptr || !IsSameCrt(*first, *crt)) {
            AddFinding(findings, "chain-mismatch",
                       prefix + "fullchain.pem does not begin with " + prefix + "cert.pem");
        }
    }
    return crt;
}

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
        const UniqueX509 crt = FirstCrt(FileIn(copy, prefix + "cert.pem").text);
        const UniqueKey key = FirstKey(keyFile.text);
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
    Json::Value findings;
    const auto look = [&] {
        findings = Json::Value(Json::arrayValue);
        return LookAtCopy(path, archive, isMultiple ? typePrefixes : std::vector<std::string>{""},
                          GetString(element, "owner"), facts, findings);
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

void AddFacts(const X509 &crt, const StoreFacts &facts, Json::Value &object)
{
    const CrtFacts crtFacts = DescribeCrt(crt);
    object["subject"] = ToUtf8(crtFacts.subject);
    for (const std::string &name : crtFacts.names) {
        object["names"].append(ToUtf8(name));
    }
    object["not_before"] = ToTimeText(crtFacts.notBefore);
    object["not_after"] = ToTimeText(crtFacts.notAfter);
    object["seconds_left"] = static_cast<Json::Int64>(crtFacts.notAfter - facts.now);
    object["sha256"] = crtFacts.sha256;
}

// What is wrong with the folder as a whole.
void LookAtCrtFolder(const std::string &path, const FolderLook &folder,
                     const std::vector<std::string> &typePrefixes, Json::Value &findings)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr && path != resolved) {
        AddFinding(findings, "mended-for-ever",
                   path + " is a link: every registration makes a new certificate");
    }
    if (const std::string missing = ListMissingFiles(folder, ""); !missing.empty()) {
        AddFinding(findings, "incomplete",
                   path + " lacks " + missing + ": a registration makes a new certificate");
    }
    for (const std::string &prefix : typePrefixes) {
        if (const std::string missing = ListMissingFiles(folder, prefix); !missing.empty()) {
            AddFinding(
                findings, "mended-for-ever",
                path + " lacks " + missing + ", of renew.json: every registration makes a new certificate");
        }
    }
    if (IsIn(AT_FDCWD, path + "/.mending")) {
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
    const bool isUsable = IsUsableSubscriber(id.first) && IsUsableService(id.first, id.second);
    return isUsable ? std::optional(id) : std::nullopt;
}

Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts)
{
    Json::Value crt(Json::objectValue);
    crt["id"] = ToUtf8(cert_id);
    crt["default"] = cert_id == facts.defaultId;
    crt["self_made"] = false;
    for (const char *list : {"names", "services", "findings"}) {
        crt[list] = Json::Value(Json::arrayValue);
    }
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
    facts.folders.insert(path);
    FolderLook folder = LookAtFolder(path);
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
    facts.isHindered |= folder.isHindered;
    return crt;
}

}  // namespace opalcrt
