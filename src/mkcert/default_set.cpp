#include "mkcert/default_set.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "common/log.h"
#include "mkcert/crt_creation.h"
#include "mkcert/key_match.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/process.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kMkcert;

constexpr unsigned kKeyBits = 2048;
constexpr int kValidDays = 366;

constexpr char kCaConfig[] = "/usr/opal/etc/ssl/cfg.d/ca.cfg";
constexpr char kCaCsr[] = "/usr/opal/etc/ssl/ssl.csr/ca.csr";
constexpr char kCaExtensionPath[] = "/usr/opal/etc/ssl/cfg.d/ca.crt.cfg";
constexpr char kServerConfig[] = "/usr/opal/etc/ssl/cfg.d/server.cfg";
constexpr char kServerCsr[] = "/usr/opal/etc/ssl/.gen/server.csr";

std::string CaCrtPath(const std::string &folder)
{
    return folder + "/opal-ca-cert.pem";
}

std::string CaKeyPath(const std::string &folder)
{
    return folder + "/opal-ca-privkey.pem";
}

std::string ChainPath(const std::string &folder)
{
    return folder + "/fullchain.pem";
}

CsrSubject MakeSubject(const std::string &commonName)
{
    CsrSubject subject;
    subject.countryName = "TW";
    subject.localityName = "Taipel";
    subject.organizationName = "Kestrel Inc.";
    subject.commonName = commonName;
    return subject;
}

int genCAKey(const std::string &caKeyPath, unsigned bits)
{
    return genKey(caKeyPath, bits);
}

int genCACsr(const std::string &caKeyPath, const CsrSubject &subject)
{
    return genCsr(kCaConfig, caKeyPath, kCaCsr, &subject);
}

// From here on the folder is visibly incomplete until the chain is made again.
bool RemoveChain(const std::string &folder)
{
    const std::string chain = ChainPath(folder);
    if ((unlink(chain.c_str()) != 0 && errno != ENOENT) || !SyncParent(chain)) {
        LOG_ERROR("Failed to remove %s [%d]", chain.c_str(), errno);
        return false;
    }
    return true;
}

// `path` must be written already; openssl and cp do not sync what they write.
bool SyncOrLog(const std::string &path)
{
    if (!SyncPath(path)) {
        LOG_ERROR("Failed to sync %s [%d]", path.c_str(), errno);
        return false;
    }
    return true;
}

// A copy is not made in one step, and a part of a chain looks like a chain: while it is made the key, without
// which the folder is incomplete, has another name. A name that a kill leaves is taken over by the next one.
bool CopyChain(const std::string &folder, const std::string &crtPath, const std::string &keyPath)
{
    const std::string chain = ChainPath(folder);
    const std::string held = keyPath + ".held";
    if (rename(keyPath.c_str(), held.c_str()) != 0 || !SyncParent(held)) {
        LOG_ERROR("Failed to move %s to %s [%d]", keyPath.c_str(), held.c_str(), errno);
        return false;
    }
    if (YLIBCExec("/bin/cp", "-f", crtPath.c_str(), chain.c_str(), nullptr) != 0) {
        LOG_ERROR("Failed to copy crt to chain crt.");
        RemoveChain(folder);
        return false;
    }
    if (!SyncOrLog(chain) || !SyncOrLog(folder)) {
        RemoveChain(folder);
        return false;
    }
    if (rename(held.c_str(), keyPath.c_str()) != 0) {
        LOG_ERROR("Failed to move %s to %s [%d]", held.c_str(), keyPath.c_str(), errno);
        return false;
    }
    return SyncOrLog(folder);
}

}  // namespace

int genDefaultCrtSet(const std::string &folder)
{
    return genNamedCrtSet(folder, kDefaultName, kDefaultName);
}

int genNamedCrtSet(const std::string &folder, const std::string &commonName, const std::string &aliasText)
{
    if (genCASet(MakeSubject("Kestrel Inc. CA"), kKeyBits, folder) != 0) {
        LOG_ERROR("Generate CA key & crt failed");
        return -1;
    }
    if (genCrtSet(MakeSubject(commonName), kKeyBits, aliasText, folder) != 0) {
        LOG_ERROR("Failed to generate cert set");
        return -1;
    }
    return 0;
}

int genCASet(const CsrSubject &subject, unsigned bits, const std::string &folder)
{
    if (folder.empty()) {
        LOG_ERROR("Invalid paramter [%s]", folder.c_str());
        return -1;
    }
    const std::string caCrtPath = CaCrtPath(folder);
    const std::string caKeyPath = CaKeyPath(folder);

    if (const int result = genCAKey(caKeyPath, bits); result != 0) {
        LOG_ERROR("genCAKey() failed");
        return result;
    }
    if (const int result = genCACsr(caKeyPath, subject); result != 0) {
        LOG_ERROR("genCACsr() failed");
        return result;
    }
    if (!RemoveChain(folder)) {
        return -1;
    }
    if (const int result = genCACrt(caCrtPath, caKeyPath); result != 0) {
        LOG_ERROR("genCACrt() failed");
        return result;
    }
    if (const int result = checkCrtKeyMatch(caCrtPath, caKeyPath); result != 0) {
        LOG_ERROR("Root certificate and key is not matching");
        return result;
    }
    return 0;
}

int genCACrt(const std::string &caCrtPath, const std::string &caKeyPath)
{
    return genCrt(kCaExtensionPath, kCaCsr, caCrtPath, "", "", caKeyPath, true, kValidDays, "");
}

int genCrtSet(const CsrSubject &subject, unsigned bits, const std::string &aliasText,
              const std::string &folder)
{
    const std::string keyPath = folder + "/privkey.pem";
    const std::string crtPath = folder + "/cert.pem";
    const std::string caCrtPath = CaCrtPath(folder);
    const std::string caKeyPath = CaKeyPath(folder);

    if (genKey(keyPath, bits) != 0) {
        LOG_ERROR("Failed to generate key");
        return -1;
    }
    if (genCsr(kServerConfig, keyPath, kServerCsr, &subject) == -1) {
        LOG_ERROR("Failed to generate csr");
        return -1;
    }
    if (genServerCrt(kServerCsr, caCrtPath, crtPath, caKeyPath, kValidDays, aliasText) == -1) {
        LOG_ERROR("Failed to generate cert");
        return -1;
    }
    if (checkCrtKeyMatch(crtPath, keyPath) != 0) {
        LOG_ERROR("cert and key is not matching.");
        return -1;
    }

    for (const std::string &path :
         {caKeyPath, caCrtPath, keyPath, crtPath, std::string(kSerialFile), folder}) {
        if (!SyncOrLog(path)) {
            return -1;
        }
    }
    return CopyChain(folder, crtPath, keyPath) ? 0 : -1;
}

}  // namespace opalcrt
