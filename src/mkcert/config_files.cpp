#include "mkcert/config_files.h"

#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/log.h"
#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/process.h"
#include "platform/unique_fd.h"

namespace opalcrt {

namespace {

struct SubjectField {
    const char *key;  // With its padding.
    std::string CsrSubject::*value;
};

constexpr SubjectField kSubjectFields[] = {
    {"countryName                     = ", &CsrSubject::countryName},
    {"stateOrProvinceName             = ", &CsrSubject::stateOrProvinceName},
    {"localityName                    = ", &CsrSubject::localityName},
    {"0.organizationName              = ", &CsrSubject::organizationName},
    {"organizationalUnitName          = ", &CsrSubject::organizationalUnitName},
    {"commonName                      = ", &CsrSubject::commonName},
    {"emailAddress                    = ", &CsrSubject::emailAddress},
};

constexpr char kCsrHead[] =
    "[ req ]\n"
    "default_bits                    = 1024\n"
    "distinguished_name              = req_DN\n"
    "prompt                          = no\n"
    "[ req_DN ]\n";

constexpr char kCaExtensions[] =
    "extensions = x509v3\n"
    "[ x509v3 ]\n"
    "subjectAltName   = email:copy\n"
    "basicConstraints = CA:true,pathlen:0\n"
    "nsComment        = \"mod_ssl generated custom CA certificate\"\n"
    "nsCertType       = sslCA\n";

constexpr char kServerExtensions[] =
    "extensions = x509v3\n"
    "[ x509v3 ]\n"
    "subjectAltName   = email:copy\n"
    "nsComment        = \"mod_ssl generated custom server certificate\"\n"
    "nsCertType       = server\n"
    "keyUsage         = critical, digitalSignature, keyEncipherment\n"
    "extendedKeyUsage = serverAuth, clientAuth\n";

// The line of alternative names; empty when there is no name.
std::string MakeAliasLine(const SzList &aliases)
{
    std::string line;
    for (size_t index = 0; index < aliases.items.size(); ++index) {
        const char *alias = YLIBCSzListGet(aliases, index);
        if (*alias == '\0') {
            continue;
        }
        line += line.empty() ? "subjectAltName = \"" : ", ";
        line += BlYLIBIsIpAddr(alias) == 1 ? "IP:" : "DNS:";
        line += alias;
    }
    return line.empty() ? line : line + "\"\n";
}

// Opens the file for a whole new content. A new one is not writable for others whatever the umask: what
// stands in it is signed by root. A fifo would make us wait, and a device must not be removed when it takes nothing.
UniqueFd OpenForWriting(const std::string &path)
{
    UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    struct stat info = {};
    const bool isOpen = fd.IsOpen() && fstat(fd.Get(), &info) == 0;
    if (isOpen && S_ISREG(info.st_mode)) {
        return fd;
    }
    errno = isOpen ? EINVAL : errno;
    SET_PLATFORM_ERRNO(errno);
    return UniqueFd();
}

void WriteOrRemove(UniqueFd fd, const std::string &path, const std::string &text)
{
    const bool isWritten = WriteAll(fd.Get(), text);
    if (fd.Close() != 0 || !isWritten) {
        unlink(path.c_str());
    }
}

// What the two extension files have in common once their parameters are known to be good.
int WriteExtensions(const char *path, const std::string &text)
{
    if (genDirectory(path) != 0) {
        return LOG_ERROR("generate directory failed");
    }
    UniqueFd fd = OpenForWriting(path);
    if (!fd.IsOpen()) {
        return LOG_ERROR_STATE("fopen %s failed", path);
    }
    WriteOrRemove(std::move(fd), path, text);
    return 0;
}

}  // namespace

int genDirectory(const std::string &filePath)
{
    if (filePath.empty()) {
        return LOG_ERROR("Failed to generate directory with invalid parameters");
    }
    std::string copy = filePath;  // dirname(3) changes what it is given.
    const std::string directory = dirname(copy.data());
    if (YLIBCExec("/bin/mkdir", "-p", directory.c_str(), nullptr, nullptr) != 0) {
        return LOG_ERROR("Failed to mkdir -p [%s] (%d)", directory.c_str(), errno);
    }
    return 0;
}

int modifyCsrCfg(const std::string &path, const CsrSubject &subject)
{
    if (path.empty()) {
        return LOG_ERROR_STATE("modifyCsrCfg sanity failed.");
    }
    if (genDirectory(path) != 0) {
        return LOG_ERROR("generate directory failed");
    }
    UniqueFd fd = OpenForWriting(path);
    if (!fd.IsOpen()) {
        return LOG_ERROR_STATE("Open %s failed", path.c_str());
    }

    std::string text = kCsrHead;
    for (const SubjectField &field : kSubjectFields) {
        const std::string &value = subject.*field.value;
        if (!value.empty()) {
            text += field.key + ("'" + value + "'\n");
        }
    }
    WriteOrRemove(std::move(fd), path, text);
    return 0;
}

int genCACnf(const char *path)
{
    if (path == nullptr || *path == '\0') {
        return LOG_ERROR_STATE("CA CNF name is null or empty.");
    }
    return WriteExtensions(path, kCaExtensions);
}

int genServerCnf(const char *path, const SzList *aliases)
{
    if (path == nullptr || *path == '\0') {
        return LOG_ERROR_STATE("Server CNF name is null or empty.");
    }
    if (aliases == nullptr) {
        return LOG_ERROR("alias list is null");
    }
    return WriteExtensions(path, kServerExtensions + MakeAliasLine(*aliases));
}

}  // namespace opalcrt
