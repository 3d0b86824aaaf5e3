// Where everything lies. Folder constants end with "/", except the archive's, whose paths are always formed
// as kArchive + "/" + name, so that log lines show one slash.
#pragma once

#include <string>

namespace opalcrt {

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

// What each guards, who takes it, and in which order: docs/on-disk.md.
inline constexpr char kInfoLock[] = "/tmp/opalcertificate_info.lock";
inline constexpr char kServicesLock[] = "/tmp/opal_cert_register_services.lock";
inline constexpr char kRecoverLock[] = "/tmp/opal_cert_recover.lock";

// How long the recovery lock, and with it a mend that is under way, is waited for.
inline constexpr int kRecoverLockSeconds = 30;

// Endings that a deployment adds to a service folder's path (staging, backup).
inline constexpr char kStagingSuffix[] = ".temp";
inline constexpr char kBackupSuffix[] = ".bak";

// The root of the service folders of packages or of the system.
std::string GetCertificateRoot(bool isPkg);

// The service's folder, without a trailing slash. The names are used as they are: test them first
// (store/names.h).
std::string GetServiceFolderPath(bool isPkg, const std::string &subscriber, const std::string &service);

// The folder of a certificate in the archive.
std::string GetCrtFolderPath(const std::string &cert_id);

// The file in a certificate's folder that says that a mend is under way or was cut off (assign/recovery.h): the files
// beside it may not belong together.
std::string GetMendingMarkPath(const std::string &cert_id);

// The lock file that guards the service's folder.
std::string GetServiceLockPath(const std::string &subscriber, const std::string &service);

}  // namespace opalcrt
