#include "frontend/services_list.h"

#include <map>
#include <utility>

#include "common/json_file.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "store/paths.h"
#include "store/service.h"

namespace opalcrt {

namespace {

constexpr int kServicesLockSeconds = 60;

// Reads the list, lets `change` make the new one of it, and writes that, all under the lock.
template <typename Change>
bool ChangeRegisterServices(Change change)
{
    const ScopedLock lock(kServicesLock, kLockExclusive, kServicesLockSeconds, UnlockLine::kFrontEnd);
    if (!lock.IsHeld()) {
        return LOG_ERROR("Failed to lock [%s]", kServicesLock);
    }

    Json::Value list;
    if (!fromFile(kServicesPath, list)) {
        return LOG_ERROR("Failed to read register services, it may missed or broken");
    }
    if (!list.isArray()) {
        return LOG_ERROR("Incorrect format of register services [%s]", ToLogText(list).c_str());
    }

    change(list);
    if (!toFile(kServicesPath, list, true)) {
        return LOG_ERROR("Failed to write register services (%m)");
    }
    return true;
}

// Everybody else waits for the lock meanwhile, so the list is looked through once and not for each service.
void PutServices(Json::Value &list, const Json::Value &services)
{
    std::map<ServiceName, const Json::Value *>
        fresh;  // Of those with one name the last; null when it has its place.
    for (const Json::Value &serviceObj : services) {
        fresh[NameOf(serviceObj)] = &serviceObj;
    }
    for (Json::Value &listed : list) {
        const auto found = fresh.find(NameOf(listed));
        if (found != fresh.end() && found->second != nullptr) {
            listed = *found->second;
            found->second = nullptr;
        }
    }
    for (const Json::Value &serviceObj : services) {
        if (const Json::Value *&left = fresh[NameOf(serviceObj)]; left != nullptr) {
            list.append(*left);
            left = nullptr;
        }
    }
}

}  // namespace

bool AppendRegisterServices(const Json::Value &services)
{
    return ChangeRegisterServices([&services](Json::Value &list) { PutServices(list, services); });
}

bool RemoveRegisterServices(const std::string &subscriber, const std::string &filter)
{
    return ChangeRegisterServices([&subscriber, &filter](Json::Value &list) {
        Json::Value kept(Json::arrayValue);
        for (Json::Value &listed : list) {
            if (!MatchService(listed, subscriber, filter)) {
                kept.append(std::move(listed));
            }
        }
        list.swap(kept);
    });
}

}  // namespace opalcrt
