#include "deploy/source_snapshot.h"

#include <algorithm>
#include <cerrno>

#include "platform/file_test.h"

namespace opalcrt
{

namespace
{

bool IsSameSource(const FileIdentity &one, const FileIdentity &other)
{
    return one.error == other.error && IsSameFile(one.status, other.status);
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
    return std::equal(before.begin(), before.end(), after.begin(), after.end(), IsSameSource);
}

}  // namespace opalcrt
