#include "store/paths.h"

namespace opalcrt {

std::string GetCertificateRoot(bool isPkg)
{
    return std::string("/usr/") + (isPkg ? "local" : "opal") + "/etc/certificate/";
}

std::string GetServiceFolderPath(bool isPkg, const std::string &subscriber, const std::string &service)
{
    return GetCertificateRoot(isPkg) + subscriber + "/" + service;
}

std::string GetCrtFolderPath(const std::string &cert_id) { return std::string(kArchive) + "/" + cert_id; }

std::string GetMendingMarkPath(const std::string &cert_id) { return GetCrtFolderPath(cert_id) + "/.mending"; }

std::string GetServiceLockPath(const std::string &subscriber, const std::string &service)
{
    return "/tmp/certificate_" + subscriber + "_" + service + ".lock";
}

}  // namespace opalcrt
