// Reading regular files.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "platform/unique_fd.h"

namespace opalcrt {

// Opens a regular file for reading, close-on-exec. Anything else in its place (a folder, a fifo, a device)
// is refused without waiting for it: errno is EINVAL then. Follows links.
// A descriptor that is not open, with the platform error state and errno set, on failure.
UniqueFd OpenRegularFile(const char *path);

struct FileCloser {
    void operator()(FILE *file) const { fclose(file); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

// OpenRegularFile as a stream for YLIBCFgets; null on failure.
UniqueFile OpenForReading(const char *path);

// Reads one line of at most size - 1 bytes with its newline, as fgets(3); null at end of file or on error.
char *YLIBCFgets(char *buffer, int size, FILE *file);

// Reads what is left of `fd`, at most `limit` bytes: more is a failure with EFBIG. False with errno set.
bool ReadWhole(int fd, size_t limit, std::string &text);

// Takes a UTF-8 byte order mark (EF BB BF) from the start of the file, which is replaced as a whole and keeps
// its mode and owner. 0 on success, also when there is none; -1, file untouched, with the error state set.
int YLIBCFileUTF8BomStrip(const char *path);

}  // namespace opalcrt
