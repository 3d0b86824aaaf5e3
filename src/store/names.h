// Names from outside. They become folder names, parts of paths that root removes, and a lock file's name in
// /tmp, so whatever is not one plain folder name is refused before anything is done on its account.
#pragma once

#include <string>

namespace opalcrt {

// One folder name: not empty, not "." or "..", no "/" and no NUL byte, at most NAME_MAX (255) bytes.
bool IsPlainFolderName(const std::string &name);

// A plain folder name that leaves room for what is added to it (".cfg"; the lock file's name with a service
// of at least one byte) and is not the archive's.
bool IsUsableSubscriber(const std::string &subscriber);

// A plain folder name that leaves room for ".temp" and, with this subscriber, for the lock file's name. One
// that ends in ".temp" or ".bak" is not usable: it would share its folder with another service's staging or
// backup.
bool IsUsableService(const std::string &subscriber, const std::string &service);

}  // namespace opalcrt
