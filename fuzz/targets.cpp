// Feeds bytes from nowhere to whatever reads a file of the tool: each target puts its input at the file's real path,
// calls the functions that read it, and aborts when they crash, leak, or break a promise of their headers.
// The name under which the program was started chooses the target. libFuzzer's main or replay.cpp drives it.

#include <json/value.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "assign/recovery.h"
#include "checksum/crt_checksums.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/no_password.h"
#include "deploy/key_types.h"
#include "frontend/definition_file.h"
#include "frontend/registerer.h"
#include "frontend/services_list.h"
#include "frontend/unregisterer.h"
#include "mkcert/key_match.h"
#include "store/crt_info.h"
#include "store/paths.h"

using namespace opalcrt;

namespace
{

#define REQUIRE(what)                                                                  \
    do {                                                                               \
        if (!(what)) {                                                                 \
            fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #what); \
            abort();                                                                   \
        }                                                                              \
    } while (false)

const std::string kCrtFolder = std::string(kArchive) + "/c/";

void Put(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    REQUIRE(file << text << std::flush);
}

std::string Get(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    REQUIRE(file.is_open());
    return std::string(std::istreambuf_iterator<char>(file), {});
}

size_t Depth(const Json::Value &tree)
{
    size_t below = 0;
    for (const Json::Value &node : tree) {
        below = std::max(below, Depth(node));
    }
    return below + 1;
}

// Null for a book that is broken.
Json::Value GetBook(const std::string &path)
{
    Json::Value book;
    REQUIRE(fromFile(path, book) || book.isNull());
    REQUIRE(Depth(book) <= 500);
    return book;
}

Json::Value ServiceObj(const std::string &service)
{
    Json::Value serviceObj;
    serviceObj["subscriber"] = "p";
    serviceObj["service"] = service;
    serviceObj["display_name"] = "new";
    serviceObj["owner"] = "opalweb";
    serviceObj["isPkg"] = true;
    return serviceObj;
}

// Whether p owns the element, and, unless the name is empty, whether it is that service of p's. Said here once
// more, since the tool's own test of it is under test.
bool IsOurs(const Json::Value &element, const std::string &service = "")
{
    return element.isObject() && element["subscriber"].isString() && element["service"].isString() &&
           element["subscriber"] == "p" && (service.empty() || element["service"] == service);
}

// The elements of the list that do not belong to p, or are not the one service of p's.
Json::Value Others(const Json::Value &list, const std::string &service = "")
{
    Json::Value others(Json::arrayValue);
    for (const Json::Value &element : list) {
        if (!IsOurs(element, service)) {
            others.append(element);
        }
    }
    return others;
}

bool HasList(const Json::Value &entry)
{
    return entry.isObject() && entry["services"].isArray();
}

void CheckServiceObj(const Json::Value &serviceObj, const Json::Value &definition)
{
    static const std::set<std::string> kKnown = {"subscriber",   "service",      "owner",
                                                 "isPkg",        "display_name", "display_name_i18n",
                                                 "user_setable", "multiple_cert"};
    for (const std::string &key : serviceObj.getMemberNames()) {
        REQUIRE(kKnown.count(key) == 1);
    }
    REQUIRE(serviceObj["subscriber"] == "p" && serviceObj["isPkg"] == true);
    REQUIRE(serviceObj["owner"] == definition["owner"] && serviceObj["display_name"].isString());
    const std::string name = serviceObj["service"].asString();
    REQUIRE(name.size() <= 236 && name != "." && name != "..");
    REQUIRE(name.find('/') == std::string::npos && name.find('\0') == std::string::npos);
    REQUIRE(!name.ends_with(".temp") && !name.ends_with(".bak"));
    const std::string filter = definition["service"].isString() ? definition["service"].asString() : "";
    REQUIRE(filter.empty() || name == filter);
}

void FuzzDefinition(const std::string &input)
{
    const std::string path = std::string(kPackageDefinitionDirectory) + "p.cfg";
    Put(path, input);
    Json::Value definition;
    std::string chosen;
    const bool isLoaded = LoadServiceConfig("p", definition, chosen);
    REQUIRE(chosen == path);
    if (!isLoaded) {
        return;
    }
    definition["subscriber"] = "p";
    Json::Value services;
    if (!PrepareServices(definition, services)) {
        REQUIRE(services == Json::Value(Json::arrayValue));
        return;
    }
    std::set<Json::Value> names;
    for (const Json::Value &serviceObj : services) {
        CheckServiceObj(serviceObj, definition);
        names.insert(serviceObj["service"]);
    }
    Put(kServicesPath, "[]");
    REQUIRE(AppendRegisterServices(services) && GetBook(kServicesPath).size() == names.size());
    REQUIRE(RemoveRegisterServices("p", "") && GetBook(kServicesPath) == Json::Value(Json::arrayValue));
}

void FuzzServices(const std::string &input)
{
    Put(kServicesPath, input);
    const Json::Value before = GetBook(kServicesPath);
    Json::Value added;
    added.append(ServiceObj("s"));
    added.append(ServiceObj("t"));
    const bool isChanged = AppendRegisterServices(added);
    REQUIRE(isChanged == before.isArray());
    if (!isChanged) {
        REQUIRE(Get(kServicesPath) == input && !RemoveRegisterServices("p", "") &&
                Get(kServicesPath) == input);
        return;
    }
    const Json::Value after = GetBook(kServicesPath);
    REQUIRE(after.isArray() && Others(after) == Others(before));
    for (const Json::Value &serviceObj : added) {
        REQUIRE(std::count(after.begin(), after.end(), serviceObj) == 1);
    }
    REQUIRE(RemoveRegisterServices("p", "s") && GetBook(kServicesPath) == Others(after, "s"));
    REQUIRE(RemoveRegisterServices("p", "") && GetBook(kServicesPath) == Others(before));
}

// Gives p's service s to the certificate c, as an assignment does.
void AssignInInfo(const Json::Value &before)
{
    if (!before.isObject() || !HasList(before["c"])) {
        return;
    }
    const Json::Value serviceObj = ServiceObj("s");
    Json::Value info = before;
    UpdateServiceList(info["c"]["services"], serviceObj, false);
    REQUIRE(WriteCrtInfo(info));
    const Json::Value after = GetBook(kInfoPath);
    Json::Value expected(Json::arrayValue);
    for (const Json::Value &element : Others(before["c"]["services"], "s")) {
        if (element.isObject() && element["subscriber"].isString() && element["service"].isString()) {
            expected.append(element);
        }
    }
    expected.append(serviceObj);
    info = before;
    info["c"]["services"] = expected;
    REQUIRE(after == info);
}

void UnregisterInInfo(const std::string &input, const Json::Value &before, const std::string &service)
{
    Json::Value request;
    request["subscriber"] = "p";
    if (!service.empty()) {
        request["service"] = service;
    }
    const bool hasOwner = before.isObject() && FindServiceOwner(before, request);
    Json::Value expected = before;
    bool isListed = false;
    bool isSomebodyElses = false;
    for (Json::Value &entry : expected) {
        if (HasList(entry)) {
            for (const Json::Value &element : entry["services"]) {
                isListed = isListed || IsOurs(element, service);
                isSomebodyElses =
                    isSomebodyElses || (IsOurs(element, service) &&
                                        (GetString(element, "owner") != GetString(request, "owner") ||
                                         GetBool(element, "isPkg") != GetBool(request, "isPkg")));
            }
            entry["services"] = Others(entry["services"], service);
        }
    }
    REQUIRE(isListed || !hasOwner);
    const bool isDone = RemoveServiceFromInfo(request);
    REQUIRE(isDone == (before.isObject() && !isSomebodyElses));
    if (isDone && isListed) {
        REQUIRE(GetBook(kInfoPath) == expected);
    } else {
        REQUIRE(Get(kInfoPath) == input);
    }
}

void FuzzInfo(const std::string &input)
{
    Put(kInfoPath, input);
    const Json::Value before = GetBook(kInfoPath);
    std::string certId = "none";
    REQUIRE(GetServiceCrtId(ServiceObj("s"), certId) == before.isObject());
    REQUIRE(certId == "none" || (HasList(before[certId]) &&
                                 Others(before[certId]["services"], "s") != before[certId]["services"]));
    REQUIRE(CheckAndRecoverCrt("c") == (before.isObject() && before["c"].isObject()));
    for (const char *elsewhere : {"", ".", "..", "c/", "c/../c"}) {
        REQUIRE(!CheckAndRecoverCrt(elsewhere));
    }

    Json::Value report(Json::arrayValue);
    if (ListCrtChecksums(report)) {
        Json::ArrayIndex count = 0;
        for (auto entry = before.begin(); entry != before.end(); ++entry) {
            count += (*entry)["services"].size();
            REQUIRE(entry.name() == "c" || (*entry)["services"].empty());
        }
        REQUIRE(report.size() == count);
    }
    REQUIRE(Get(kInfoPath) == input);

    UnregisterInInfo(input, before, "s");
    Put(kInfoPath, input);
    UnregisterInInfo(input, before, "");
    Put(kInfoPath, input);
    AssignInInfo(before);
}

void FuzzRenew(const std::string &input)
{
    Put(kCrtFolder + "renew.json", input);
    const std::string text = GetString(GetBook(kCrtFolder + "renew.json"), "key_types");
    const std::vector<KeyType> types = GetCrtKeyTypes("c");
    REQUIRE(types.empty() == text.empty() && HasCrtKeyTypes("c") == !types.empty());
    REQUIRE(text.empty() || types == ParseKeyTypes(text));
    REQUIRE(CheckAndRecoverCrt("c"));

    for (const std::string &piece : SplitTrimmed(input, "/")) {
        REQUIRE(!piece.empty() && piece == TrimSpace(piece) && piece.find('/') == std::string::npos);
        REQUIRE(input.find(piece) != std::string::npos);
    }
    std::string again;
    for (const KeyType type : ParseKeyTypes(input)) {
        again += "/ " + KeyTypeName(type);
    }
    REQUIRE(!again.empty() && ParseKeyTypes(again) == ParseKeyTypes(input));
}

void FuzzDefault(const std::string &input)
{
    Put(kDefaultPath, input);
    const std::string certId = GetDefCrtId();
    REQUIRE(certId.size() <= 15 && certId.find('\n') == std::string::npos && input.starts_with(certId));
    REQUIRE(certId.empty() || std::filesystem::is_directory(GetCrtFolderPath(certId)));
    REQUIRE(CheckAndRecoverCrt(certId) == (certId == "c"));
    REQUIRE(certId == "c" || !(input == "c" || input.starts_with("c\n")));
}

// The SHA-256 of the first certificate by another road than the tool's; empty when there is none.
std::string Fingerprint(const std::string &pem)
{
    const std::unique_ptr<BIO, int (*)(BIO *)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                   BIO_free);
    const std::unique_ptr<X509, void (*)(X509 *)> crt(
        PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr), X509_free);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    std::string text;
    if (crt != nullptr && X509_digest(crt.get(), EVP_sha256(), digest, &length) == 1) {
        for (unsigned at = 0; at < length; ++at) {
            char hex[3];
            snprintf(hex, sizeof(hex), "%02x", digest[at]);
            text += hex;
        }
    }
    return text;
}

