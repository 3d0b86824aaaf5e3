#include "admin/look.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "deploy/key_types.h"
#include "platform/file_test.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A folder, and what has been read of it.
struct FolderLook {
    const FileLook &File(const std::string &name)
    {
        const auto [entry, isNew] = files.try_emplace(name);
        if (isNew) {
            entry->second = LookAtFile(path + "/" + name);
        }
        return entry->second;
    }

    // Those that every key type has which are not there: "a, b".
    std::string ListMissing(const std::string &prefix)
    {
        Json::Value missing;
        for (const char *name : kKeyTypeFiles) {
            if (IsMissing(File(prefix + name).error)) {
                missing.append(prefix + name);
            }
        }
        return Join(missing);
    }

    std::string path;
    std::map<std::string, FileLook> files = {};
    bool hasMismatch = false;  // of a key and its certificate
};

// What is wrong with one certificate of the archive's folder, its key and its chain. Answers the certificate.
UniqueOpenSSL<X509> LookAtPair(FolderLook &folder, const std::string &prefix, int days, Json::Value &findings)
{
    const FileLook &crtFile = folder.File(prefix + "cert.pem");
    const FileLook &keyFile = folder.File(prefix + "privkey.pem");
    const FileLook &chainFile = folder.File(prefix + "fullchain.pem");
    UniqueOpenSSL<X509> crt = FirstCrt(crtFile.text);
    const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
    const auto tell = [&](const FileLook &file, const char *name, bool isGood, const char *fault) {
        AddIf(file.error == 0 ? !isGood : file.error != ENOENT, findings, "unreadable",
              prefix + name + (file.error == 0 ? fault : strerror(file.error)));
    };
    tell(crtFile, "cert.pem: ", crt != nullptr, "it holds no certificate");
    tell(keyFile, "privkey.pem: ", key != nullptr, "it holds no key without a password");
    tell(chainFile, "fullchain.pem: ", chainFile.text.find("----------BEGIN") == std::string::npos,
         "it has two blocks on one line, as no server reads it");
    if (crt == nullptr) {
        return nullptr;
    }
    folder.hasMismatch |= AddIf(key != nullptr && !IsKeyOf(*key, *crt), findings, "key-mismatch",
                                prefix + "privkey.pem is not the key of " + prefix + "cert.pem");
    AddTimeFinding(prefix + "cert.pem", *crt, days, findings);
    if (chainFile.error == 0 && !chainFile.text.starts_with(crtFile.text)) {
        const UniqueOpenSSL<X509> first = FirstCrt(chainFile.text);  // It may only be written in another way.
        AddIf(first == nullptr || X509_cmp(first.get(), crt.get()) != 0, findings, "chain-mismatch",
              prefix + "fullchain.pem does not begin with cert.pem");
    }
    return crt;
}

// What is wrong with the folder as a whole.
void LookAtCrtFolder(FolderLook &folder, const std::vector<std::string> &prefixes, Json::Value &findings)
{
    const std::string &path = folder.path;
    std::error_code error;
    const auto real = std::filesystem::canonical(path, error);
    AddIf(!error && real != path, findings, "mended-for-ever",
          path + " is a link: every registration makes a new certificate");
    const std::string missing = folder.ListMissing("");
    AddIf(!missing.empty(), findings, "incomplete",
          path + " lacks " + missing + ": install it anew, or a registration replaces it or fails");
    for (const std::string &prefix : prefixes) {
        const std::string lacking = folder.ListMissing(prefix);
        AddIf(!lacking.empty(), findings, "mended-for-ever",
              path + " lacks " + lacking + ", of renew.json: every registration makes a new certificate");
    }
    AddIf(folder.File(".mending").error == 0, findings, "mend-unfinished",
          path + " is being mended, or that was cut off");
    Json::Value crtInfo;
    (void)fromFile(path + "/cert_info", crtInfo);
    AddIf(GetBool(crtInfo, "is_broken"), findings, "mended",
          "it had lost files, and a generated one has taken its place");
}

// The file name prefixes of what the copy's `info` tells the service to use.
std::vector<std::string> ListUsedPrefixes(const std::string &path)
{
    const std::string name = "cert.pem";
    Json::Value info;
    std::vector<std::string> prefixes;
    (void)fromFile(path + "/info", info);
    for (const Json::Value &element : GetMember(info, "certs")) {
        const std::string crt = GetString(element, "cert");
        if (crt.starts_with(path + "/") && crt.ends_with(name)) {
            prefixes.push_back(crt.substr(path.size() + 1, crt.size() - path.size() - 1 - name.size()));
        }
    }
    return prefixes;
}

