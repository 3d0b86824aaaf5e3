// Files that openssl or cp is about to write.
#pragma once

#include <string>

namespace opalcrt {

// Makes sure that the program writes this file and no other: a link, and one of several names of a file, are removed,
// since what is written through them would change what somebody else has. False with errno set when that fails, and
// for a fifo or a device (EINVAL), which the program would wait for; those stay. A folder is left to the program.
bool ReadyOutput(const std::string &path);

// The same for a private key: a file that stays is made root's and unreadable for others before the key comes into it.
bool ReadyKeyOutput(const std::string &path);

}  // namespace opalcrt
