#include "setup/store_setup.h"

#include <json/value.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "common/json_file.h"
#include "common/scoped_lock.h"
#include "mkcert/default_set.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_read.h"
#include "platform/file_test.h"
#include "setup/record.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

constexpr char kGenerationFolder[] = "/usr/opal/etc/ssl";

constexpr const char *kFolders[] = {
    kArchive,
    kSystemDefinitionDirectory,
    kPackageCertificateRoot,
    kPackageDefinitionDirectory,
    kPackageLibexecDirectory,
    kGenerationFolder,
};

// The generation would make these itself, but nobody would note them.
constexpr const char *kGenerationFolders[] = {
    "/usr/opal/etc/ssl/cfg.d",
    "/usr/opal/etc/ssl/ssl.csr",
    "/usr/opal/etc/ssl/.gen",
};

bool Fail(const std::string &what)
{
    fprintf(stderr, "opalcrt-init-store: cannot %s: %m\n", what.c_str());
    return false;
}

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

bool IsMissing(const char *path) { return YLIBCFileExist(path) == 0; }

bool MakeFolder(std::string folder)
{
    if (folder.ends_with('/')) {
        folder.pop_back();
    }
    return MakeNotedFolder(folder) || Fail("make " + folder);
}

bool MakeFolders()
{
    if (OPALFSMkdirP(kRecordFolder, nullptr, 1, 0, 0, 0755) != 0) {
        return Fail(std::string("make ") + kRecordFolder);
    }
    return std::all_of(std::begin(kFolders), std::end(kFolders), MakeFolder);
}

// The id of the certificate of the store that is to be made or completed, noted as unfinished. Empty when there is a
// store.
bool ChooseCrtId(std::string &certId)
{
    if (!ReadRecord(kUnfinishedRecord, certId)) {
        return Fail(std::string("read ") + kUnfinishedRecord);
    }
    if (!certId.empty()) {
        certId.pop_back();
        return true;
    }

    std::error_code error;
    const bool isEmpty = std::filesystem::is_empty(kArchive, error);
    if (error) {
        errno = error.value();
        return Fail(std::string("look into ") + kArchive);
    }
    if (!isEmpty) {
        return true;
    }
    // DEFAULT is read up to its 15th byte.
    certId = RandomDigits().substr(0, 8);
    if (certId.empty() || !ReplaceFile(kUnfinishedRecord, certId + "\n", kUnfinishedRecord)) {
        return Fail(std::string("write ") + kUnfinishedRecord);
    }
    return true;
}

// Where there is no kernel file the tool can make no serial file, so no certificate could be mended.
bool MakeSerialFile()
{
    if (HasSerialFile() || !IsMissing(kMacAddressFile)) {
        return true;
    }
    const std::string digits = RandomDigits();
    if (digits.empty() || !ReplaceFile(kSerialFile, digits + "\n", kSerialFile)) {
        return Fail(std::string("write ") + kSerialFile);
    }
    return true;
}

bool MakeCrt(const std::string &folder)
{
    if (!MakeFolder(folder) ||
        !std::all_of(std::begin(kGenerationFolders), std::end(kGenerationFolders), MakeFolder)) {
        return false;
    }
    for (const char *name : {"/cert.pem", "/privkey.pem", "/fullchain.pem"}) {
        if (IsMissing((folder + name).c_str())) {
            errno = 0;
            return genDefaultCrtSet(folder) == 0 || Fail("generate a certificate (see the system log)");
        }
    }
    return true;
}

// Writes the book unless it is there, and adds its line to the checksums if it says what was to be written: one that
// somebody else wrote meanwhile is not the package's to remove.
bool MakeBook(const char *path, const Json::Value &value, std::string &checksums)
{
    if (IsMissing(path) && !toFile(path, value, true)) {
        return Fail(std::string("write ") + path);
    }
    Json::Value written;
    std::string text;
    if (!ReadRecord(path, text)) {
        return Fail(std::string("read ") + path);
    }
    if (fromFile(path, written) && written == value) {
        checksums += ChecksumLine(path, text);
    }
    return true;
}

bool MakeStore(const std::string &certId)
{
    const std::string folder = GetCrtFolderPath(certId);
    Json::Value info(Json::objectValue);
    info[certId]["desc"] = "made at installation";
    info[certId]["services"] = Json::Value(Json::arrayValue);
    const std::string defaultText = certId + "\n";

    std::string checksums;
    if (!MakeCrt(folder) || !MakeBook(kInfoPath, info, checksums) ||
        !MakeBook(kServicesPath, Json::Value(Json::arrayValue), checksums)) {
        return false;
    }
    if (!AppendChecksums(folder, checksums) || !AppendChecksums(kGenerationFolder, checksums)) {
        return Fail("read what was generated");
    }
    checksums += ChecksumLine(kDefaultPath, defaultText);
    if (!ReplaceFile(kChecksumsRecord, checksums, kChecksumsRecord)) {
        return Fail(std::string("write ") + kChecksumsRecord);
    }
    if (!ReplaceFile(kDefaultPath, defaultText, kDefaultPath)) {
        return Fail(std::string("write ") + kDefaultPath);
    }
    return true;
}

}  // namespace

bool SetUpStore()
{
    // The work files of the generation have fixed names, and a second run of this must not begin meanwhile.
    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return Fail(std::string("lock ") + kRecoverLock);
    }

    std::string certId;
    if (!MakeFolders() || !ChooseCrtId(certId) || !MakeSerialFile()) {
        return false;
    }
    if (certId.empty()) {
        return true;
    }
    // From DEFAULT on the store is in use: what it holds then is no longer what was made.
    if (IsMissing(kDefaultPath) && !MakeStore(certId)) {
        return false;
    }
    if (unlink(kUnfinishedRecord) != 0 || !SyncParent(kUnfinishedRecord)) {
        return Fail(std::string("remove ") + kUnfinishedRecord);
    }
    return true;
}

}  // namespace opalcrt
