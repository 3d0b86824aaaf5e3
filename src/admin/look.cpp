#include "admin/look.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "platform/file_test.h"
#include "platform/users.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A folder of the archive or of a service, each file of which is read once.
struct FolderLook {
    const FileLook &File(const std::string &name)
    {
        const auto [entry, isNew] = files.try_emplace(name);
        if (isNew) {
            entry->second = LookAtFile(path + "/" + name);
        }
        return entry->second;
    }

    std::string path;
    bool isCopy = false;   // of a service
    bool areWhole = true;  // the pairs that have been looked at
    std::map<std::string, FileLook> files = {};
};

// What is wrong with a certificate, its key and its chain, of this file name prefix. Answers the certificate. `days` for
// AddTimeFinding; none when the times are not to be told.
UniqueOpenSSL<X509> LookAtPair(FolderLook &folder, const std::string &prefix, std::optional<int> days,
                               Json::Value &findings)
{
    UniqueOpenSSL<X509> crt = FirstCrt(folder.File(prefix + "cert.pem").text);
    const UniqueOpenSSL<X509> first = FirstCrt(folder.File(prefix + "fullchain.pem").text);
    const UniqueOpenSSL<EVP_PKEY> key = FirstKey(folder.File(prefix + "privkey.pem").text);
    // No server reads a chain with two blocks on one line.
    const bool isJoined =
        folder.File(prefix + "fullchain.pem").text.find("----------BEGIN") != std::string::npos;
    const bool areGood[] = {crt != nullptr, first != nullptr && !isJoined,
                            key != nullptr};  // as kKeyTypeFiles
    const Json::ArrayIndex before = findings.size();
    const std::string path = folder.path + "/" + prefix;
    Json::Value missing;
    for (size_t at = 0; at < std::size(areGood); ++at) {
        const int error = folder.File(prefix + kKeyTypeFiles[at]).error;
        if (IsMissing(error)) {
            missing.append(prefix + kKeyTypeFiles[at]);
        } else {
            AddIf(!areGood[at], findings, folder.isCopy ? "copy-mismatch" : "unreadable",
                  path + kKeyTypeFiles[at] + ": " +
                      (error != 0 ? strerror(error) : "damaged, no PEM, or a key with a password"));
        }
    }
    AddIf(!missing.empty(), findings,
          folder.isCopy    ? "copy-missing"
          : prefix.empty() ? "incomplete"
                           : "mended-for-ever",
          folder.path + " lacks " + Join(missing));
    AddIf(crt != nullptr && key != nullptr && !IsKeyOf(*key, *crt), findings,
          folder.isCopy ? "copy-mismatch" : "key-mismatch", path + "privkey.pem is not the key of cert.pem");
    AddIf(!folder.isCopy && crt != nullptr && first != nullptr && X509_cmp(first.get(), crt.get()) != 0,
          findings, "chain-mismatch", path + "fullchain.pem does not begin with cert.pem");
    folder.areWhole = folder.areWhole && findings.size() == before;
    if (crt != nullptr && days) {
        AddTimeFinding(path + "cert.pem", *crt, *days, findings);
    }
    return crt;
}

// The file name prefixes of what the copy's `info` tells the service to use.
std::vector<std::string> ListUsedPrefixes(const std::string &path)
{
    Json::Value info;
    std::vector<std::string> prefixes;
    (void)fromFile(path + "/info", info);
    for (const Json::Value &element : GetMember(info, "certs")) {
        const std::string crt = GetString(element, "cert");
        if (crt.starts_with(path + "/") && crt.ends_with("cert.pem")) {
            prefixes.push_back(crt.substr(path.size() + 1, crt.size() - path.size() - strlen("/cert.pem")));
        }
    }
    return prefixes;
}

