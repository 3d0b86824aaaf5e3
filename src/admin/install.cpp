#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <regex>
#include <vector>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_member.h"
#include "deploy/key_types.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"
#include "store/crt_info.h"
#include "store/default_crt.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

using Crts = std::vector<UniqueOpenSSL<X509>>;

// A key, and its certificate and those that sign it, each by the next one.
struct KeyPair {
    UniqueOpenSSL<EVP_PKEY> key;
    KeyType type;
    std::string keyFile;
    std::vector<const X509 *> chain;
};

FileLook ReadGiven(const std::string &path, Json::Value &findings)
{
    FileLook file = LookAtFile(path);
    // As people join files of which the first has no end of line.
    file.text = std::regex_replace(file.text, std::regex("----------BEGIN "), "-----\n-----BEGIN ");
    const char *cause = file.error == EINVAL ? "it is no regular file" : strerror(file.error);
    AddIf(file.error != 0, findings, "unreadable", path + " cannot be read (at most 1 MiB): " + cause);
    return file;
}

void ReadKey(const std::string &path, std::vector<KeyPair> &pairs, Json::Value &findings)
{
    const FileLook file = ReadGiven(path, findings);
    UniqueOpenSSL<EVP_PKEY> key = FirstKey(file.text);
    if (key == nullptr) {
        AddIf(file.text.find("ENCRYPTED") != std::string::npos, findings, "key-encrypted",
              path + " has a password; take it off: openssl pkey -in " + path + " -out NEWFILE") ||
            AddIf(file.error == 0, findings, "no-pem", path + " holds no private key in PEM");
        return;
    }
    const int id = EVP_PKEY_get_base_id(key.get());
    const KeyType type = id == EVP_PKEY_EC ? KeyType::ECC : KeyType::RSA;
    AddIf((id != EVP_PKEY_RSA && id != EVP_PKEY_EC) || std::ranges::count(pairs, type, &KeyPair::type) != 0,
          findings, "key-type", path + " holds a second key of its type, or one that is neither RSA nor EC");
    pairs.push_back({std::move(key), type, path, {}});
}

// Adds the certificates that are not there yet.
void ReadCrts(const std::string &path, Crts &crts, Json::Value &findings)
{
    const FileLook file = ReadGiven(path, findings);
    const UniqueOpenSSL<BIO> bio(BIO_new_mem_buf(file.text.data(), static_cast<int>(file.text.size())));
    bool isEmpty = true;
    while (UniqueOpenSSL<X509> crt{PEM_read_bio_X509(bio.get(), nullptr, NoPassword, nullptr)}) {
        isEmpty = false;
        if (std::ranges::none_of(crts,
                                 [&](const auto &old) { return X509_cmp(old.get(), crt.get()) == 0; })) {
            crts.push_back(std::move(crt));
        }
    }
    const bool isWhole = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    AddIf(file.error == 0 && (isEmpty || !isWhole), findings, "no-pem",
          path + (isWhole ? " holds no certificate in PEM" : " has a damaged certificate: get it anew"));
}

std::vector<const X509 *> OrderChain(const EVP_PKEY &key, const Crts &crts)
{
    std::vector<const X509 *> chain;
    const auto isNext = [&](const UniqueOpenSSL<X509> &crt) {
        return std::ranges::count(chain, crt.get()) == 0 &&
               (chain.empty() ? IsKeyOf(key, *crt) : IsSignedBy(*chain.back(), *crt));
    };
    for (auto next = crts.begin(); (next = std::ranges::find_if(crts, isNext)) != crts.end();) {
        chain.push_back(next->get());
    }
    return chain;
}

// Whether it is a root, or the machine's own CA certificates lead to one, whatever the times.
bool IsEndKnown(const X509 &crt)
{
    const UniqueOpenSSL<X509_STORE> known(X509_STORE_new());
    const UniqueOpenSSL<X509_STORE_CTX> check(X509_STORE_CTX_new());
    return IsSignedBy(crt, crt) ||
           (X509_STORE_set_default_paths(known.get()) == 1 &&
            X509_STORE_set_flags(known.get(), X509_V_FLAG_NO_CHECK_TIME) == 1 &&
            X509_STORE_CTX_init(check.get(), known.get(), const_cast<X509 *>(&crt), nullptr) == 1 &&
            X509_verify_cert(check.get()) == 1);
}

std::string SubjectOf(const X509 &crt) { return DescribeCrt(crt)["subject"].asString(); }

// Finds the pairs' chains, and tells what does not fit together.
void CheckChains(std::vector<KeyPair> &pairs, const Crts &crts, Json::Value &findings)
{
    std::vector<const X509 *> used;
    for (KeyPair &pair : pairs) {
        pair.chain = OrderChain(*pair.key, crts);
        used.insert(used.end(), pair.chain.begin(), pair.chain.end());
        AddIf(pair.chain.empty(), findings, "key-mismatch",
              "the key in " + pair.keyFile + " fits none of the certificates given") ||
            AddIf(!IsEndKnown(*pair.chain.back()), findings, "chain-unknown",
                  "the chain of " + SubjectOf(*pair.chain.front()) +
                      " reaches no root that is known here; is a --chain missing?");
    }
    for (const UniqueOpenSSL<X509> &crt : crts) {
        // One that signed another, but is not the next, is another way to a root, and not needed.
        const auto isUsed = [&crt](const X509 *each) { return each == crt.get() || IsSignedBy(*each, *crt); };
        AddIf(!used.empty() && std::ranges::none_of(used, isUsed), findings, "chain-broken",
              "the certificate of " + SubjectOf(*crt) + " signed none of the others; leave it out");
    }
}

