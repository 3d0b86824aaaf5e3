// Looking at the store without a trace: no lock, no log line, nothing written. What the engine asks of the same files
// it asks with log lines, and mends.
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace opalcrt
{

// What keeps a folder from counting as complete: a mend under way, or one that was cut off.
inline constexpr char kMendingMark[] = ".mending";

// The longest id that DEFAULT can hold: a registration reads that much of its first line.
constexpr size_t kLongestDefaultId = 15;

// Nobody's certificate file is larger.
constexpr off_t kLargestPemFile = 1024L * 1024;

struct FileLook {
    int error =
        0;  // errno when it could not be read: ENOENT, EINVAL (no regular file), EFBIG (kLargestPemFile), ...
    std::string text;
    struct stat info = {};
};

// `folder` may be AT_FDCWD.
FileLook LookAtFile(int folder, const std::string &name);

// An open folder, in which names keep meaning the same files when its path is given to another one, and what has been
// read of it.
struct FolderLook {
    int error = 0;
    UniqueFd fd;
    std::map<std::string, FileLook> files;
};

FolderLook LookAtFolder(const std::string &path);

// Reads the file at the first call.
const FileLook &FileIn(FolderLook &folder, const std::string &name);

// The id in DEFAULT as a registration reads it: the first line, up to its 15th byte. Empty when there is none.
std::string ReadDefaultId();

// A link in the place of a certificate's folder, or on the way to it, makes it count as missing at every check.
bool IsReachedThroughLink(const std::string &path);

// Those of cert.pem, privkey.pem and fullchain.pem, each with the prefix, that are not there.
std::vector<std::string> ListMissingFiles(int folder, const std::string &prefix);

bool IsIn(int folder, const std::string &name);

}  // namespace opalcrt
