#include "admin/crt_status.h"

#include <fcntl.h>

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
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// Answers the certificate.
UniqueOpenSSL<X509> LookAtPair(FolderLook &folder, const std::string &prefix, const StoreFacts &facts,
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
    UniqueOpenSSL<X509> crt = FirstCrt(crtFile.text);
    const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
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
        const UniqueOpenSSL<X509> first = FirstCrt(chain.text);
        if (first == nullptr || !IsSameCrt(*first, *crt)) {
            AddFinding(findings, "chain-mismatch",
                       prefix + "fullchain.pem does not begin with " + prefix + "cert.pem");
        }
    }
    return crt;
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
        if (const UniqueOpenSSL<X509> main = LookAtPair(folder, "", facts, findings)) {
            AddFacts(*main, facts, crt);
            const UniqueOpenSSL<X509> ca = FirstCrt(FileIn(folder, "opal-ca-cert.pem").text);
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
