#include "deploy/dir_utils.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "common/log.h"
#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/file_test.h"
#include "platform/process.h"
#include "store/paths.h"

namespace opalcrt {

namespace {

bool LogMove(const std::string &from, const std::string &to)
{
    return LOG_ERROR("Failed to move %s to %s [%d]", from.c_str(), to.c_str(), errno);
}

bool Rename(const std::string &from, const std::string &to)
{
    return RenameAndSync(from, to) || LogMove(from, to);
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
        LogMove(backup, destination);
    }
    return isFolder == 0 || (isFolder == 1 && Rename(backup, destination));
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
        return LOG_ERROR("Failed to copy %s to %s [%d]", destination.c_str(), backup.c_str(), errno);
    }
    return true;
}

}  // namespace

bool MoveDirectory(const std::string &source, const std::string &destination)
{
    const std::string backup = destination + kBackupSuffix;
    if (YLIBCFileCheckDir(source.c_str()) != 1) {
        return LOG_ERROR("%s is not a valid directory", source.c_str());
    }
    if (source == destination) {
        LOG_DEBUG_LINE("skip move directory, due to source equals to destination [%s]", source.c_str());
        return true;
    }

    if (!BringBackLoneBackup(backup, destination) || !RemovePath(backup) || !BackUp(destination, backup)) {
        return false;
    }

    if (!RemovePath(destination) ||
        (rename(source.c_str(), destination.c_str()) != 0 && !LogMove(source, destination))) {
        if (RemovePath(destination)) {
            Rename(backup, destination);
        }
        return false;
    }
    // The new folder stands, whole; until it is synced only the backup is sure to survive a power cut.
    if (!SyncParent(destination)) {
        return LogMove(source, destination);
    }
    RemovePath(backup);
    return true;
}

bool RemovePath(const std::string &path)
{
    if (YLIBCExec("/bin/rm", "-rf", path.c_str(), nullptr, nullptr) != 0) {
        return LOG_ERROR("Failed to remove %s [%d]", path.c_str(), errno);
    }
    return true;
}

bool RecreateDirectory(const std::string &path, mode_t mode)
{
    if (YLIBCFileCheckDir(path.c_str()) != 0 && !RemovePath(path)) {
        return false;
    }
    if (OPALFSMkdirP(path.c_str(), nullptr, 1, 0, 0, mode) < 0) {
        return LOG_ERROR("Failed to create %s", path.c_str());
    }
    return true;
}

bool IsCanonicalPath(const std::string &path)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) == nullptr) {
        return LOG_ERROR("Failed to get realpath [%d]", errno);
    }
    errno = 0;
    return path == resolved;
}

}  // namespace opalcrt
