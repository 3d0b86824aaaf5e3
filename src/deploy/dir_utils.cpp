#include "deploy/dir_utils.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "common/log.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "platform/process.h"
#include "store/paths.h"

namespace opalcrt
{

namespace
{

namespace fs = std::filesystem;

constexpr const char *kLogSource = log_source::kDirUtils;

bool Rename(const std::string &from, const std::string &to)
{
    if (rename(from.c_str(), to.c_str()) != 0 || !SyncParent(to)) {
        LOG_ERROR("Failed to move %s to %s [%d]", from.c_str(), to.c_str(), errno);
        return false;
    }
    return true;
}

// A run that was killed between the removal and the rename has left only the backup. False when it could not
// be found out which of the two is there, or the backup not renamed.
bool BringBackLoneBackup(const std::string &backup, const std::string &destination)
{
    struct stat info = {};
    if (lstat(destination.c_str(), &info) == 0) {
        return true;
    }
    const int isFolder = errno == ENOENT ? YLIBCFileCheckDir(backup.c_str()) : -1;
    if (isFolder < 0) {
        LOG_ERROR("Failed to move %s to %s [%d]", backup.c_str(), destination.c_str(), errno);
    }
    return isFolder == 0 || (isFolder == 1 && Rename(backup, destination));
}

size_t CountEntries(const std::string &folder)
{
    std::error_code error;
    const fs::directory_iterator entries(folder, error);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

// Whether both are files of the same size and time of change; /bin/cp -arp keeps the time.
bool IsCopyOf(const std::string &copy, const std::string &original)
{
    struct stat one = {};
    struct stat other = {};
    return lstat(copy.c_str(), &one) == 0 && lstat(original.c_str(), &other) == 0 &&
           one.st_size == other.st_size && one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec;
}

// Whether a removal that was killed has left less of the folder than its backup holds: everything that is
// still there is in the backup too, and something is missing. The backup was whole and on the disk before that
// removal began.
bool IsRemainsOf(const std::string &folder, const std::string &backup)
{
    std::error_code error;
    fs::directory_iterator entry(folder, error);
    for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
        if (!IsCopyOf(backup + "/" + entry->path().filename().native(), entry->path().native())) {
            return false;
        }
    }
    return !error && CountEntries(folder) < CountEntries(backup);
}

// Copies the destination to the backup when it is a folder, and has the copy on the disk before anything is
// removed. One that cannot be looked at must not be thrown away without a backup.
bool BackUp(const std::string &destination, const std::string &backup)
{
    const int isFolder = YLIBCFileCheckDir(destination.c_str());
    if (isFolder == 0) {
        return true;
    }
    if (isFolder < 0 || YLIBCExec("/bin/cp", "-arp", destination.c_str(), backup.c_str(), nullptr) != 0 ||
        !SyncTree(backup) || !SyncParent(backup)) {
        LOG_ERROR("Failed to copy %s to %s [%d]", destination.c_str(), backup.c_str(), errno);
        return false;
    }
    return true;
}

void RollBack(const std::string &backup, const std::string &destination)
{
    if (RemovePath(destination)) {
        Rename(backup, destination);
    }
}

}  // namespace

bool MoveDirectory(const std::string &source, const std::string &destination)
{
    const std::string backup = destination + kBackupSuffix;
    if (YLIBCFileCheckDir(source.c_str()) != 1) {
        LOG_ERROR("%s is not a valid directory", source.c_str());
        return false;
    }
    if (source == destination) {
        LOG_DEBUG_LINE("skip move directory, due to source equals to destination [%s]", source.c_str());
        return true;
    }

    if (!BringBackLoneBackup(backup, destination)) {
        return false;
    }
    const bool hasBackup = IsRemainsOf(destination, backup);
    if (!hasBackup && !RemovePath(backup)) {
        return false;
    }
    if (!hasBackup && !BackUp(destination, backup)) {
        RemovePath(backup);  // Half a backup may be what has filled the disk.
        return false;
    }

    if (!RemovePath(destination)) {
        RollBack(backup, destination);
        return false;
    }
    if (rename(source.c_str(), destination.c_str()) != 0) {
        LOG_ERROR("Failed to move %s to %s [%d]", source.c_str(), destination.c_str(), errno);
        RollBack(backup, destination);
        return false;
    }
    if (!SyncParent(destination)) {
        LOG_ERROR("Failed to move %s to %s [%d]", source.c_str(), destination.c_str(), errno);
        return false;  // The new folder stands, whole; only the backup is sure to survive a power cut.
    }

    RemovePath(backup);
    return true;
}

bool RemovePath(const std::string &path)
{
    if (YLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr, nullptr) != 0) {
        LOG_ERROR("Failed to remove %s [%d]", path.c_str(), errno);
        return false;
    }
    return true;
}

bool RecreateDirectory(const std::string &path, mode_t mode)
{
    if (YLIBCFileCheckDir(path.c_str()) != 0 && !RemovePath(path)) {
        return false;
    }
    if (OPALFSMkdirP(path.c_str(), nullptr, 1, 0, 0, mode) < 0) {
        LOG_ERROR("Failed to create %s", path.c_str());
        return false;
    }
    return true;
}

bool IsCanonicalPath(const std::string &path)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        LOG_ERROR("Failed to get realpath [%d]", errno);
        return false;
    }
    errno = 0;
    return path == resolved;
}

}  // namespace opalcrt
