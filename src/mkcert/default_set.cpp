#include "mkcert/default_set.h"

#include <cerrno>
#include <vector>

#include "common/log.h"
#include "mkcert/crt_creation.h"
#include "mkcert/key_match.h"
#include "mkcert/output_file.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/process.h"

namespace opalcrt {

namespace {

constexpr unsigned kKeyBits = 2048;
constexpr int kValidDays = 366;

constexpr char kCaConfig[] = "/usr/opal/etc/ssl/cfg.d/ca.cfg";
constexpr char kCaCsr[] = "/usr/opal/etc/ssl/ssl.csr/ca.csr";
constexpr char kCaExtensionPath[] = "/usr/opal/etc/ssl/cfg.d/ca.crt.cfg";
constexpr char kServerConfig[] = "/usr/opal/etc/ssl/cfg.d/server.cfg";
constexpr char kServerCsr[] = "/usr/opal/etc/ssl/.gen/server.csr";

std::string CaCrtPath(const std::string &folder) { return folder + "/opal-ca-cert.pem"; }

std::string CaKeyPath(const std::string &folder) { return folder + "/opal-ca-privkey.pem"; }

CsrSubject MakeSubject(const std::string &commonName)
{
    CsrSubject subject;
    subject.countryName = "TW";
    subject.localityName = "Taipel";
    subject.organizationName = "Kestrel Inc.";
    subject.commonName = commonName;
    return subject;
}

// openssl and cp do not sync what they write.
bool SyncAll(const std::vector<std::string> &paths)
{
    for (const std::string &path : paths) {
        if (!SyncPath(path)) {
            return LOG_ERROR("Failed to sync %s [%d]", path.c_str(), errno);
        }
    }
    return true;
}

}  // namespace

int genDefaultCrtSet(const std::string &folder) { return genNamedCrtSet(folder, kDefaultName, kDefaultName); }

int genNamedCrtSet(const std::string &folder, const std::string &commonName, const std::string &aliasText)
{
    if (genCASet(MakeSubject("Kestrel Inc. CA"), kKeyBits, folder) != 0) {
        return LOG_ERROR("Generate CA key & crt failed");
    }
    if (genCrtSet(MakeSubject(commonName), kKeyBits, aliasText, folder) != 0) {
        return LOG_ERROR("Failed to generate cert set");
    }
    return 0;
}

int genCASet(const CsrSubject &subject, unsigned bits, const std::string &folder)
{
    if (folder.empty()) {
        return LOG_ERROR("Invalid paramter [%s]", folder.c_str());
    }
    const std::string caCrtPath = CaCrtPath(folder);
    const std::string caKeyPath = CaKeyPath(folder);

    if (const int result = genKey(caKeyPath, bits); result != 0) {
        LOG_ERROR("genCAKey() failed");
        return result;
    }
    if (const int result = genCsr(kCaConfig, caKeyPath, kCaCsr, &subject); result != 0) {
        LOG_ERROR("genCACsr() failed");
        return result;
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
    const std::string chainPath = folder + "/fullchain.pem";
    const std::string caCrtPath = CaCrtPath(folder);
    const std::string caKeyPath = CaKeyPath(folder);

    if (genKey(keyPath, bits) != 0) {
        return LOG_ERROR("Failed to generate key");
    }
    if (genCsr(kServerConfig, keyPath, kServerCsr, &subject) == -1) {
        return LOG_ERROR("Failed to generate csr");
    }
    if (genServerCrt(kServerCsr, caCrtPath, crtPath, caKeyPath, kValidDays, aliasText) == -1) {
        return LOG_ERROR("Failed to generate cert");
    }
    if (checkCrtKeyMatch(crtPath, keyPath) != 0) {
        return LOG_ERROR("cert and key is not matching.");
    }

    if (!ReadyOutput(chainPath) ||
        YLIBCExec("/bin/cp", "-f", crtPath.c_str(), chainPath.c_str(), nullptr) != 0) {
        return LOG_ERROR("Failed to copy crt to chain crt.");
    }
    return SyncAll({caKeyPath, caCrtPath, keyPath, crtPath, chainPath, kSerialFile, folder}) ? 0 : -1;
}

}  // namespace opalcrt
