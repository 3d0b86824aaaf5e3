#include "store/paths.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "platform/file_test.h"

namespace opalcrt
{

namespace
{
constexpr const char *kLogSource = log_source::kUtils;

// Resolves all links; empty when that fails.
std::string Resolve(const std::string &path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? resolved : std::string();
}

bool IsStrictlyBelow(const std::string &path, const std::string &base)
{
    return path.size() > base.size() && path.starts_with(base);
}

}  // namespace

std::string GetCertificateRoot(bool isPkg)
{
    return std::string("/usr/") + (isPkg ? "local" : "opal") + "/etc/certificate/";
}

std::string GetServiceFolderPath(bool isPkg, const std::string &subscriber, const std::string &service)
{
    return GetCertificateRoot(isPkg) + subscriber + "/" + service;
}

std::string GetCrtFolderPath(const std::string &certId)
{
    return std::string(kArchive) + "/" + certId;
}

bool IsServiceFolderInRoot(bool isPkg, const std::string &subscriber, const std::string &service)
{
    const std::string root = GetCertificateRoot(isPkg);
    if (subscriber.empty()) {
        return false;
    }

    const std::string subscriberFolder = Resolve(root + subscriber);
    if (!IsStrictlyBelow(subscriberFolder, root)) {
        return false;
    }
    if (service.empty()) {
        return true;
    }

    return IsStrictlyBelow(Resolve(subscriberFolder + "/" + service), subscriberFolder);
}

std::string GetDefCrtId()
{
    const UniqueFile file = OpenForReading(kDefaultPath);
    char line[16] = {};
    if (file == nullptr || YLIBCFgets(line, sizeof(line), file.get()) == nullptr) {
        return std::string();
    }
    if (char *newline = strrchr(line, '\n'); newline != nullptr) {
        *newline = '\0';
    }

    const std::string folder = GetCrtFolderPath(line);
    if (YLIBCFileCheckDir(folder.c_str()) == 0) {
        LOG_ERROR_STATE("[%s] doesn't exist.", folder.c_str());
        return std::string();
    }
    return line;
}

}  // namespace opalcrt
