#include <algorithm>
#include <ctime>
#include <optional>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/crt_status.h"
#include "admin/report.h"
#include "admin/roll_out.h"
#include "admin/store_look.h"
#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "mkcert/default_set.h"
#include "platform/string_list.h"
#include "store/names.h"

namespace opalcrt {

namespace {

constexpr size_t kLongestCommonName = 64;  // RFC 5280, A.1

bool LookAtOld(const Options &options, Json::Value &info, Json::Value &crt)
{
    const std::string &id = *options.id;
    if (!ReadInfo(info)) {
        return false;
    }
    if (!IsPlainFolderName(id) || !info.isMember(id)) {
        return Refuse("there is no certificate \"" + id + "\" in INFO; opalcrt status lists them");
    }
    StoreFacts facts;
    facts.now = time(nullptr);
    facts.days = options.days;
    crt = LookAtCrt(id, info[id], facts);
    return crt.isMember("not_after") ||
           Refuse("the certificate " + id + " cannot be read; see opalcrt status");
}

bool IsDue(const Options &options, const Json::Value &crt)
{
    return crt["seconds_left"].asInt64() < options.days * kDaySeconds ||
           std::any_of(options.names.begin(), options.names.end(), [&crt](const std::string &name) {
               return std::find(crt["names"].begin(), crt["names"].end(), name) == crt["names"].end();
           });
}

// The names of the new one: those given, or the old one's.
bool ListNewNames(const Options &options, const Json::Value &crt, std::vector<std::string> &names)
{
    names = options.names;
    for (Json::ArrayIndex at = 0; options.names.empty() && at < crt["names"].size(); ++at) {
        names.push_back(crt["names"][at].asString());
    }
    for (const std::string &name : names) {
        if (!IsHostName(name) && BlYLIBIsIpAddr(name.c_str()) == 0) {
            return Refuse("\"" + name + "\" is neither a host name nor an address; give others with --name");
        }
    }
    return (!names.empty() && names.front().size() <= kLongestCommonName) ||
           Refuse("the first name must have 1 to 64 bytes; give others with --name");
}

int MakeNewSet(const std::string &cert_id, const std::vector<std::string> &names)
{
    const std::string fresh = GetNewFolderPath(cert_id);
    if (!MakeNewFolder(cert_id)) {
        return kRefused;
    }
    if (genNamedCrtSet(fresh, names.front(), Join(names, ";")) != 0) {
        RemovePath(fresh);
        return Refuse("cannot generate a certificate; the system log says why");
    }
    return ExchangeFolder(cert_id);
}

// A run before this one may have ended between the exchange and the last service. What a mend has made is given to
// nobody who has something better.
int RollOutRest(const Options &options, const Json::Value &info, const Json::Value &crt, Json::Value &report)
{
    Json::Value rest(Json::arrayValue);
    const bool isMended = std::any_of(crt["findings"].begin(), crt["findings"].end(),
                                      [](const Json::Value &finding) { return finding["code"] == "mended"; });
    const ServicesByCrt services = ListServices(info);
    for (const Json::Value &service : services.at(*options.id)) {
        const auto isBehind = [&service](const Json::Value &looked) {
            return NameOf(looked) == NameOf(service) &&
                   (looked["state"] != "current" || Exists(looked["folder"].asString() + ".bak"));
        };
        if (!isMended && std::any_of(crt["services"].begin(), crt["services"].end(), isBehind)) {
            rest.append(service);
        }
    }
    if (rest.empty()) {
        report["result"] = "not-due";
        return kDone;
    }
    return RollOut({{*options.id, rest}}, "", options, report);
}

}  // namespace

int Renew(const Options &given, Json::Value &report)
{
    Options options = given;
    options.id = given.id.value_or(ReadDefaultId());
    report["id"] = *options.id;
    Json::Value info;
    Json::Value crt;
    std::optional<RecoverLock> lock;  // Who only asks waits for nobody.
    if (!options.onlyCheck) {
        lock.emplace();
    }
    if ((lock && !*lock) || !LookAtOld(options, info, crt)) {
        return kRefused;
    }
    if (!crt["self_made"].asBool() || HasCrtKeyTypes(*options.id)) {
        report["result"] = "not-self-made";
        return kDone;
    }
    const bool isDue = IsDue(options, crt);
    std::vector<std::string> names;
    if (isDue && !ListNewNames(options, crt, names)) {
        return kRefused;
    }
    if (options.onlyCheck) {
        report["result"] = isDue ? "due" : "not-due";
        return isDue ? kRefused : kDone;
    }
    int status = kDone;
    if (isDue) {
        status = MakeNewSet(*options.id, names);
    } else if (Exists(GetNewFolderPath(*options.id)) && !RemoveNewFolder(*options.id)) {
        status = kRefused;
    }
    if (status != kDone) {
        return status;
    }
    lock.reset();
    if (!isDue) {
        return RollOutRest(options, info, crt, report);
    }
    Say(options, *options.id + ": renewed, for " + Join(names));
    return RollOutCrt(options, report);
}

}  // namespace opalcrt