// Compares files of the service with the archive's, and appends the names of those that differ: only these are parsed, and
// such as are no pair in the archive.
void LookAtCopy(FolderLook &copy, FolderLook &archive, const std::string &prefix, const std::string &owner,
                StoreFacts &facts, Json::Value &differing, Json::Value &findings)
{
    const std::string missing = copy.ListMissing(prefix);
    if (AddIf(!missing.empty(), findings, "copy-missing", missing)) {
        return;
    }
    const FileLook &keyFile = copy.File(prefix + "privkey.pem");
    uid_t user = static_cast<uid_t>(-1);
    (void)OPALUserGetUGID(owner, &user, nullptr);
    const struct stat &info = keyFile.info;
    char found[64];
    snprintf(found, sizeof(found), "mode %04o and user %u", info.st_mode & 07777, info.st_uid);
    AddIf((info.st_mode & 0377) != 0 || info.st_uid != user, findings, "copy-exposed",
          prefix + "privkey.pem has " + found + " instead of 0400 and " + owner);
    std::vector<std::string> names(std::begin(kKeyTypeFiles), std::end(kKeyTypeFiles));
    if (prefix.empty()) {
        names.insert(names.end(), {"chain.pem", "opal-ca-cert.pem"});
    }
    const Json::ArrayIndex before = differing.size();
    for (const std::string &name : names) {
        const FileLook &mine = copy.File(prefix + name);
        const FileLook &right = archive.File(prefix + name);
        if (mine.error != right.error || mine.text != right.text) {
            differing.append(prefix + name);
        }
    }
    if (differing.size() != before || archive.hasMismatch) {
        const UniqueOpenSSL<X509> crt = FirstCrt(copy.File(prefix + "cert.pem").text);
        const UniqueOpenSSL<EVP_PKEY> key = FirstKey(keyFile.text);
        if (!AddIf(crt == nullptr || key == nullptr || !IsKeyOf(*key, *crt), findings, "copy-mismatch",
                   prefix + "privkey.pem is not the key of " + prefix + "cert.pem")) {
            AddTimeFinding("the service's " + prefix + "cert.pem", *crt, facts.days, findings);
        }
    }
}

// The service's part of the report. `archive` is its certificate's folder, which has key types of these prefixes.
Json::Value LookAtService(const Json::Value &element, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts)
{
    const ServiceName name = NameOf(element);
    const std::string path = GetServiceFolderPath(GetBool(element, "isPkg"), std::string(name.subscriber),
                                                  std::string(name.service));
    Json::Value service(Json::objectValue);
    service["subscriber"] = element["subscriber"];
    service["service"] = element["service"];
    service["folder"] = path;
    service["state"] = "current";
    Json::Value &findings = service["findings"] = Json::Value(Json::arrayValue);
    facts.folders.insert(path);
    FolderLook copy = {path};
    const std::vector<std::string> used = ListUsedPrefixes(path);
    Json::Value differing(Json::arrayValue);
    for (const std::string &prefix : used) {
        LookAtCopy(copy, archive, prefix, GetString(element, "owner"), facts, differing, findings);
    }
    const bool isMultiple = GetBool(element, "multiple_cert") && !typePrefixes.empty();
    if (!AddIf(used.empty(), findings, "copy-missing",
               path + "/info, which names the files, is missing or broken") &&
        used != (isMultiple ? typePrefixes : std::vector{std::string()})) {
        differing.append("the key types");
    }
    AddIf(!differing.empty(), findings, "old-copy", "differs from the archive: " + Join(differing));
    for (const Json::Value &finding : findings) {
        const std::string code = finding["code"].asString();
        if (code.starts_with("copy-") || (code == "old-copy" && service["state"] == "current")) {
            service["state"] = code;
        }
    }
    const int times = facts.listed[name];
    AddIf(times > 1, findings, "listed-twice", "INFO lists it " + std::to_string(times) + " times");
    AddIf(facts.registered && !facts.registered->contains(name), findings, "not-in-services",
          "SERVICES does not list it");
    return service;
}

}  // namespace

Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &entry, StoreFacts &facts)
{
    Json::Value crt(Json::objectValue);
    Json::Value findings(Json::arrayValue);
    Json::Value services(Json::arrayValue);
    crt["names"] = Json::Value(Json::arrayValue);
    crt["self_made"] = false;
    const Json::Value &listed = GetMember(entry, "services");
    if (!AddIf(!listed.isArray() || !IsPlainFolderName(cert_id), findings, "book-broken",
               "INFO has an entry that is none of a certificate: " + cert_id)) {
        const std::string path = GetCrtFolderPath(cert_id);
        facts.folders.insert(path);
        FolderLook folder = {path};
        std::vector<std::string> prefixes;
        for (const KeyType type : GetCrtKeyTypes(cert_id)) {
            prefixes.push_back(KeyTypePrefix(type));
        }
        LookAtCrtFolder(folder, prefixes, findings);
        if (const UniqueOpenSSL<X509> main = LookAtPair(folder, "", facts.days, findings)) {
            const UniqueOpenSSL<X509> ca = FirstCrt(folder.File("opal-ca-cert.pem").text);
            crt = DescribeCrt(*main);
            crt["self_made"] = ca != nullptr && IsSignedBy(*main, *ca);
        }
        for (const std::string &prefix : prefixes) {
            LookAtPair(folder, prefix, facts.days, findings);
        }
        for (const Json::Value &element : listed) {
            if (HasUsableNames(element)) {
                services.append(LookAtService(element, folder, prefixes, facts));
            } else {
                AddIf(true, findings, "book-broken",
                      "INFO lists something that is no service: " + ToLogText(element));
            }
        }
    }
    crt["id"] = cert_id;
    crt["services"] = std::move(services);
    crt["findings"] = std::move(findings);
    return crt;
}

}  // namespace opalcrt
