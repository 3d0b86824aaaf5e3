#include "mkcert/crt_creation.h"

#include <sys/stat.h>

#include <cerrno>
#include <vector>

#include "common/log.h"
#include "mkcert/output_file.h"
#include "mkcert/serial_file.h"
#include "platform/file_test.h"
#include "platform/process.h"

namespace opalcrt {

namespace {

constexpr char kOpenSSL[] = "/usr/bin/openssl";
constexpr char kServerExtensionPath[] = "/usr/opal/etc/ssl/cfg.d/server.crt.cfg";
constexpr mode_t kOwnerReadOnly = 0400;

// Writes the server's extension file from the alias text.
void WriteServerExtensions(const std::string &extensionPath, const std::string &aliasText)
{
    constexpr size_t kListSize = 512;
    const std::unique_ptr<SzList> aliases = YLIBCSzListAlloc(kListSize);
    if (aliases == nullptr) {
        LOG_ERROR("Out of memory!! size=512");
    } else if (YLIBCStrSep(aliasText.c_str(), ";", aliases.get()) == -1) {
        LOG_ERROR("String separate failed.");
    } else {
        genServerCnf(extensionPath.c_str(), aliases.get());
    }
}

int RunOpenSSL(const std::string &output, std::vector<std::string> args)
{
    if (!ReadyOutput(output)) {
        return -1;
    }
    std::vector<char *> argv;
    for (std::string &arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return YLIBCExecv(kOpenSSL, argv.data(), 1);
}

}  // namespace

int genKey(const std::string &keyPath, unsigned bits)
{
    if (bits == 0 || keyPath.empty()) {
        return LOG_ERROR("Failed to genKey with invalid parameters");
    }
    if (genDirectory(keyPath) != 0) {
        return LOG_ERROR("Failed to generate directory for %s", keyPath.c_str());
    }
    if (!ReadyKeyOutput(keyPath) ||
        YLIBCExecl(kOpenSSL, kExecDefault, "genrsa", "-rand", "/dev/urandom", "-out", keyPath.c_str(),
                   std::to_string(bits).c_str(), nullptr) != 0) {
        return LOG_ERROR("Error when execute");
    }
    if (chmod(keyPath.c_str(), kOwnerReadOnly) != 0) {
        return LOG_ERROR("chmod %s failed with %d", keyPath.c_str(), errno);
    }
    return 0;
}

int genCsr(const std::string &configPath, const std::string &keyPath, const std::string &csrPath,
           const CsrSubject *subject)
{
    if (configPath.empty() || keyPath.empty() || subject == nullptr || csrPath.empty()) {
        return LOG_ERROR("Failed to generate csr with invalid paramters");
    }
    if (YLIBCFileExist(keyPath.c_str()) != 1) {
        return LOG_ERROR("Key is not existed");
    }
    if (genDirectory(csrPath) != 0) {
        return LOG_ERROR("Failed to generate directory for %s", csrPath.c_str());
    }
    if (modifyCsrCfg(configPath, *subject) != 0) {
        return LOG_ERROR("Failed to generate csr config file failed");
    }

    if (!ReadyOutput(csrPath) ||
        YLIBCExecl(kOpenSSL, kExecDefault, "req", "-config", configPath.c_str(), "-new", "-sha256", "-key",
                   keyPath.c_str(), "-out", csrPath.c_str(), nullptr) != 0) {
        return LOG_ERROR("Create CSR failed, command");
    }
    if (chmod(csrPath.c_str(), kOwnerReadOnly) == -1) {
        return LOG_ERROR("Failed to chmod %s [%d]", csrPath.c_str(), errno);
    }
    return 0;
}

int genCrt(const std::string &extensionPath, const std::string &csrPath, const std::string &caCrtPath,
           const std::string &serialPath, const std::string &outputPath, const std::string &keyPath,
           bool isSelfSigned, int days, const std::string &aliasText)
{
    if (extensionPath.empty() || csrPath.empty() || caCrtPath.empty() || days <= 0) {
        return LOG_ERROR("genCrt params invalid");
    }
    if (YLIBCFileExist(csrPath.c_str()) != 1) {
        return LOG_ERROR("Csr is not existed");
    }
    if (YLIBCFileExist(keyPath.c_str()) != 1) {
        return LOG_ERROR("Key is not existed");
    }

    const std::string &output = isSelfSigned ? caCrtPath : outputPath;
    if (isSelfSigned) {
        genCACnf(extensionPath.c_str());
    } else {
        if (serialPath.empty() || outputPath.empty()) {
            return LOG_ERROR("genCrt params invalid");
        }
        if (YLIBCFileExist(serialPath.c_str()) != 1) {
            return LOG_ERROR("Serial file is not existed");
        }
        WriteServerExtensions(extensionPath, aliasText);
    }

    if (genDirectory(output) != 0) {
        return LOG_ERROR("generate directory failed");
    }
    std::vector<std::string> args = {
        kOpenSSL, "x509",  "-extfile", extensionPath, "-days", std::to_string(days),
        "-in",    csrPath, "-req",     "-sha256",     "-out",  output};
    const std::vector<std::string> signer =
        isSelfSigned ? std::vector<std::string>{"-signkey", keyPath}
                     : std::vector<std::string>{"-CAserial", serialPath, "-CA", caCrtPath, "-CAkey", keyPath};
    args.insert(args.end(), signer.begin(), signer.end());
    if (RunOpenSSL(output, std::move(args)) != 0) {
        return LOG_ERROR("Error when execute");
    }
    if (chmod(output.c_str(), kOwnerReadOnly) < 0) {
        return LOG_ERROR("chmod(%s) failed", output.c_str());
    }
    return 0;
}

int genServerCrt(const std::string &csrPath, const std::string &caCrtPath, const std::string &outputPath,
                 const std::string &caKeyPath, int days, const std::string &aliasText)
{
    if (!HasSerialFile() && genSerialFile() != 0) {
        return -1;
    }
    return genCrt(kServerExtensionPath, csrPath, caCrtPath, kSerialFile, outputPath, caKeyPath, false, days,
                  aliasText);
}

}  // namespace opalcrt
