// Looking at the store without a trace: no lock, no log line, nothing written. What the engine asks of the same files
// it asks with log lines, and mends.
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>

#include "platform/unique_fd.h"

namespace opalcrt {

struct FileLook {
    int error = 0;  // errno when it could not be read: EINVAL for no regular file, EFBIG for one over 1 MiB
    std::string text;
    struct stat info = {};
};

// `folder` may be AT_FDCWD.
FileLook LookAtFile(int folder, const std::string &name);

// An open folder, in which names keep meaning the same files when its path is given to another one, and what has been
// read of it.
struct FolderLook {
    explicit FolderLook(const std::string &path);
    // Reads the file at the first call.
    const FileLook &File(const std::string &name);
    // Those of cert.pem, privkey.pem and fullchain.pem, each with the prefix, that are not there: "a, b".
    std::string ListMissingFiles(const std::string &prefix);

    UniqueFd fd;
    std::map<std::string, FileLook> files;
};

bool Exists(const std::string &path);

// The id in DEFAULT as a registration reads it: the first line, up to its 15th byte. Empty when there is none.
std::string ReadDefaultId();

// The longest id that can be the default one's.
constexpr size_t kLongestDefaultId = 15;

}  // namespace opalcrt
