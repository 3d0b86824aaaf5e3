#include <algorithm>

#include "admin/archive.h"
#include "admin/certificate.h"
#include "admin/look.h"
#include "admin/report.h"
#include "deploy/key_types.h"
#include "mkcert/default_set.h"
#include "platform/file_test.h"
#include "platform/string_list.h"
#include "store/default_crt.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

constexpr size_t kLongestCommonName = 64;  // RFC 5280, A.1

// Whether a certificate can be made for them; a refusal is told.
bool AreGoodNames(const Json::Value &names)
{
    for (const Json::Value &each : names) {
        const std::string name = each.asString();
        if (!IsHostName(name) && BlYLIBIsIpAddr(name.c_str()) == 0) {
            return Refuse("\"" + name + "\" is neither a host name nor an address; give others with --name");
        }
    }
    return (!names.empty() && names[0].asString().size() <= kLongestCommonName) ||
           Refuse("the first name must have 1 to 64 bytes; give others with --name");
}

int MakeNewSet(const std::string &cert_id, const Json::Value &names)
{
    const auto fill = [&names](const std::string &folder) {
        return genNamedCrtSet(folder, names[0].asString(), Join(names, ";")) == 0 ||
               Refuse("cannot generate a certificate; the system log says why");
    };
    return ReplaceCrtFolder(cert_id, fill, true);
}

}  // namespace

int Renew(const Options &given, Json::Value &report)
{
    Options options = given;
    options.id = given.id.value_or(ReadDefCrtId());
    const std::string &id = *options.id;
    report["id"] = id;
    std::optional<ScopedLock> lock;  // Who only asks waits for nobody.
    Json::Value info;
    if ((!options.onlyCheck && !TakeRecoverLock(lock)) || !ReadInfo(info) || !IsListedCrt(id, info)) {
        return kRefused;
    }
    StoreFacts facts;
    facts.days = options.days;
    const Json::Value crt = LookAtCrt(id, info[id], facts);
    if (!crt.isMember("not_after")) {
        return Refuse("the certificate " + id + " cannot be read; see opalcrt status");
    }
    if (!crt["self_made"].asBool() || HasCrtKeyTypes(id)) {
        report["result"] = "not-self-made";
        return kDone;
    }
    const Json::Value &old_names = crt["names"];
    Json::Value names = options.names.empty() ? old_names : Json::Value(Json::arrayValue);
    bool isDue = crt["seconds_left"].asInt64() < options.days * kDaySeconds;
    for (const std::string &given_name : options.names) {
        const Json::Value name = ToPlainName(given_name);
        names.append(name);
        isDue = isDue || std::ranges::count(old_names, name) == 0;
    }
    if (isDue && !AreGoodNames(names)) {
        return kRefused;
    }
    if (options.onlyCheck) {
        report["result"] = isDue ? "due" : "not-due";
        return isDue ? kRefused : kDone;
    }
    if (!isDue && !HasNewFolder(id)) {
        report["result"] = "not-due";
        return kDone;
    }
    if (isDue) {
        if (const int status = MakeNewSet(id, names); status != kDone) {
            return status;
        }
        Say(options, id + ": renewed, for " + Join(names));
    }
    lock.reset();
    const int status = Deploy(options, report);
    if (status != kDone) {
        return isDue ? kPartlyChanged : status;
    }
    return TakeRecoverLock(lock) && RemoveNewFolder(id) ? kDone : kPartlyChanged;
}

}  // namespace opalcrt
