#include "store/service_folder.h"

#include <climits>
#include <cstdlib>

#include "store/paths.h"

namespace opalcrt {

namespace {

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

bool IsServiceFolderInRoot(bool isPkg, const std::string &subscriber, const std::string &service)
{
    const std::string root = GetCertificateRoot(isPkg);
    if (subscriber.empty()) {
        return false;
    }

    const std::string subscriberFolder = Resolve(root + subscriber);
    if (!IsStrictlyBelow(subscriberFolder, root) ||
        (subscriberFolder + "/").starts_with(kArchive + std::string("/"))) {
        return false;
    }
    if (service.empty()) {
        return true;
    }

    return IsStrictlyBelow(Resolve(subscriberFolder + "/" + service), subscriberFolder);
}

}  // namespace opalcrt
