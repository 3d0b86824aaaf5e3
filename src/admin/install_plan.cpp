#include "admin/install_plan.h"

#include <fcntl.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "admin/certificate.h"
#include "admin/message.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "deploy/key_types.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr time_t kEndsSoonSeconds = 30L * 24 * 60 * 60;

// A key and its certificate, and those that sign it, each by the next one.
struct KeyPair {
    UniqueKey key;
    std::string keyFile;
    std::vector<const X509 *> crts;
};

void Add(Json::Value &list, const char *code, const std::string &text)
{
    Json::Value item(Json::objectValue);
    item["code"] = code;
    item["text"] = ToUtf8(text);
    list.append(std::move(item));
}

PemContent ReadPem(const std::string &path, Json::Value &refusals)
{
    const FileLook file = LookAtFile(AT_FDCWD, path);
    PemContent content;
    if (file.error != 0) {
        const char *cause = file.error == EINVAL  ? "it is no regular file"
                            : file.error == EFBIG ? "it is larger than 1 MiB"
                                                  : strerror(file.error);
        Add(refusals, "file-unreadable", path + " cannot be read: " + cause);
        return content;
    }
    content = ParsePem(file.text);
    if (content.isBroken) {
        Add(refusals, "no-pem", path + " is damaged: it has a block that cannot be read as PEM; get it anew");
    }
    return content;
}

UniqueKey ReadKey(const std::string &path, Json::Value &refusals)
{
    const Json::ArrayIndex before = refusals.size();
    PemContent content = ReadPem(path, refusals);
    if (content.hasEncryptedKey) {
        Add(refusals, "key-encrypted",
            path + " has a password, which a service cannot give; take it off: openssl pkey -in " + path +
                " -out NEWFILE");
    } else if (refusals.size() == before && content.keys.size() != 1) {
        Add(refusals, "no-pem",
            path + " holds " + std::to_string(content.keys.size()) + " private keys in PEM, not one");
    }
    return content.keys.size() == 1 ? std::move(content.keys.front()) : nullptr;
}

void ReadCrts(const std::string &path, std::vector<UniqueX509> &crts, Json::Value &refusals)
{
    const Json::ArrayIndex before = refusals.size();
    PemContent content = ReadPem(path, refusals);
    if (refusals.size() == before && content.crts.empty()) {
        Add(refusals, "no-pem", path + " holds no certificate in PEM");
    }
    for (UniqueX509 &crt : content.crts) {
        const auto isSame = [&crt](const UniqueX509 &known) { return IsSameCrt(*known, *crt); };
        if (std::none_of(crts.begin(), crts.end(), isSame)) {
            crts.push_back(std::move(crt));
        }
    }
}

std::vector<const X509 *> OrderChain(const EVP_PKEY &key, const std::vector<UniqueX509> &crts)
{
    std::vector<const X509 *> chain;
    const auto append = [&](const auto &isNext) {
        const auto found = std::find_if(crts.begin(), crts.end(), [&](const UniqueX509 &crt) {
            return std::find(chain.begin(), chain.end(), crt.get()) == chain.end() && isNext(*crt);
        });
        if (found != crts.end()) {
            chain.push_back(found->get());
        }
        return found != crts.end();
    };
    if (append([&key](const X509 &crt) { return IsKeyOf(key, crt); })) {
        while (append([&chain](const X509 &crt) { return IsSignedBy(*chain.back(), crt); })) {
        }
    }
    return chain;
}

void CheckTimes(const X509 &crt, InstallPlan &plan)
{
    const CrtFacts facts = DescribeCrt(crt);
    const time_t now = time(nullptr);
    if (facts.notAfter < now) {
        Add(plan.refusals, "expired",
            "the certificate of " + facts.subject + " has ended: " + ToTimeText(facts.notAfter));
    } else if (facts.notBefore > now) {
        Add(plan.refusals, "not-yet-valid",
            "the certificate of " + facts.subject + " has not begun: " + ToTimeText(facts.notBefore) +
                "; is the clock right?");
    } else if (facts.notAfter - now < kEndsSoonSeconds) {
        Add(plan.warnings, "expires-soon",
            "the certificate of " + facts.subject + " ends soon: " + ToTimeText(facts.notAfter));
    }
}

