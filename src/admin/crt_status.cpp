#include "admin/crt_status.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

#include "admin/certificate.h"
#include "admin/report.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "deploy/key_types.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// What is wrong with one certificate of the archive's folder, its key and its chain. Answers the certificate.
UniqueOpenSSL<X509> LookAtPair(FolderLook &folder, const std::string &prefix, const StoreFacts &facts,
                               Json::Value &findings)
{
    const FileLook &crtFile = folder.File(prefix + "cert.pem");
    const FileLook &keyFile = folder.File(prefix + "privkey.pem");
    const FileLook &chainFile = folder.File(prefix + "fullchain.pem");
    UniqueOpenSSL<X509> crt = FirstCrt(crtFile.text);
    const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
    const UniqueOpenSSL<X509> first =
        chainFile.text.starts_with(crtFile.text) ? nullptr : FirstCrt(chainFile.text);
    const auto tell = [&](const FileLook &file, const char *name, bool isGood, const char *fault) {
        if (file.error == 0 ? !isGood : file.error != ENOENT) {
            Add(findings, "unreadable", prefix + name + (file.error == 0 ? fault : strerror(file.error)));
        }
    };
    tell(crtFile, "cert.pem: ", crt != nullptr, "it holds no certificate");
    tell(keyFile, "privkey.pem: ", key != nullptr, "it holds no key without a password");
    tell(chainFile, "fullchain.pem: ", chainFile.text.find("----------BEGIN") == std::string::npos,
         "it has two blocks on one line, as no server reads it");
    if (crt == nullptr) {
        return nullptr;
    }
    if (key != nullptr && !IsKeyOf(*key, *crt)) {
        Add(findings, "key-mismatch", prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
    }
    AddTimeFinding(prefix + "cert.pem", *crt, facts.days, findings);
    // Written in another way, it may be the same certificate.
    if (chainFile.error == 0 && !chainFile.text.starts_with(crtFile.text) &&
        (first == nullptr || X509_cmp(first.get(), crt.get()) != 0)) {
        Add(findings, "chain-mismatch", prefix + "fullchain.pem does not begin with cert.pem");
    }
    return crt;
}

// What is wrong with the folder as a whole.
void LookAtCrtFolder(const std::string &path, FolderLook &folder, const std::vector<std::string> &prefixes,
                     Json::Value &findings)
{
    std::error_code error;
    if (const auto real = std::filesystem::canonical(path, error); !error && real != path) {
        Add(findings, "mended-for-ever", path + " is a link: every registration makes a new certificate");
    }
    if (const std::string missing = folder.ListMissingFiles(""); !missing.empty()) {
        Add(findings, "incomplete", path + " lacks " + missing + ": a registration makes a new certificate");
    }
    for (const std::string &prefix : prefixes) {
        if (const std::string missing = folder.ListMissingFiles(prefix); !missing.empty()) {
            Add(findings, "mended-for-ever",
                path + " lacks " + missing + ", of renew.json: every registration makes a new certificate");
        }
    }
    if (folder.File(".mending").error == 0) {
        Add(findings, "mend-unfinished", path + " is being mended, or that was cut off");
    }
    Json::Value crtInfo;
    if (fromFile(path + "/cert_info", crtInfo) && GetBool(crtInfo, "is_broken")) {
        Add(findings, "mended", "it had lost files, and a generated one has taken its place");
    }
}

// The file name prefixes of what the copy's `info` tells the service to use.
std::vector<std::string> ListUsedPrefixes(const FolderLook &copy, const std::string &path)
{
    const std::string name = "cert.pem";
    Json::Value info;
    std::vector<std::string> prefixes;
    // The one in the open folder, which may just be replaced.
    (void)fromFile("/proc/self/fd/" + std::to_string(copy.fd.Get()) + "/info", info);
    for (const Json::Value &element : GetMember(info, "certs")) {
        const std::string crt = GetString(element, "cert");
        if (crt.starts_with(path + "/") && crt.ends_with(name)) {
            prefixes.push_back(crt.substr(path.size() + 1, crt.size() - path.size() - 1 - name.size()));
        }
    }
    return prefixes;
}

// Compares files of the service with the archive's: the names of those that differ. Parsed is only what differs.
std::vector<std::string> LookAtCopy(FolderLook &copy, FolderLook &archive, const std::string &prefix,
                                    const std::string &owner, const StoreFacts &facts, Json::Value &findings)
{
    if (const std::string missing = copy.ListMissingFiles(prefix); !missing.empty()) {
        Add(findings, "copy-missing", missing);
        return {};
    }
    const FileLook &keyFile = copy.File(prefix + "privkey.pem");
    uid_t uid = static_cast<uid_t>(-1);
    (void)OPALUserGetUGID(owner, &uid, nullptr);
    if ((keyFile.info.st_mode & 0377) != 0 || keyFile.info.st_uid != uid) {
        char found[64];
        snprintf(found, sizeof(found), "mode %04o and user %u", keyFile.info.st_mode & 07777,
                 keyFile.info.st_uid);
        Add(findings, "copy-exposed", prefix + "privkey.pem has " + found + " instead of 0400 and " + owner);
    }

    std::vector<std::string> names = {prefix + "cert.pem", prefix + "privkey.pem", prefix + "fullchain.pem"};
    if (prefix.empty()) {
        names.insert(names.end(), {"chain.pem", "opal-ca-cert.pem"});
    }
    std::vector<std::string> differing;
    for (const std::string &name : names) {
        if (copy.File(name).error != archive.File(name).error ||
            copy.File(name).text != archive.File(name).text) {
            differing.push_back(name);
        }
    }
    if (!differing.empty()) {
        const UniqueOpenSSL<X509> crt = FirstCrt(copy.File(prefix + "cert.pem").text);
        const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
        if (crt == nullptr || key == nullptr || !IsKeyOf(*key, *crt)) {
            Add(findings, "copy-mismatch", prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
        } else {
            AddTimeFinding("the service's " + prefix + "cert.pem", *crt, facts.days, findings);
        }
    }
    return differing;
}

// The service's part of the report. `archive` is its certificate's folder, which has key types of these prefixes.
Json::Value LookAtService(const Json::Value &element, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts)
{
    const ServiceName name = NameOf(element);
    Json::Value service(Json::objectValue);
    const std::string path = GetServiceFolderPath(GetBool(element, "isPkg"), std::string(name.subscriber),
                                                  std::string(name.service));
    service["subscriber"] = element["subscriber"];
    service["service"] = element["service"];
    service["folder"] = path;
    service["state"] = "current";
    Json::Value &findings = service["findings"] = Json::Value(Json::arrayValue);
    facts.folders.insert(path);

    FolderLook copy(path);
    const std::vector<std::string> used = ListUsedPrefixes(copy, path);
    std::vector<std::string> differing;
    for (const std::string &prefix : used) {
        for (std::string &file :
             LookAtCopy(copy, archive, prefix, GetString(element, "owner"), facts, findings)) {
            differing.push_back(std::move(file));
        }
    }
    if (used.empty()) {
        Add(findings, "copy-missing", path + "/info, which names the files, is missing or broken");
    } else if (used != (GetBool(element, "multiple_cert") && !typePrefixes.empty()
                            ? typePrefixes
                            : std::vector{std::string()})) {
        differing.emplace_back("the key types");
    }
    if (!differing.empty()) {
        Add(findings, "old-copy", "differs from the archive: " + Join(differing));
    }
    for (const Json::Value &finding : findings) {
        const std::string code = finding["code"].asString();
        if (code.starts_with("copy-") || (code == "old-copy" && service["state"] == "current")) {
            service["state"] = code;
        }
    }
    if (facts.listed[name] > 1) {
        Add(findings, "listed-twice", "INFO lists it " + std::to_string(facts.listed[name]) + " times");
    }
    if (facts.registered && !facts.registered->contains(name)) {
        Add(findings, "not-in-services", "SERVICES does not list it");
    }
    return service;
}

void AddFacts(const X509 &main, FolderLook &folder, const StoreFacts &facts, Json::Value &crt)
{
    const CrtFacts described = DescribeCrt(main);
    const UniqueOpenSSL<X509> ca = FirstCrt(folder.File("opal-ca-cert.pem").text);
    crt["self_made"] = ca != nullptr && IsSignedBy(main, *ca);
    crt["subject"] = described.subject;
    for (const std::string &name : described.names) {
        crt["names"].append(name);
    }
    crt["not_before"] = ToTimeText(described.notBefore);
    crt["not_after"] = ToTimeText(described.notAfter);
    crt["seconds_left"] = static_cast<Json::Int64>(described.notAfter - facts.now);
    crt["sha256"] = described.sha256;
}

}  // namespace

bool IsService(const Json::Value &element)
{
    const std::string subscriber = GetString(element, "subscriber");
    return IsUsableSubscriber(subscriber) && IsUsableService(subscriber, GetString(element, "service"));
}

Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts)
{
    Json::Value crt(Json::objectValue);
    crt["id"] = cert_id;
    crt["default"] = cert_id == facts.defaultId;
    crt["self_made"] = false;
    for (const char *list : {"names", "services", "findings"}) {
        crt[list] = Json::Value(Json::arrayValue);
    }
    Json::Value &findings = crt["findings"];
    const Json::Value &services = GetMember(entry, "services");
    if (!services.isArray() || !IsPlainFolderName(cert_id)) {
        Add(findings, "book-broken", "INFO has an entry that is none of a certificate: " + cert_id);
        return crt;
    }

    std::vector<std::string> prefixes;
    for (const KeyType type : GetCrtKeyTypes(cert_id)) {
        prefixes.push_back(KeyTypePrefix(type));
    }
    const std::string path = GetCrtFolderPath(cert_id);
    facts.folders.insert(path);
    FolderLook folder(path);
    LookAtCrtFolder(path, folder, prefixes, findings);
    if (const UniqueOpenSSL<X509> main = LookAtPair(folder, "", facts, findings)) {
        AddFacts(*main, folder, facts, crt);
    }
    for (const std::string &prefix : prefixes) {
        LookAtPair(folder, prefix, facts, findings);
    }
    for (const Json::Value &element : services) {
        if (IsService(element)) {
            crt["services"].append(LookAtService(element, folder, prefixes, facts));
        } else {
            Add(findings, "book-broken", "INFO lists something that is no service: " + ToLogText(element));
        }
    }
    return crt;
}

}  // namespace opalcrt
