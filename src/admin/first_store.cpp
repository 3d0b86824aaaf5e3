#include "admin/first_store.h"

#include <json/value.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "admin/archive_folder.h"
#include "admin/message.h"
#include "common/json_file.h"
#include "common/scoped_lock.h"
#include "deploy/dir_utils.h"
#include "mkcert/default_set.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "platform/string_list.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr char kNewArchive[] = "/usr/opal/etc/certificate/._archive.new";

constexpr const char *kFolders[] = {
    "/usr/opal/etc/certificate",      "/usr/opal/share/certificate.d",    "/usr/local/etc/certificate",
    "/usr/local/share/certificate.d", "/usr/local/libexec/certificate.d", "/usr/opal/etc/ssl",
};

// A random number without its top bit, as 16 hexadecimal digits; empty, with errno set, on failure.
std::string RandomDigits()
{
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        return std::string();
    }
    char digits[17];
    snprintf(digits, sizeof(digits), "%016llx", static_cast<unsigned long long>(number >> 1));
    return digits;
}

bool IsHostName(const std::string &name)
{
    size_t start = 0;
    for (size_t end = 0; end != std::string::npos; start = end + 1) {
        end = name.find('.', start);
        const std::string label = name.substr(start, end == std::string::npos ? end : end - start);
        const bool isPlain = std::all_of(label.begin(), label.end(), [](unsigned char byte) {
            return byte == '-' || (byte < 0x80 && isalnum(byte) != 0);
        });
        if (label.empty() || label.size() > 63 || label.front() == '-' || label.back() == '-' || !isPlain) {
            return false;
        }
    }
    return name.size() <= 253 && BlYLIBIsIpAddr(name.c_str()) == 0;
}

// What subjectAltName gets: clients also reach the machine by its own name.
std::string MakeAliasText()
{
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0 || !IsHostName(name) || name == std::string("localhost") ||
        name == std::string(kDefaultName)) {
        return kDefaultName;
    }
    return std::string(kDefaultName) + ";" + name;
}

bool MakeFolder(const char *folder)
{
    return OPALFSMkdirP(folder, nullptr, 1, 0, 0, 0755) == 0 ||
           RefuseCall(std::string("cannot make ") + folder) == kDone;
}

// Where there is no kernel file the tool can make no serial file, so no certificate could be made or mended.
bool MakeSerialFile()
{
    if (!IsSerialFileMissing() || YLIBCFileExist(kMacAddressFile) != 0) {
        return true;
    }
    const std::string digits = RandomDigits();
    return (!digits.empty() && ReplaceFile(kSerialFile, digits + "\n", kSerialFile)) ||
           RefuseCall(std::string("cannot write ") + kSerialFile) == kDone;
}

// The whole archive, on the disk, under another name.
bool MakeArchive(const std::string &cert_id)
{
    const std::string archive = kNewArchive;
    const std::string folder = archive + "/" + cert_id;
    if (cert_id.empty() || !RemovePath(archive) || !MakeFolder(kNewArchive) || !MakeFolder(folder.c_str())) {
        return false;
    }
    if (genNamedCrtSet(folder, kDefaultName, MakeAliasText()) != 0) {
        Refuse("cannot generate a certificate; the system log says why");
        return false;
    }
    Json::Value info(Json::objectValue);
    info[cert_id]["desc"] = "made at installation";
    info[cert_id]["services"] = Json::Value(Json::arrayValue);
    if (!toFile(archive + "/INFO", info, true) ||
        !toFile(archive + "/SERVICES", Json::Value(Json::arrayValue), true) ||
        !ReplaceFile(archive + "/DEFAULT", cert_id + "\n", std::string()) || !SyncTree(archive)) {
        RefuseCall("cannot write " + archive);
        return false;
    }
    return true;
}

}  // namespace

int InitStore()
{
    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return RefuseCall(std::string("somebody else keeps ") + kRecoverLock + " locked; try again");
    }
    if (!std::all_of(std::begin(kFolders), std::end(kFolders), MakeFolder) || !MakeSerialFile()) {
        return kRefused;
    }

    std::error_code error;
    if (!std::filesystem::is_empty(kArchive, error) && !error) {
        printf("%s is left as it is\n", kArchive);
        return kDone;
    }
    if (error && error.value() != ENOENT) {
        errno = error.value();
        return RefuseCall(std::string("cannot look into ") + kArchive);
    }

    const std::string cert_id = RandomDigits().substr(0, 8);
    // rename(2) takes the place of an empty folder, and of nothing else.
    if (!MakeArchive(cert_id) || rename(kNewArchive, kArchive) != 0 || !SyncParent(kArchive)) {
        return RefuseCall(std::string("cannot make ") + kArchive);
    }
    printf("%s: made, with the certificate %s\n", kArchive, cert_id.c_str());
    return kDone;
}

}  // namespace opalcrt
