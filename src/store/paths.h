// Where everything lies. Folder constants end with "/", except the archive's, whose paths are always formed
// as kArchive + "/" + name, so that log lines show one slash.
#pragma once

#include <string>

namespace opalcrt
{

// Roots of the service folders, and where service definition files are dropped.
inline constexpr char kSystemCertificateRoot[] = "/usr/opal/etc/certificate/";
inline constexpr char kPackageCertificateRoot[] = "/usr/local/etc/certificate/";
inline constexpr char kSystemDefinitionDirectory[] = "/usr/opal/share/certificate.d/";
inline constexpr char kPackageDefinitionDirectory[] = "/usr/local/share/certificate.d/";
inline constexpr char kDefinitionSuffix[] = ".cfg";

// Reload hooks lie in the definition directories or else here.
inline constexpr char kSystemLibexecDirectory[] = "/usr/libexec/certificate.d/";
inline constexpr char kPackageLibexecDirectory[] = "/usr/local/libexec/certificate.d/";

inline constexpr char kArchive[] = "/usr/opal/etc/certificate/_archive";
inline constexpr char kArchiveName[] = "_archive";
inline constexpr char kInfoPath[] = "/usr/opal/etc/certificate/_archive/INFO";
inline constexpr char kInfoTempPath[] = "/usr/opal/etc/certificate/_archive/INFO.temp";
inline constexpr char kInfoBackupPath[] = "/usr/opal/etc/certificate/_archive/INFO.bak";
inline constexpr char kServicesPath[] = "/usr/opal/etc/certificate/_archive/SERVICES";
inline constexpr char kDefaultPath[] = "/usr/opal/etc/certificate/_archive/DEFAULT";
inline constexpr char kRecoveryNotePath[] = "/usr/opal/etc/certificate/_archive/RECOVERING";

inline constexpr char kInfoLock[] = "/tmp/opalcertificate_info.lock";
inline constexpr char kServicesLock[] = "/tmp/opal_cert_register_services.lock";
inline constexpr char kRecoverLock[] = "/tmp/opal_cert_recover.lock";

// Endings that a deployment adds to a service folder's path (staging, backup).
inline constexpr char kStagingSuffix[] = ".temp";
inline constexpr char kBackupSuffix[] = ".bak";

// The root of the service folders of packages or of the system.
std::string GetCertificateRoot(bool isPkg);

// The service's folder, without a trailing slash. The names are used as they are: test them first
// (store/names.h).
std::string GetServiceFolderPath(bool isPkg, const std::string &subscriber, const std::string &service);

// The folder of a certificate in the archive.
std::string GetCrtFolderPath(const std::string &certId);

// Whether the subscriber's folder (`service` empty) or the service's folder exists and, with all links
// resolved, lies strictly inside the certificate root. It says nothing about the archive, which lies there
// too; the caller that removes folders asks IsUsableSubscriber as well. Logs nothing.
bool IsServiceFolderInRoot(bool isPkg, const std::string &subscriber, const std::string &service);

// The id of the system default certificate: the first line of DEFAULT, at most 15 bytes of it, without the
// newline (other white space is part of the id). Empty when there is none (not logged) or when no folder has
// that name (logged).
std::string GetDefCrtId();

}  // namespace opalcrt
