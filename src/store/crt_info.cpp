#include "store/crt_info.h"

#include <algorithm>
#include <utility>

#include "common/json_file.h"
#include "common/json_member.h"
#include "common/log.h"
#include "common/scoped_lock.h"
#include "platform/atomic_file.h"
#include "platform/file_read.h"
#include "platform/file_test.h"
#include "store/paths.h"
#include "store/service.h"

namespace opalcrt {

namespace {

// INFO as it was read or written last: a registration reads it several times for each service, and mostly nobody has
// changed it meanwhile. The file is held open, so that no other one can get its inode number. An edit in place is
// noticed by its size or time, but for one of the same size within a clock tick.
struct KnownInfo {
    UniqueFd file;
    struct stat status = {};
    Json::Value value;
} known;

// Entries and lists of a wrong shape carry no service and are passed over.
bool ListsService(const Json::Value &entry, const ServiceName &name)
{
    const Json::Value &services = GetMember(entry, "services");
    return services.isArray() &&
           std::any_of(services.begin(), services.end(),
                       [&name](const Json::Value &listed) { return NameOf(listed) == name; });
}

}  // namespace

bool GetServiceCrtId(const Json::Value &serviceObj, std::string &cert_id)
{
    if (!IsServiceObjValid(serviceObj)) {
        return LOG_ERROR("Invalid input format [%s]", ToLogText(serviceObj).c_str());
    }

    const ScopedLock lock(kInfoLock, kLockShared, kInfoLockSeconds, UnlockLine::kStore);
    if (!lock.IsHeld()) {
        return LOG_ERROR("Failed to lock [%s]", kInfoLock);
    }

    const Json::Value *info = ReadCrtInfo();
    if (info == nullptr || !info->isObject()) {
        return LOG_ERROR_STATE("Broken [%s].", kInfoPath);
    }

    // jsoncpp walks an object's members in ascending byte order of their names.
    for (auto entry = info->begin(); entry != info->end(); ++entry) {
        if (ListsService(*entry, NameOf(serviceObj))) {
            cert_id = entry.name();
            return true;
        }
    }
    return true;
}

void UpdateServiceList(Json::Value &services, const Json::Value &serviceObj, bool removeOnly)
{
    Json::Value added = serviceObj;  // It may be an element of the list, which is built anew.
    const ServiceName changed = NameOf(added);
    const auto stays = [&changed](const Json::Value &element) {
        const ServiceName listed = NameOf(element);
        return listed.IsWhole() && listed != changed;
    };
    // A long list in which nothing changes, that of a new service, is not built anew.
    if (!std::all_of(services.begin(), services.end(), stays)) {
        Json::Value old(Json::arrayValue);
        old.swap(services);
        for (Json::Value &element : old) {
            if (stays(element)) {
                services.append(std::move(element));
            }
        }
    }
    if (!removeOnly) {
        services.append(std::move(added));
    }
}

const Json::Value *ReadCrtInfo()
{
    UniqueFd file = OpenRegularFile(kInfoPath);
    struct stat status = {};
    if (!file.IsOpen() || fstat(file.Get(), &status) != 0) {
        return nullptr;
    }
    if (known.file.IsOpen() && IsSameFile(status, known.status)) {
        return &known.value;
    }
    known.file = UniqueFd();
    if (!fromOpenFile(file.Get(), known.value)) {
        return nullptr;
    }
    known.file = std::move(file);
    known.status = status;
    return &known.value;
}

bool TakeCrtInfo(Json::Value &info)
{
    info = Json::Value();
    if (ReadCrtInfo() == nullptr) {
        return false;
    }
    info.swap(known.value);
    known.file = UniqueFd();
    return true;
}

bool WriteCrtInfo(Json::Value info)
{
    if (!toNewFile(kInfoTempPath, info, true, kInfoPath)) {
        return LOG_ERROR("Failed to write [%s] to [%s].", ToLogText(info).c_str(), kInfoTempPath);
    }
    // Opened under the name that is ours alone, so it is what was written, whatever becomes of INFO.
    UniqueFd written = OpenRegularFile(kInfoTempPath);
    if (!RenameAndSync(kInfoTempPath, kInfoPath)) {
        return LOG_ERROR("Failed to move %s to %s", kInfoTempPath, kInfoPath);
    }
    known.value = std::move(info);
    known.file = fstat(written.Get(), &known.status) == 0 ? std::move(written) : UniqueFd();
    return true;
}

}  // namespace opalcrt
