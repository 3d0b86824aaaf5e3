// Where a folder that is to be removed really lies.
#pragma once

#include <string>

namespace opalcrt {

// Whether the subscriber's folder (`service` empty) or the service's folder exists and, with all links
// resolved, lies strictly inside the certificate root and neither is the archive nor lies in it. The names are
// used as they are: test them first (store/names.h), since the folder of another subscriber whose name only
// begins with this one's counts as inside. Logs nothing.
bool IsServiceFolderInRoot(bool isPkg, const std::string &subscriber, const std::string &service);

}  // namespace opalcrt