// Names and contents of the new folder's files, for pairs that are whole.
std::map<std::string, std::string> MakeFiles(const std::vector<KeyPair> &pairs)
{
    std::map<std::string, std::string> files;
    const auto add = [&files](const KeyPair &pair, const std::string &prefix) {
        files[prefix + "cert.pem"] = ToPem(*pair.chain.front());
        files[prefix + "privkey.pem"] = ToPem(*pair.key);
        for (const X509 *crt : pair.chain) {
            files[prefix + "fullchain.pem"] += ToPem(*crt);
        }
    };
    add(pairs.front(), "");
    const std::string chain = files["fullchain.pem"].substr(files["cert.pem"].size());
    if (!chain.empty()) {
        files["chain.pem"] = chain;
    }
    if (pairs.size() == 2) {
        add(pairs[0], KeyTypePrefix(pairs[0].type));
        add(pairs[1], KeyTypePrefix(pairs[1].type));
        files["renew.json"] =
            R"({"key_types":")" + KeyTypeName(pairs[0].type) + "/" + KeyTypeName(pairs[1].type) + "\"}\n";
    }
    return files;
}

// Reads the files that have been given, and finds all that is wrong with them.
std::vector<KeyPair> ReadPairs(const Options &options, Crts &crts, Json::Value &findings)
{
    std::vector<KeyPair> pairs;
    for (const std::string &path : options.keyFiles) {
        ReadKey(path, pairs, findings);
    }
    for (const auto *paths : {&options.crtFiles, &options.chainFiles}) {
        for (const std::string &path : *paths) {
            ReadCrts(path, crts, findings);
        }
    }
    const bool areAllRead = findings.empty();
    for (const UniqueOpenSSL<X509> &crt : crts) {
        AddTimeFinding("the certificate of " + SubjectOf(*crt), *crt, 30, findings);
    }
    if (areAllRead) {  // Else nothing sensible can be said of how the others fit together.
        CheckChains(pairs, crts, findings);
    }
    return pairs;
}

void CheckId(const Options &options, Json::Value &findings)
{
    const std::string &id = *options.id;
    const std::string folder = GetCrtFolderPath(id);
    const Json::Value *info = ReadCrtInfo();
    // The books and their temporary files have names that begin so; other names with a dot in front are ours, too.
    const std::regex taken("(INFO|SERVICES|DEFAULT)?(\\..*)?");
    AddIf(!IsPlainFolderName("." + id + ".new") || std::regex_match(id, taken) || ToShownText(id) != id,
          findings, "bad-id", "\"" + id + "\" cannot be the name of a certificate's folder") ||
        AddIf(info == nullptr || !info->isObject(), findings, "book-broken",
              std::string("without ") + kInfoPath + " nothing can be installed") ||
        AddIf(!options.isNew && !GetMember(*info, id.c_str()).isObject(), findings, "no-such-id",
              "there is no certificate " + id + "; with --new it is made") ||
        AddIf(options.isNew && YLIBCFileExist(folder.c_str()) != 0, findings, "folder-exists",
              folder + " is there already; it is replaced without --new, if INFO lists it");
    AddIf(id.size() > kLongestDefaultId && LookAtFile(kDefaultPath).text == id + "\n", findings,
          "id-too-long", id + " would be the default certificate: at most 15 bytes");
}

void WarnOfLostNames(const std::string &id, const X509 &crt, Json::Value &findings)
{
    const UniqueOpenSSL<X509> old = FirstCrt(LookAtFile(GetCrtFolderPath(id) + "/cert.pem").text);
    const Json::Value names = old != nullptr ? DescribeCrt(*old)["names"] : Json::Value();
    for (const Json::Value &name : names) {
        AddIf(!IsFor(crt, name.asString()), findings, "name-lost",
              "the new certificate is not for " + name.asString() + ", as the old one is");
    }
}

}  // namespace

int Install(const Options &options, Json::Value &report)
{
    const std::string &id = *options.id;
    report["id"] = id;
    Json::Value &findings = report["findings"] = Json::Value(Json::arrayValue);
    auto lock = options.onlyCheck ? nullptr : TakeRecoverLock();  // Who only asks waits for nobody.
    Crts crts;
    const std::vector<KeyPair> pairs = ReadPairs(options, crts, findings);
    CheckId(options, findings);
    if (!pairs.empty() && !pairs.front().chain.empty()) {
        WarnOfLostNames(id, *pairs.front().chain.front(), findings);
    }
    bool isRefused = false;
    for (const Json::Value &finding : findings) {
        if (finding["severity"] == "critical") {
            Tell(finding["text"].asString());
            isRefused = true;
        } else {
            Say(options, "warning " + finding["code"].asString() + ": " + finding["text"].asString());
        }
    }
    if (isRefused) {
        return kRefused;
    }
    if (options.onlyCheck) {
        report["result"] = "can-be-installed";
        return kDone;
    }
    ReplaceCrtFolder(id, [&pairs](const std::string &folder) {
        for (const auto &[name, text] : MakeFiles(pairs)) {
            RequireCall(WriteNewFile(folder + "/" + name, text, std::string(), 0400), "cannot write " + name);
        }
    });
    lock.reset();
    Say(options, id + ": in the archive");
    return DeployChanged(options, report);
}

}  // namespace opalcrt
