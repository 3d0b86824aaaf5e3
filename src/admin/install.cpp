#include <algorithm>
#include <regex>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/report.h"
#include "common/json_member.h"
#include "platform/atomic_file.h"
#include "platform/file_test.h"
#include "store/default_crt.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// What a cut-off run of the same command has left: all is there, but perhaps its entry in INFO.
bool IsMadeAlready(const std::string &folder, const CrtFiles &files)
{
    return !files.empty() && std::ranges::all_of(files, [&folder](const auto &file) {
        return LookAtFile(folder + "/" + file.first).text == file.second;
    });
}

void CheckId(const Options &options, const CrtFiles &files, Json::Value &findings)
{
    const std::string &id = *options.id;
    const std::string folder = GetCrtFolderPath(id);
    Json::Value info;
    const auto isMade = [&] { return IsMadeAlready(folder, files); };
    // The books and their temporary files have names that begin so; other names with a dot in front are ours, too.
    const bool isTaken = std::regex_match(id, std::regex("(INFO|SERVICES|DEFAULT)(\\..*)?|\\..*"));
    const bool isGood =
        IsPlainFolderName("." + id + ".new") && !id.empty() && !isTaken && ToShownText(id) == id;
    AddIf(!isGood, findings, "bad-id", "\"" + id + "\" cannot be the name of a certificate's folder") ||
        AddIf(!ReadInfo(info), findings, "book-broken",
              std::string("without ") + kInfoPath + " nothing can be installed") ||
        AddIf(!options.isNew && !GetMember(info, id.c_str()).isObject(), findings, "no-such-id",
              "there is no certificate " + id + "; with --new it is made") ||
        AddIf(options.isNew && info.isMember(id) && !isMade(), findings, "in-info",
              "there is a certificate " + id + " already; it is replaced without --new") ||
        AddIf(options.isNew && YLIBCFileExist(folder.c_str()) != 0 && !isMade(), findings, "folder-exists",
              folder + " is there, though INFO does not list it; move it away");
    AddIf(id.size() > kLongestDefaultId && LookAtFile(kDefaultPath).text == id + "\n", findings,
          "id-too-long", id + " would be the default certificate: at most 15 bytes");
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

// The exit status of all that is done under the recovery lock.
int PutIntoArchive(const Options &options, const CrtFiles &files)
{
    std::optional<ScopedLock> lock;
    if (!TakeRecoverLock(lock)) {
        return kRefused;
    }
    Json::Value findings(Json::arrayValue);
    CheckId(options, files, findings);  // Another run may have changed the archive since the first look.
    if (!IsAllowed(findings)) {
        return kRefused;
    }
    const int status = ReplaceCrtFolder(*options.id, [&files](const std::string &folder) {
        return std::ranges::all_of(files, [&folder](const auto &file) {
            const std::string path = folder + "/" + file.first;
            return WriteNewFile(path, file.second, std::string(), 0400) || RefuseCall("cannot write " + path);
        });
    });
    const auto list = [&options](Json::Value &info) {
        const bool isMissing = !info.isMember(*options.id);
        if (isMissing) {
            info[*options.id]["services"] = Json::Value(Json::arrayValue);
        }
        return isMissing;
    };
    return status != kDone || !options.isNew || ChangeInfo(list) ? status : kPartlyChanged;
}

}  // namespace

int Install(const Options &options, Json::Value &report)
{
    report["id"] = *options.id;
    Json::Value &findings = report["findings"] = Json::Value(Json::arrayValue);
    const CrtFiles files = PlanInstall(options, findings);
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
    return Deploy(options, report) == kDone ? kDone : kPartlyChanged;
}

}  // namespace opalcrt
