#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>

#include "admin/archive.h"
#include "admin/install_plan.h"
#include "admin/report.h"
#include "admin/roll_out.h"
#include "admin/store_look.h"
#include "common/json_member.h"
#include "deploy/dir_utils.h"
#include "platform/atomic_file.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// What a cut-off run of the same command has left: only its entry in INFO is missing.
bool IsMadeAlready(const std::string &folder, const InstallFiles &files)
{
    return !files.empty() && std::all_of(files.begin(), files.end(), [&folder](const auto &file) {
        return LookAtFile(AT_FDCWD, folder + "/" + file.first).text == file.second;
    });
}

void CheckId(const Options &options, const InstallFiles &files, Json::Value &findings)
{
    const std::string &id = *options.id;
    const std::string folder = GetCrtFolderPath(id);
    Json::Value info;
    // The books and their temporary files have names that begin so.
    const bool isBook = std::regex_match(id, std::regex("(INFO|SERVICES|DEFAULT)(\\..*)?"));
    if (!IsPlainFolderName("." + id + ".new") || id.empty() || id.starts_with('.') || ToShownText(id) != id ||
        isBook) {
        Add(findings, "bad-id", "\"" + id + "\" cannot be the name of a certificate's folder");
    } else if (!ReadInfo(info)) {
        Add(findings, "book-broken", std::string("without ") + kInfoPath + " nothing can be installed");
    } else if (!options.isNew && !GetMember(info, id.c_str()).isObject()) {
        Add(findings, "no-such-id", "there is no certificate " + id + "; with --new it is made");
    } else if (options.isNew && info.isMember(id)) {
        Add(findings, "in-info", "there is a certificate " + id + " already; it is replaced without --new");
    } else if (options.isNew && Exists(folder) && !IsMadeAlready(folder, files)) {
        Add(findings, "folder-exists", folder + " is there, though INFO does not list it; move it away");
    }
    if (id.size() > kLongestDefaultId && LookAtFile(AT_FDCWD, kDefaultPath).text == id + "\n") {
        Add(findings, "id-too-long", id + " would be the default certificate: at most 15 bytes");
    }
}

// Whether nothing speaks against it; else that is told, a line for each.
bool IsAllowed(const Json::Value &findings)
{
    bool isAllowed = true;
    for (const Json::Value &finding : findings) {
        if (finding["severity"] == "critical") {
            isAllowed = Refuse(finding["text"].asString());
        }
    }
    return isAllowed;
}

// The folder is root's alone and empty.
bool WriteFiles(const std::string &folder, const InstallFiles &files)
{
    for (const auto &[name, text] : files) {
        const std::string path = folder + "/" + name;
        if (!WriteNewFile(path, text, std::string(), 0400)) {
            RefuseCall("cannot write " + path);
            RemovePath(folder);
            return false;
        }
    }
    return true;
}

bool AddToInfo(const std::string &cert_id)
{
    const ScopedLock lock(kInfoLock, kLockExclusive, kInfoLockSeconds, UnlockLine::kStore);
    Json::Value info;
    if (!lock.IsHeld() || !TakeCrtInfo(info) || !info.isObject()) {
        return RefuseCall(std::string("cannot lock or read ") + kInfoPath + "; run the same command again");
    }
    info[cert_id]["services"] = Json::Value(Json::arrayValue);
    return WriteCrtInfo(std::move(info)) ||
           RefuseCall(std::string("cannot write ") + kInfoPath + "; run the same command again");
}

// The exit status of all that is done under the recovery lock.
int PutIntoArchive(const Options &options, const InstallFiles &files)
{
    const RecoverLock lock;
    Json::Value findings(Json::arrayValue);
    CheckId(options, files, findings);  // Another run may have changed the archive since the first look.
    if (!lock || !IsAllowed(findings) || !MakeNewFolder(*options.id) ||
        !WriteFiles(GetNewFolderPath(*options.id), files)) {
        return kRefused;
    }
    const int status = ExchangeFolder(*options.id);
    return status != kDone || !options.isNew || AddToInfo(*options.id) ? status : kPartlyChanged;
}

}  // namespace

int Install(const Options &options, Json::Value &report)
{
    report["id"] = *options.id;
    Json::Value &findings = report["findings"] = Json::Value(Json::arrayValue);
    const InstallFiles files = PlanInstall(options, findings);
    CheckId(options, files, findings);
    if (!IsAllowed(findings)) {
        return kRefused;
    }
    for (const Json::Value &finding : findings) {
        Say(options, "warning " + finding["code"].asString() + ": " + finding["text"].asString());
    }
    if (options.onlyCheck) {
        report["result"] = "can-be-installed";
        return kDone;
    }
    if (const int status = PutIntoArchive(options, files); status != kDone) {
        return status;
    }
    Say(options, *options.id + ": in the archive");
    return RollOutCrt(options, report);
}

}  // namespace opalcrt
