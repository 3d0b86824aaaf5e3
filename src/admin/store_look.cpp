#include "admin/store_look.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "admin/report.h"
#include "platform/file_test.h"
#include "store/paths.h"

namespace opalcrt {

FileLook LookAtFile(int folder, const std::string &name)
{
    constexpr off_t kLargestFile = 1024L * 1024;

    FileLook look;
    // O_NONBLOCK: opening a fifo must not wait for a writer.
    const UniqueFd fd(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.IsOpen() || fstat(fd.Get(), &look.info) != 0) {
        look.error = errno;
    } else if (!S_ISREG(look.info.st_mode) || look.info.st_size > kLargestFile) {
        look.error = S_ISREG(look.info.st_mode) ? EFBIG : EINVAL;
    } else {
        look.text.resize(static_cast<size_t>(look.info.st_size));
        const ssize_t got = pread(fd.Get(), look.text.data(), look.text.size(), 0);
        look.error = got < 0 ? errno : 0;
        look.text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    }
    return look;
}

FolderLook::FolderLook(const std::string &path) : fd(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

const FileLook &FolderLook::File(const std::string &name)
{
    const auto [entry, isNew] = files.try_emplace(name);
    if (isNew) {
        entry->second = LookAtFile(fd.Get(), name);
        // A folder that is not there has no files.
        entry->second.error = fd.IsOpen() ? entry->second.error : ENOENT;
    }
    return entry->second;
}

std::string FolderLook::ListMissingFiles(const std::string &prefix)
{
    std::vector<std::string> missing;
    for (const char *name : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        if (const int error = File(prefix + name).error; error != 0 && IsMissing(error)) {
            missing.push_back(prefix + name);
        }
    }
    return Join(missing);
}

bool Exists(const std::string &path)
{
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::string ReadDefaultId()
{
    const std::string text = LookAtFile(AT_FDCWD, kDefaultPath).text;
    return text.substr(0, std::min(text.find_first_of(std::string("\n\0", 2)), kLongestDefaultId));
}

}  // namespace opalcrt
