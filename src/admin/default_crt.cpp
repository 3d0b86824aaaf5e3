#include "admin/default_crt.h"

#include <json/value.h>

#include <cstdio>

#include "admin/archive_folder.h"
#include "admin/message.h"
#include "admin/store_look.h"
#include "common/json_file.h"
#include "common/json_member.h"
#include "common/scoped_lock.h"
#include "deploy/key_types.h"
#include "platform/atomic_file.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

// Why a registration could not use the certificate, or would make another one in its place; empty when it can.
std::string WhyUnusable(const std::string &cert_id)
{
    Json::Value info;
    const std::string path = GetCrtFolderPath(cert_id);
    if (!IsPlainFolderName(cert_id) || cert_id.find('\n') != std::string::npos) {
        return "it is no certificate's id";
    }
    if (cert_id.size() > kLongestDefaultId) {
        return "a default certificate's id has at most 15 bytes";
    }
    if (!fromFile(kInfoPath, info) || !GetMember(info, cert_id.c_str()).isObject()) {
        return "INFO does not list it; see opalcrt status";
    }
    const FolderLook folder = LookAtFolder(path);
    if (folder.error != 0 || IsReachedThroughLink(path)) {
        return path + " is not there, or is a link";
    }
    std::vector<std::string> prefixes = {""};
    for (const KeyType type : GetCrtKeyTypes(cert_id)) {
        prefixes.push_back(KeyTypePrefix(type));
    }
    for (const std::string &prefix : prefixes) {
        if (const auto missing = ListMissingFiles(folder.fd.Get(), prefix); !missing.empty()) {
            return path + " lacks " + missing.front() + "; install it anew";
        }
    }
    return IsIn(folder.fd.Get(), kMendingMark) ? path + " is being mended, or that was cut off" : "";
}

}  // namespace

int PrintDefault()
{
    const std::string cert_id = ReadDefaultId();
    if (cert_id.empty()) {
        return Refuse(std::string(kDefaultPath) + " names no certificate; set one with opalcrt default ID");
    }
    printf("%s\n", ToShownText(cert_id).c_str());
    return kDone;
}

int SetDefault(const std::string &cert_id)
{
    const ScopedLock lock(kRecoverLock, kLockExclusive, kRecoverLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return RefuseCall(std::string("somebody else keeps ") + kRecoverLock + " locked; try again");
    }
    if (const std::string why = WhyUnusable(cert_id); !why.empty()) {
        return Refuse(cert_id + " cannot be the default certificate: " + why);
    }
    if (!ReplaceFile(kDefaultPath, cert_id + "\n", kDefaultPath)) {
        return RefuseCall(std::string("cannot write ") + kDefaultPath);
    }
    printf("%s: the certificate of new services\n", cert_id.c_str());
    return kDone;
}

}  // namespace opalcrt
