// Putting files and folders on the disk so that a power cut leaves the old state or the new one.
#pragma once

#include <sys/types.h>

#include <string>

namespace opalcrt {

// Makes the file anew with this text and syncs it, but not the folder: for the caller that renames it afterwards.
// Whatever has this name is removed before, so that no link is followed and no other name changes. Mode and owner are
// those of `modelPath` where that exists, else `mode` whatever the umask. False with errno and the platform error state
// set; nothing has this name then.
bool WriteNewFile(const std::string &path, const std::string &text, const std::string &modelPath,
                  mode_t mode = 0644);

// rename(2) and the sync of the folder it leads to. False with errno and the error state set; when only the sync has
// failed, the new name stands but may not survive a power cut.
bool RenameAndSync(const std::string &from, const std::string &to);

// unlink(2) and the sync of the folder; what is missing already is removed. False as RenameAndSync.
bool RemoveAndSync(const std::string &path);

// Replaces `path` by a regular file that holds `text`: written as path + ".new" beside it, synced, renamed,
// and the folder synced. Nobody sees a part of it at any moment. The name is fixed, so that killed runs leave
// one such file and not a heap; the next write removes it. Two writers of one path must be kept apart by a
// lock. Mode and owner as WriteNewFile. A link at `path` is replaced, not followed. False with errno and the
// platform error state set: `path` is untouched and path + ".new" removed, except when only the last step, the
// sync of the folder, failed: then the new file stands, but may not survive a cut.
bool ReplaceFile(const std::string &path, const std::string &text, const std::string &modelPath);

// Writes all of `text`, over EINTR and short writes. False with errno set.
bool WriteAll(int fd, const std::string &text);

// fsync(2) of one file or folder; of what a link leads to, since a renamed entry lies there. False with errno
// and the error state set.
bool SyncPath(const std::string &path);

// SyncPath of the folder that holds `path`.
bool SyncParent(const std::string &path);

// SyncPath of every regular file and folder at and below `path`; links (also `path` itself), fifos and the
// like hold nothing to sync of their own. False with errno set at the first failure.
bool SyncTree(const std::string &path);

}  // namespace opalcrt