// Compares the service's files of this prefix with the archive's, and appends the names of those that differ: only these
// are parsed, and such as are not whole in the archive.
void LookAtCopy(FolderLook &copy, FolderLook &archive, const std::string &prefix, const std::string &owner,
                int days, Json::Value &differing, Json::Value &findings)
{
    const FileLook &key = copy.File(prefix + "privkey.pem");
    uid_t user = static_cast<uid_t>(-1);
    (void)OPALUserGetUGID(owner, &user, nullptr);
    char found[64];
    snprintf(found, sizeof(found), "mode %04o and user %u", key.info.st_mode & 07777, key.info.st_uid);
    AddIf(key.error == 0 && ((key.info.st_mode & 0377) != 0 || key.info.st_uid != user), findings,
          "copy-exposed", prefix + "privkey.pem has " + found + " instead of 0400 and " + owner);
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
    if (differing.size() != before) {
        LookAtPair(copy, prefix, days, findings);
    } else if (!archive.areWhole) {
        LookAtPair(copy, prefix, {}, findings);
    }
}

// The service's part of the report. `archive` is its certificate's folder, which has key types of these prefixes.
Json::Value LookAtService(const Json::Value &element, FolderLook &archive,
                          const std::vector<std::string> &typePrefixes, StoreFacts &facts)
{
    const ServiceName name = NameOf(element);
    const std::string path = GetServiceFolderPath(GetBool(element, "isPkg"), std::string(name.subscriber),
                                                  std::string(name.service));
    facts.folders.insert(path);
    Json::Value service(Json::objectValue);
    service["subscriber"] = element["subscriber"];
    service["service"] = element["service"];
    service["folder"] = path;
    Json::Value &findings = service["findings"] = Json::Value(Json::arrayValue);
    FolderLook copy = {path, true};
    Json::Value differing(Json::arrayValue);
    const std::vector<std::string> used = ListUsedPrefixes(path);
    for (const std::string &prefix : used) {
        LookAtCopy(copy, archive, prefix, GetString(element, "owner"), facts.days, differing, findings);
    }
    const bool isMultiple = GetBool(element, "multiple_cert") && !typePrefixes.empty();
    if (used != (isMultiple ? typePrefixes : std::vector{std::string()})) {
        differing.append("the key types");
    }
    AddIf(used.empty(), findings, "copy-missing",
          path + "/info, which names the files, is missing or broken") ||
        AddIf(!differing.empty(), findings, "old-copy", "differs from the archive: " + Join(differing));
    service["state"] = "current";
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

Json::Value LookAtCrt(const std::string &cert_id, const Json::Value &services, StoreFacts &facts)
{
    FolderLook folder = {GetCrtFolderPath(cert_id)};
    facts.folders.insert(folder.path);
    Json::Value findings(Json::arrayValue);
    const UniqueOpenSSL<X509> main = LookAtPair(folder, "", facts.days, findings);
    const UniqueOpenSSL<X509> ca = FirstCrt(folder.File("opal-ca-cert.pem").text);
    std::vector<std::string> prefixes;
    for (const KeyType type : GetCrtKeyTypes(cert_id)) {
        prefixes.push_back(KeyTypePrefix(type));
        LookAtPair(folder, prefixes.back(), facts.days, findings);
    }
    AddIf(YLIBCFileExist(folder.path.c_str()) == 1 && !IsCanonicalPath(folder.path), findings,
          "mended-for-ever", folder.path + " is a link");
    AddIf(folder.File(".mending").error == 0, findings, "mend-unfinished",
          folder.path + " is being mended, or that was cut off");
    Json::Value crtInfo;
    (void)fromFile(folder.path + "/cert_info", crtInfo);
    AddIf(GetBool(crtInfo, "is_broken"), findings, "mended",
          "it had lost files, and a generated one has taken its place");
    Json::Value crt;
    crt["names"] = Json::Value(Json::arrayValue);
    if (main != nullptr) {
        crt = DescribeCrt(*main);
    }
    crt["id"] = cert_id;
    crt["self_made"] = main != nullptr && ca != nullptr && IsSignedBy(*main, *ca);
    crt["services"] = Json::Value(Json::arrayValue);
    for (const Json::Value &element : services) {
        if (!AddIf(!HasUsableNames(element), findings, "book-broken",
                   "INFO lists something that is no service: " + ToLogText(element))) {
            crt["services"].append(LookAtService(element, folder, prefixes, facts));
        }
    }
    crt["findings"] = std::move(findings);
    return crt;
}

}  // namespace opalcrt
