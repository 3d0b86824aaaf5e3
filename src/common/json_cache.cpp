#include "common/json_cache.h"

#include <utility>

#include "common/json_file.h"
#include "platform/file_test.h"

namespace opalcrt
{

const Json::Value *JsonFileCache::Read()
{
    UniqueFd file = OpenRegularFile(path_.c_str());
    if (!file.IsOpen()) {
        return nullptr;
    }
    struct stat status = {};
    const bool isKnown = fstat(file.Get(), &status) == 0;
    if (isKnown && file_.IsOpen() && IsSameFile(status, status_)) {
        return &value_;
    }
    // What was there before makes room first: both at once would be the most memory of the whole run.
    file_ = UniqueFd();
    if (!fromOpenFile(file.Get(), value_)) {
        return nullptr;
    }
    if (isKnown) {
        file_ = std::move(file);
        status_ = status;
    }
    return &value_;
}

bool JsonFileCache::Take(Json::Value &value)
{
    value = Json::Value();
    if (Read() == nullptr) {
        return false;
    }
    value.swap(value_);
    file_ = UniqueFd();
    return true;
}

void JsonFileCache::Keep(UniqueFd file, Json::Value value)
{
    file_ = fstat(file.Get(), &status_) == 0 ? std::move(file) : UniqueFd();
    value_ = std::move(value);
}

}  // namespace opalcrt
