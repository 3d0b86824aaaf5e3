#include "deploy/source_snapshot.h"

#include <algorithm>
#include <cerrno>

namespace opalcrt
{

namespace
{

bool IsSameTime(const timespec &one, const timespec &other)
{
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool IsSameFile(const FileIdentity &one, const FileIdentity &other)
{
    return one.error == other.error && one.status.st_dev == other.status.st_dev &&
           one.status.st_ino == other.status.st_ino && one.status.st_size == other.status.st_size &&
           IsSameTime(one.status.st_mtim, other.status.st_mtim) &&
           IsSameTime(one.status.st_ctim, other.status.st_ctim);
}

}  // namespace

SourceSnapshot TakeSnapshot(const std::string &folder, const std::vector<std::string> &names)
{
    SourceSnapshot snapshot;
    for (const std::string &name : names) {
        FileIdentity identity;
        if (stat((folder + "/" + name).c_str(), &identity.status) != 0) {
            identity.error = errno;
        }
        snapshot.push_back(identity);
    }
    return snapshot;
}

bool IsUnchanged(const SourceSnapshot &before, const SourceSnapshot &after)
{
    return std::equal(before.begin(), before.end(), after.begin(), after.end(), IsSameFile);
}

}  // namespace opalcrt
