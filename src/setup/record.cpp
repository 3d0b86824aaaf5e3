#include "setup/record.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_read.h"
#include "platform/file_test.h"

namespace opalcrt {

namespace {

constexpr size_t kLargestFile = 1024UL * 1024;

bool NoteFolder(const std::string &path)
{
    std::string noted;
    if (!ReadRecord(kFoldersRecord, noted)) {
        return false;
    }
    const std::string line = path + "\n";
    if (("\n" + noted).find("\n" + line) != std::string::npos) {
        return true;
    }
    return ReplaceFile(kFoldersRecord, noted + line, kFoldersRecord);
}

}  // namespace

bool ReadRecord(const char *path, std::string &text)
{
    text.clear();
    const UniqueFd fd = OpenRegularFile(path);
    if (!fd.IsOpen()) {
        return errno == ENOENT;
    }
    return ReadWhole(fd.Get(), kLargestFile, text);
}

bool MakeNotedFolder(const std::string &path)
{
    for (size_t end = 0; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string part = path.substr(0, end);
        const int exists = YLIBCFileExist(part.c_str());
        if (exists < 0) {
            return false;
        }
        if (exists == 0 && !NoteFolder(part)) {
            return false;
        }
        // Also for one that is there: it answers what stands in a folder's place.
        if (OPALFSMkdirP(part.c_str(), nullptr, 0, 0, 0, 0755) != 0) {
            return false;
        }
    }
    return true;
}

std::string ChecksumLine(const std::string &path, const std::string &text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        return std::string();  // No line: the file then counts as not made by the package, and is kept.
    }
    constexpr char kDigits[] = "0123456789abcdef";
    std::string line;
    for (unsigned at = 0; at < length; ++at) {
        line += kDigits[digest[at] >> 4];
        line += kDigits[digest[at] & 15];
    }
    return line + "  " + path + "\n";
}

bool AppendChecksums(const std::string &folder, std::string &lines)
{
    namespace fs = std::filesystem;
    std::vector<std::string> paths;
    std::error_code error;
    fs::recursive_directory_iterator entry(folder, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (entry->symlink_status(error).type() == fs::file_type::regular) {
            paths.push_back(entry->path().native());
        }
    }
    if (error) {
        errno = error.value();
        return false;
    }

    std::sort(paths.begin(), paths.end());
    for (const std::string &path : paths) {
        std::string text;
        if (!ReadRecord(path.c_str(), text)) {
            return false;
        }
        lines += ChecksumLine(path, text);
    }
    return true;
}

}  // namespace opalcrt
