#include "admin/default_crt.h"

#include <fcntl.h>
#include <json/value.h>

#include <cstdio>

#include "admin/archive_folder.h"
#include "admin/message.h"
#include "admin/store_look.h"
#include "assign/recovery.h"
#include "common/json_member.h"
#include "common/scoped_lock.h"
#include "platform/atomic_file.h"
#include "store/crt_info.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

// Why a registration could not use the certificate, or would make another one in its place; empty when it can.
std::string WhyUnusable(const std::string &cert_id)
{
    const Json::Value *info = ReadCrtInfo();
    if (cert_id.size() > kLongestDefaultId) {
        return "its id has more than 15 bytes";
    }
    if (!IsPlainFolderName(cert_id) || info == nullptr || !GetMember(*info, cert_id.c_str()).isObject()) {
        return "INFO does not list it; see opalcrt status";
    }
    if (!IsCrtComplete(cert_id, GetCrtFolderPath(cert_id)) ||
        IsIn(AT_FDCWD, GetCrtFolderPath(cert_id) + "/.mending")) {
        return "its folder is not complete; see opalcrt status, then install it anew";
    }
    return std::string();
}

}  // namespace

bool PrintDefault()
{
    const std::string cert_id = ReadDefaultId();
    if (cert_id.empty()) {
        return Refuse(std::string(kDefaultPath) + " names no certificate; set one with opalcrt default ID");
    }
    printf("%s\n", ToShownText(cert_id).c_str());
    return true;
}

bool SetDefault(const std::string &cert_id)
{
    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return RefuseLock();
    }
    if (const std::string why = WhyUnusable(cert_id); !why.empty()) {
        return Refuse(cert_id + " cannot be the default certificate: " + why);
    }
    if (!ReplaceFile(kDefaultPath, cert_id + "\n", kDefaultPath)) {
        return RefuseCall(std::string("cannot write ") + kDefaultPath);
    }
    printf("%s: the certificate of new services\n", cert_id.c_str());
    return true;
}

}  // namespace opalcrt
