#include "admin/store_look.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "store/paths.h"

namespace opalcrt
{

FileLook LookAtFile(int folder, const std::string &name)
{
    FileLook look;
    // O_NONBLOCK: opening a fifo must not wait for a writer.
    const UniqueFd fd(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.IsOpen() || fstat(fd.Get(), &look.info) != 0) {
        look.error = errno;
    } else if (!S_ISREG(look.info.st_mode)) {
        look.error = EINVAL;
    } else if (look.info.st_size > kLargestPemFile) {
        look.error = EFBIG;
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
    return look;
}

const FileLook &FileIn(FolderLook &folder, const std::string &name)
{
    const auto found = folder.files.find(name);
    if (found != folder.files.end()) {
        return found->second;
    }
    return folder.files.emplace(name, LookAtFile(folder.fd.Get(), name)).first->second;
}

std::string ReadDefaultId()
{
    const std::string text = LookAtFile(AT_FDCWD, kDefaultPath).text;
    return text.substr(0, std::min(text.find_first_of(std::string("\n\0", 2)), kLongestDefaultId));
}

bool IsReachedThroughLink(const std::string &path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr && path != resolved;
}

std::vector<std::string> ListMissingFiles(int folder, const std::string &prefix)
{
    std::vector<std::string> missing;
    for (const char *name : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        if (!IsIn(folder, prefix + name)) {
            missing.push_back(prefix + name);
        }
    }
    return missing;
}

bool IsIn(int folder, const std::string &name)
{
    struct stat info = {};
    return fstatat(folder, name.c_str(), &info, 0) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

}  // namespace opalcrt
