#include "frontend/services_list.h"

#include <map>
#include <utility>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

constexpr const char *kLogSource = log_source::kFrontEnd;
constexpr int kServicesLockSeconds = 60;

// Reads the list, lets `change` make the new one of it, and writes that, all under the lock.
template <typename Change>
bool ChangeRegisterServices(Change change)
{
    const ScopedLock lock(kServicesLock, kLockExclusive, kServicesLockSeconds, UnlockLine::kFrontEnd);
    if (!lock.IsHeld()) {
        LOG_ERROR("Failed to lock [%s]", kServicesLock);
        return false;
    }

    Json::Value list;
    if (!fromFile(kServicesPath, list)) {
        LOG_ERROR("Failed to read register services, it may missed or broken");
        return false;
    }
    if (!list.isArray()) {
        const std::string text = ToLogText(list);
        LOG_ERROR_LONG(text, "Incorrect format of register services [%s]", text.c_str());
        return false;
    }

    change(list);
    if (!toFile(kServicesPath, list, true)) {
        LOG_ERROR("Failed to write register services (%m)");
        return false;
    }
    return true;
}

using ServiceKey = std::pair<std::string, std::string>;

ServiceKey KeyOf(const Json::Value &serviceObj)
{
    return {GetString(serviceObj, "subscriber"), GetString(serviceObj, "service")};
}

// Everybody else waits for the lock meanwhile, so the list is looked through once and not for each service.
void PutServices(Json::Value &list, const Json::Value &services)
{
    std::map<ServiceKey, Json::ArrayIndex> places;
    for (Json::ArrayIndex place = 0; place < list.size(); ++place) {
        places.try_emplace(KeyOf(list[place]), place);
    }
    for (const Json::Value &serviceObj : services) {
        const auto found = places.try_emplace(KeyOf(serviceObj), list.size()).first;
        list[found->second] = serviceObj;
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

bool MatchService(const Json::Value &serviceObj, const std::string &subscriber, const std::string &filter)
{
    const std::optional<ServiceName> name = NameOf(serviceObj);
    return name && name->subscriber == subscriber && (filter.empty() || name->service == filter);
}

}  // namespace opalcrt
