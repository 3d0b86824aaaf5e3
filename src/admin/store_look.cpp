#include "admin/store_look.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "admin/message.h"
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

FolderLook LookAtFolder(const std::string &path)
{
    FolderLook look;
    look.fd = UniqueFd(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    look.error = look.fd.IsOpen() ? 0 : errno;
    look.isHindered = look.error == EACCES;
    return look;
}

const FileLook &FileIn(FolderLook &folder, const std::string &name)
{
    const auto [entry, isNew] = folder.files.try_emplace(name);
    if (isNew) {
        entry->second = LookAtFile(folder.fd.Get(), name);
        folder.isHindered |= entry->second.error == EACCES || entry->second.error == EPERM;
    }
    return entry->second;
}

bool IsIn(int folder, const std::string &name)
{
    struct stat info = {};
    return fstatat(folder, name.c_str(), &info, 0) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

std::string ListMissingFiles(const FolderLook &folder, const std::string &prefix)
{
    std::vector<std::string> missing;
    for (const char *name : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        if (folder.error != 0 || !IsIn(folder.fd.Get(), prefix + name)) {
            missing.push_back(prefix + name);
        }
    }
    return Join(missing);
}

std::string ReadDefaultId()
{
    const std::string text = LookAtFile(AT_FDCWD, kDefaultPath).text;
    return text.substr(0, std::min(text.find_first_of(std::string("\n\0", 2)), kLongestDefaultId));
}

}  // namespace opalcrt
