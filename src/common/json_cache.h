// The value of a JSON file that is read several times in one run.
#pragma once

#include <json/value.h>
#include <sys/stat.h>

#include <string>

#include "platform/unique_fd.h"

namespace opalcrt
{

// Every reading opens the file and looks at it; only when it is not the file that was read or written last is
// its text parsed. So a reading under a lock sees what a reading without this would see. The file must be one
// that is replaced by renaming. An edit in place is seen as well, by its size or time, but for one of the same size
// within the clock tick of the change before it.
class JsonFileCache
{
public:
    explicit JsonFileCache(const char *path) : path_(path) {}

    // The file's value, until the next call of anything here; null, as fromFile fails, when it cannot be read.
    const Json::Value *Read();

    // The same to be changed and to be kept by the caller: it is not known here any more.
    bool Take(Json::Value &value);

    // What was just written: `file` is open and has become the file at the path, with this value.
    void Keep(UniqueFd file, Json::Value value);

private:
    std::string path_;
    // Held open, so that no other file can get its inode number.
    UniqueFd file_;
    struct stat status_ = {};
    Json::Value value_;
};

}  // namespace opalcrt
