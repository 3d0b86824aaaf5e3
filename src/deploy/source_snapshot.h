// Files that are copied one by one while another process may be replacing them.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

namespace opalcrt
{

// What the named files of a folder looked like: device, inode, size and times, or that they were missing.
struct FileIdentity {
    int error = 0;  // errno of stat(2)
    struct stat status = {};
};
using SourceSnapshot = std::vector<FileIdentity>;

SourceSnapshot TakeSnapshot(const std::string &folder, const std::vector<std::string> &names);

// Whether nothing was written, replaced, removed or added between the two. Links are followed; the time of a
// file's last reading does not count.
bool IsUnchanged(const SourceSnapshot &before, const SourceSnapshot &after);

}  // namespace opalcrt
