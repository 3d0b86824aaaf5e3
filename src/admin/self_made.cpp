// What the machine makes for itself: the first store, and its certificate anew.
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_file.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "mkcert/default_set.h"
#include "mkcert/serial_file.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "platform/string_list.h"
#include "store/default_crt.h"
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

// Unless a certificate can be made for them, the first of which is the subject, fails.
void RequireGoodNames(const Json::Value &names)
{
    constexpr size_t kLongestCommonName = 64;  // RFC 5280, A.1
    for (const Json::Value &each : names) {
        const std::string name = each.asString();
        Require(IsHostName(name) || BlYLIBIsIpAddr(name.c_str()) != 0,
                "\"" + name + "\" is neither a host name nor an address; give others with --name");
    }
    Require(!names.empty() && names[0].asString().size() <= kLongestCommonName,
            "the first name must have 1 to 64 bytes; give others with --name");
}

void MakeSet(const std::string &folder, const Json::Value &names)
{
    Require(genNamedCrtSet(folder, names[0].asString(), Join(names, ";")) == 0,
            "cannot generate a certificate; the system log says why");
}

void MakeFolder(const std::string &folder)
{
    RequireCall(OPALFSMkdirP(folder.c_str(), nullptr, 1, 0, 0, 0755) == 0, "cannot make " + folder);
}

// The whole archive, on the disk, under another name.
void MakeArchive(const std::string &archive, const std::string &cert_id)
{
    const Json::Value services(Json::arrayValue);
    Json::Value info(Json::objectValue);
    info[cert_id]["desc"] = "made at installation";
    info[cert_id]["services"] = services;
    // Clients also reach the machine by its own name.
    Json::Value names;
    names.append(kDefaultName);
    char own[HOST_NAME_MAX + 1] = {};
    (void)gethostname(own, sizeof(own) - 1);
    if (IsHostName(own) && names[0] != own && strcmp(own, "localhost") != 0) {
        names.append(own);
    }
    RequireCall(RemovePath(archive), "cannot remove " + archive);
    MakeFolder(archive);
    MakeFolder(archive + "/" + cert_id);
    MakeSet(archive + "/" + cert_id, names);
    RequireCall(toFile(archive + "/INFO", info, true) && toFile(archive + "/SERVICES", services, true) &&
                    ReplaceFile(archive + "/DEFAULT", cert_id + "\n", std::string()) && SyncTree(archive),
                "cannot write " + archive);
}

}  // namespace

int Init(const Options &options, Json::Value &)
{
    const auto lock = TakeRecoverLock();
    std::ranges::for_each(kFolders, MakeFolder);
    // Where there is no kernel file the tool can make no serial file, so no certificate could be made or mended.
    RequireCall(HasSerialFile() || YLIBCFileExist(kMacAddressFile) != 0 ||
                    ReplaceFile(kSerialFile, RandomDigits() + "\n", kSerialFile),
                std::string("cannot write ") + kSerialFile);
    const std::string archive = kArchive;
    std::error_code error;
    if (!std::filesystem::is_empty(archive, error) && error.value() != ENOENT) {
        Say(options, archive + ": left as it is");
        return kDone;
    }
    const std::string cert_id = RandomDigits().substr(0, 8);
    MakeArchive(kNewArchive, cert_id);
    // rename(2) takes the place of an empty folder, and of nothing else.
    RequireCall(rename(kNewArchive, kArchive) == 0 && SyncParent(kArchive),
                "cannot move " + (kNewArchive + (" to " + archive)));
    Say(options, archive + ": made, with the certificate " + cert_id);
    return kDone;
}

int Renew(const Options &given, Json::Value &report)
{
    Options options = given;
    options.id = given.id.value_or(ReadDefCrtId());
    const std::string &id = *options.id;
    report["id"] = id;
    auto lock = options.onlyCheck ? nullptr : TakeRecoverLock();  // Who only asks waits for nobody.
    RequireListed(id);
    const std::string folder = GetCrtFolderPath(id);
    const UniqueOpenSSL<X509> old = FirstCrt(LookAtFile(folder + "/cert.pem").text);
    const UniqueOpenSSL<X509> ca = FirstCrt(LookAtFile(folder + "/opal-ca-cert.pem").text);
    Require(old != nullptr, "the certificate " + id + " cannot be read; see opalcrt status");
    if (ca == nullptr || !IsSignedBy(*old, *ca) || HasCrtKeyTypes(id)) {
        report["result"] = "not-self-made";
        return kDone;
    }
    const Json::Value facts = DescribeCrt(*old);
    Json::Value names = options.names.empty() ? facts["names"] : Json::Value(Json::arrayValue);
    bool isDue = facts["seconds_left"].asInt64() < options.days * kDaySeconds;
    for (const std::string &name : options.names) {
        names.append(name);
        isDue = isDue || !IsFor(*old, name);
    }
    if (isDue) {
        RequireGoodNames(names);
    }
    if (options.onlyCheck || (!isDue && !HasNewFolder(id))) {
        report["result"] = isDue ? "due" : "not-due";
        return isDue ? kRefused : kDone;
    }
    if (isDue) {
        ReplaceCrtFolder(id, [&names](const std::string &fresh) { MakeSet(fresh, names); });
        Say(options, id + ": renewed, for " + Join(names));
    }
    lock.reset();
    return DeployChanged(options, report);
}

}  // namespace opalcrt