void FuzzCert(const std::string &input)
{
    const std::string path = kCrtFolder + "cert.pem";
    Put(path, input);
    const int match = checkCrtKeyMatch(path, kCrtFolder + "privkey.pem");
    const std::string text = input.starts_with("\xEF\xBB\xBF") ? input.substr(3) : input;
    REQUIRE(Get(path) == text && match >= -1 && match <= 1);

    const std::string expected = Fingerprint(text);
    Json::Value report(Json::arrayValue);
    const bool isListed = ListCrtChecksums(report);
    REQUIRE(isListed == !expected.empty() && (match != -1) == isListed);
    if (isListed) {
        REQUIRE(report.size() == 1 && report[0]["checksum"] == expected && report[0]["subscriber"] == "p");
    }
    checkCrtKeyMatch(kCrtFolder + "fullchain.pem", path);  // The input as a key.
}

struct Target {
    const char *name;
    void (*fuzz)(const std::string &input);
};

constexpr Target kTargets[] = {
    {"definition", FuzzDefinition}, {"services", FuzzServices}, {"info", FuzzInfo},
    {"renew", FuzzRenew},           {"default", FuzzDefault},   {"cert", FuzzCert},
};

const Target *target = nullptr;

}  // namespace

// A store with one certificate, c, whose folder is complete for all key types: nothing is ever generated.
extern "C" int LLVMFuzzerInitialize(int *, char ***argv)
{
    const std::string name = std::filesystem::path((*argv)[0]).filename();
    target = std::find_if(std::begin(kTargets), std::end(kTargets),
                          [&name](const Target &one) { return name == one.name; });
    if (target == std::end(kTargets) || !std::filesystem::exists("/run/opalcrt-world")) {
        fprintf(stderr, "%s: no target, or not in a world: use scripts/fuzz\n", name.c_str());
        exit(2);
    }
    std::filesystem::create_directories(kCrtFolder);
    std::filesystem::create_directories(kPackageDefinitionDirectory);
    const std::string pair = Get(PAIR_FILE);
    for (const char *prefix : {"", "RSA-", "ECC-"}) {
        for (const char *file : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
            Put(kCrtFolder + prefix + file, pair);
        }
    }
    Json::Value info;
    info["c"]["services"].append(ServiceObj("s"));
    REQUIRE(toFile(kInfoPath, info));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    target->fuzz(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
