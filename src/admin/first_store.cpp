#include <json/value.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <random>
#include <string>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "deploy/dir_utils.h"
#include "mkcert/default_set.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

constexpr char kNewArchive[] = "/usr/opal/etc/certificate/._archive.new";

constexpr const char *kFolders[] = {
    "/usr/opal/etc/certificate",      "/usr/opal/share/certificate.d",    "/usr/local/etc/certificate",
    "/usr/local/share/certificate.d", "/usr/local/libexec/certificate.d", "/usr/opal/etc/ssl",
};

// 16 hexadecimal digits, the first of them below 8.
std::string RandomDigits()
{
    std::random_device random;
    char digits[17];
    snprintf(digits, sizeof(digits), "%08x%08x", random() / 2, random());
    return digits;
}

// What subjectAltName gets: clients also reach the machine by its own name.
std::string MakeAliasText()
{
    char text[HOST_NAME_MAX + 1] = {};
    (void)gethostname(text, sizeof(text) - 1);
    const std::string name = text;
    const bool isOwn = IsHostName(name) && name != "localhost" && name != kDefaultName;
    return isOwn ? kDefaultName + (";" + name) : kDefaultName;
}

bool MakeFolder(const std::string &folder)
{
    return OPALFSMkdirP(folder.c_str(), nullptr, 1, 0, 0, 0755) == 0 || RefuseCall("cannot make " + folder);
}

// Where there is no kernel file the tool can make no serial file, so no certificate could be made or mended.
bool MakeSerialFile()
{
    return HasSerialFile() || YLIBCFileExist(kMacAddressFile) != 0 ||
           ReplaceFile(kSerialFile, RandomDigits() + "\n", kSerialFile) ||
           RefuseCall(std::string("cannot write ") + kSerialFile);
}

// The whole archive, on the disk, under another name.
bool MakeArchive(const std::string &cert_id)
{
    const std::string archive = kNewArchive;
    const std::string folder = archive + "/" + cert_id;
    const Json::Value services(Json::arrayValue);
    Json::Value info(Json::objectValue);
    info[cert_id]["desc"] = "made at installation";
    info[cert_id]["services"] = services;
    return RemovePath(archive) && MakeFolder(archive) && MakeFolder(folder) &&
           (genNamedCrtSet(folder, kDefaultName, MakeAliasText()) == 0 ||
            Refuse("cannot generate a certificate; the system log says why")) &&
           ((toFile(archive + "/INFO", info, true) && toFile(archive + "/SERVICES", services, true) &&
             ReplaceFile(archive + "/DEFAULT", cert_id + "\n", std::string()) && SyncTree(archive)) ||
            RefuseCall("cannot write " + archive));
}

}  // namespace

int Init(const Options &options, Json::Value &)
{
    std::optional<ScopedLock> lock;
    if (!TakeRecoverLock(lock) || !std::all_of(std::begin(kFolders), std::end(kFolders), MakeFolder) ||
        !MakeSerialFile()) {
        return kRefused;
    }
    std::error_code error;
    if (!std::filesystem::is_empty(kArchive, error) && error.value() != ENOENT) {
        Say(options, std::string(kArchive) + ": left as it is");
        return kDone;
    }
    const std::string cert_id = RandomDigits().substr(0, 8);
    // rename(2) takes the place of an empty folder, and of nothing else.
    const bool isMade =
        MakeArchive(cert_id) && ((rename(kNewArchive, kArchive) == 0 && SyncParent(kArchive)) ||
                                 RefuseCall(std::string("cannot move ") + kNewArchive + " to " + kArchive));
    if (isMade) {
        Say(options, std::string(kArchive) + ": made, with the certificate " + cert_id);
    }
    return isMade ? kDone : kRefused;
}

}  // namespace opalcrt