void CheckPairs(const std::vector<KeyPair> &pairs, const std::vector<UniqueX509> &crts, InstallPlan &plan)
{
    std::vector<const X509 *> used;
    for (const KeyPair &pair : pairs) {
        if (pair.crts.empty()) {
            Add(plan.refusals, "key-mismatch",
                "the key in " + pair.keyFile + " fits none of the certificates given");
            continue;
        }
        used.insert(used.end(), pair.crts.begin(), pair.crts.end());
        if (!IsSelfSigned(*pair.crts.back()) && !IsIssuerWellKnown(*pair.crts.back())) {
            Add(plan.warnings, "chain-unknown",
                "the chain of " + DescribeCrt(*pair.crts.front()).subject +
                    " ends before a root that this machine knows: clients may not accept it; is a --chain "
                    "missing?");
        }
    }
    for (const UniqueX509 &crt : crts) {
        if (std::find(used.begin(), used.end(), crt.get()) != used.end()) {
            CheckTimes(*crt, plan);
        } else if (used.size() > 0) {
            Add(plan.refusals, "chain-broken",
                "the certificate of " + DescribeCrt(*crt).subject +
                    " has signed none of those before it; leave it out");
        }
    }
}

KeyType TypeOf(const KeyPair &pair)
{
    return EVP_PKEY_get_base_id(pair.key.get()) == EVP_PKEY_EC ? KeyType::ECC : KeyType::RSA;
}

void CheckTypes(const std::vector<KeyPair> &pairs, InstallPlan &plan)
{
    for (const KeyPair &pair : pairs) {
        const int id = EVP_PKEY_get_base_id(pair.key.get());
        if (id != EVP_PKEY_RSA && id != EVP_PKEY_EC) {
            Add(plan.refusals, "key-type", pair.keyFile + " holds neither an RSA nor an EC key");
        }
    }
    if (pairs.size() == 2 && TypeOf(pairs[0]) == TypeOf(pairs[1])) {
        Add(plan.refusals, "key-type", "two keys are an RSA and an EC key, and these are of one type");
    }
}

void WarnOfLostNames(const std::string &id, const KeyPair &pair, InstallPlan &plan)
{
    const UniqueX509 old = FirstCrt(LookAtFile(AT_FDCWD, GetCrtFolderPath(id) + "/cert.pem").text);
    const std::vector<std::string> names = DescribeCrt(*pair.crts.front()).names;
    for (const std::string &name : old != nullptr ? DescribeCrt(*old).names : std::vector<std::string>()) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            Add(plan.warnings, "name-lost",
                "the new certificate is not for " + name + ", which the old one is for");
        }
    }
}

void AddFiles(const KeyPair &pair, const std::string &prefix, InstallPlan &plan)
{
    std::string chain;
    for (size_t at = 1; at < pair.crts.size(); ++at) {
        chain += ToPem(*pair.crts[at]);
    }
    const std::string crt = ToPem(*pair.crts.front());
    plan.files.emplace_back(prefix + "cert.pem", crt);
    plan.files.emplace_back(prefix + "privkey.pem", ToPem(*pair.key));
    plan.files.emplace_back(prefix + "fullchain.pem", crt + chain);
    if (prefix.empty() && !chain.empty()) {
        plan.files.emplace_back("chain.pem", chain);
    }
}

