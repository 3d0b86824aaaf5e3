#include "admin/archive.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "admin/certificate.h"
#include "admin/report.h"
#include "deploy/key_types.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// A key, and its certificate and those that sign it, each by the next one.
struct KeyPair {
    UniqueOpenSSL<EVP_PKEY> key;
    KeyType type;
    std::string keyFile;
    std::vector<const X509 *> crts;
};

PemContent ReadPem(const std::string &path, bool wantsKey, Json::Value &findings)
{
    const FileLook file = LookAtFile(path);
    PemContent content = ParsePem(file.text);
    const char *cause = file.error == EINVAL ? "it is no regular file" : strerror(file.error);
    AddIf(file.error != 0, findings, "unreadable", path + " cannot be read (at most 1 MiB): " + cause) ||
        AddIf(content.isBroken, findings, "no-pem",
              path + " is damaged: a block in it cannot be read; get it anew") ||
        AddIf(wantsKey && content.hasEncryptedKey, findings, "key-encrypted",
              path + " has a password; take it off: openssl pkey -in " + path + " -out NEWFILE") ||
        AddIf(wantsKey ? content.keys.size() != 1 : content.crts.empty(), findings, "no-pem",
              path + " does not hold " + (wantsKey ? "one private key" : "a certificate") + " in PEM");
    return content;
}

std::vector<KeyPair> ReadKeys(const std::vector<std::string> &paths, Json::Value &findings)
{
    std::vector<KeyPair> pairs;
    for (const std::string &path : paths) {
        PemContent content = ReadPem(path, true, findings);
        if (content.keys.size() != 1) {
            continue;
        }
        const int id = EVP_PKEY_get_base_id(content.keys.front().get());
        const KeyType type = id == EVP_PKEY_EC ? KeyType::ECC : KeyType::RSA;
        AddIf(id != EVP_PKEY_RSA && id != EVP_PKEY_EC, findings, "key-type",
              path + " holds neither an RSA nor an EC key") ||
            AddIf(std::ranges::count(pairs, type, &KeyPair::type) != 0, findings, "key-type",
                  path + " holds a second key of one type; two are an RSA and an EC key");
        pairs.push_back({std::move(content.keys.front()), type, path, {}});
    }
    return pairs;
}

std::vector<UniqueOpenSSL<X509>> ReadCrts(const Options &options, Json::Value &findings)
{
    std::vector<std::string> paths = options.crtFiles;
    paths.insert(paths.end(), options.chainFiles.begin(), options.chainFiles.end());
    std::vector<UniqueOpenSSL<X509>> crts;
    for (const std::string &path : paths) {
        PemContent content = ReadPem(path, false, findings);
        for (UniqueOpenSSL<X509> &crt : content.crts) {
            const auto isSame = [&crt](const auto &known) { return X509_cmp(known.get(), crt.get()) == 0; };
            if (std::ranges::none_of(crts, isSame)) {
                crts.push_back(std::move(crt));
            }
        }
    }
    return crts;
}

std::vector<const X509 *> OrderChain(const EVP_PKEY &key, const std::vector<UniqueOpenSSL<X509>> &crts)
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

void CheckChains(const std::vector<KeyPair> &pairs, const std::vector<UniqueOpenSSL<X509>> &crts,
                 Json::Value &findings)
{
    std::vector<const X509 *> used;
    for (const KeyPair &pair : pairs) {
        used.insert(used.end(), pair.crts.begin(), pair.crts.end());
        if (!AddIf(pair.crts.empty(), findings, "key-mismatch",
                   "the key in " + pair.keyFile + " fits none of the certificates given")) {
            const X509 &last = *pair.crts.back();
            AddIf(!IsSignedBy(last, last) && !IsIssuerWellKnown(last), findings, "chain-unknown",
                  "the chain of " + DescribeCrt(*pair.crts.front())["subject"].asString() +
                      " reaches no root that is known here; is a --chain missing?");
        }
    }
    for (const UniqueOpenSSL<X509> &crt : crts) {
        // One that signed another, but is not the next, is another way to a root, and not needed.
        const auto isUsed = [&crt](const X509 *each) { return each == crt.get() || IsSignedBy(*each, *crt); };
        AddIf(!used.empty() && std::ranges::none_of(used, isUsed), findings, "chain-broken",
              "the certificate of " + DescribeCrt(*crt)["subject"].asString() +
                  " signed none of the others; leave it out");
    }
}

void WarnOfLostNames(const std::string &id, const X509 &crt, Json::Value &findings)
{
    const UniqueOpenSSL<X509> old = FirstCrt(LookAtFile(GetCrtFolderPath(id) + "/cert.pem").text);
    const Json::Value names = DescribeCrt(crt)["names"];
    const Json::Value oldNames = old != nullptr ? DescribeCrt(*old)["names"] : names;
    for (const Json::Value &name : oldNames) {
        AddIf(std::ranges::count(names, name) == 0, findings, "name-lost",
              "the new certificate is not for " + name.asString() + ", as the old one is");
    }
}

void AddFiles(const KeyPair &pair, const std::string &prefix, CrtFiles &files)
{
    const std::string crt = ToPem(*pair.crts.front());
    std::string full;
    for (const X509 *each : pair.crts) {
        full += ToPem(*each);
    }
    files[prefix + "cert.pem"] = crt;
    files[prefix + "privkey.pem"] = ToPem(*pair.key);
    files[prefix + "fullchain.pem"] = full;
    if (prefix.empty() && full != crt) {
        files["chain.pem"] = full.substr(crt.size());
    }
}

}  // namespace

CrtFiles PlanInstall(const Options &options, Json::Value &findings)
{
    std::vector<KeyPair> pairs = ReadKeys(options.keyFiles, findings);
    const std::vector<UniqueOpenSSL<X509>> crts = ReadCrts(options, findings);
    const bool areAllRead = findings.empty();
    for (const UniqueOpenSSL<X509> &crt : crts) {
        AddTimeFinding("the certificate of " + DescribeCrt(*crt)["subject"].asString(), *crt, 30, findings);
    }
    if (!areAllRead) {
        return {};  // Without one of the files nothing sensible can be said of how the others fit together.
    }
    for (KeyPair &pair : pairs) {
        pair.crts = OrderChain(*pair.key, crts);
    }
    CheckChains(pairs, crts, findings);
    if (std::ranges::any_of(pairs, [](const KeyPair &pair) { return pair.crts.empty(); })) {
        return {};
    }
    WarnOfLostNames(*options.id, *pairs.front().crts.front(), findings);
    CrtFiles files;
    AddFiles(pairs.front(), "", files);
    if (pairs.size() == 2) {
        Json::Value types;
        for (const KeyPair &pair : pairs) {
            AddFiles(pair, KeyTypePrefix(pair.type), files);
            types.append(KeyTypeName(pair.type));
        }
        files["renew.json"] = "{\"key_types\":\"" + Join(types, "/") + "\"}\n";
    }
    return files;
}

}  // namespace opalcrt