void MakeFiles(const std::vector<KeyPair> &pairs, InstallPlan &plan)
{
    AddFiles(pairs.front(), "", plan);
    if (pairs.size() == 1) {
        return;
    }
    for (const KeyPair &pair : pairs) {
        AddFiles(pair, KeyTypePrefix(TypeOf(pair)), plan);
    }
    Json::Value renew(Json::objectValue);
    renew["key_types"] = KeyTypeName(TypeOf(pairs[0])) + "/" + KeyTypeName(TypeOf(pairs[1]));
    plan.files.emplace_back("renew.json", toString(renew));
}

// What a cut-off run of the same command has left: only its entry in INFO is missing.
bool HoldsTheSame(const std::string &folder, const InstallPlan &plan)
{
    return std::all_of(plan.files.begin(), plan.files.end(), [&folder](const auto &file) {
        return LookAtFile(AT_FDCWD, folder + "/" + file.first).text == file.second;
    });
}

// The names that the books and their temporary files have.
bool IsNameOfBook(const std::string &id)
{
    const std::string stem = id.substr(0, id.find('.'));
    return stem == "INFO" || stem == "SERVICES" || stem == "DEFAULT" || stem == "RECOVERING";
}

}  // namespace

InstallPlan PlanInstall(const InstallOptions &options)
{
    InstallPlan plan;
    std::vector<KeyPair> pairs;
    for (const std::string &file : options.keyFiles) {
        if (UniqueKey key = ReadKey(file, plan.refusals)) {
            pairs.push_back({std::move(key), file, {}});
        }
    }
    std::vector<UniqueX509> crts;
    for (const std::vector<std::string> &files : {options.crtFiles, options.chainFiles}) {
        for (const std::string &file : files) {
            ReadCrts(file, crts, plan.refusals);
        }
    }
    // Without one of the files nothing sensible can be said of how the others fit together.
    if (plan.refusals.empty()) {
        for (KeyPair &pair : pairs) {
            pair.crts = OrderChain(*pair.key, crts);
        }
        CheckTypes(pairs, plan);
        CheckPairs(pairs, crts, plan);
    }
    if (plan.refusals.empty()) {
        MakeFiles(pairs, plan);
        WarnOfLostNames(options.id, pairs.front(), plan);
    }
    CheckId(options, plan);
    return plan;
}

void CheckId(const InstallOptions &options, InstallPlan &plan)
{
    const std::string &id = options.id;
    const bool hasControl = std::any_of(id.begin(), id.end(), [](unsigned char byte) { return byte < 0x20; });
    if (!IsPlainFolderName("." + id + ".new") || id.starts_with('.') || !IsUtf8(id) || hasControl ||
        IsNameOfBook(id)) {
        Add(plan.refusals, "bad-id", "\"" + id + "\" cannot be the name of a certificate's folder");
        return;
    }
    const std::string defaultText = LookAtFile(AT_FDCWD, kDefaultPath).text;
    if (id.size() > kLongestDefaultId && defaultText.substr(0, defaultText.find('\n')) == id) {
        Add(plan.refusals, "id-too-long",
            id + " would be the default certificate, whose id has at most 15 bytes");
    }
    Json::Value info;
    if (!fromFile(kInfoPath, info) || !info.isObject()) {
        Add(plan.refusals, "book-broken", std::string(kInfoPath) + " cannot be read; see opalcrt status");
        return;
    }
    const std::string folder = GetCrtFolderPath(id);
    if (!options.isNew && !GetMember(info, id.c_str()).isObject()) {
        Add(plan.refusals, "not-in-info", "there is no certificate " + id + "; with --new it is made");
    } else if (options.isNew && info.isMember(id)) {
        Add(plan.refusals, "in-info",
            "there is a certificate " + id + " already; without --new it is replaced");
    } else if (options.isNew && IsIn(AT_FDCWD, folder) &&
               (plan.files.empty() || !HoldsTheSame(folder, plan))) {
        Add(plan.refusals, "in-archive",
            folder + " is there already, though INFO does not list it; move it away");
    }
}

}  // namespace opalcrt
