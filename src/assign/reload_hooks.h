// The subscribers' reload hooks: an executable named like the subscriber in its share directory
// (store/paths.h, also that of its definition file) or else in its libexec directory. It is run with the
// service's name as its only argument, and waited for.
#pragma once

#include <json/value.h>

namespace opalcrt {

// Runs the subscriber's hook for a valid service object. 0 when it ran, whatever its exit status, and when
// the subscriber has none; negative, logged, when there is one that could not be started. The libexec hook is
// not tried when a share hook exists. No lock may be held: the hook may call this tool.
// `ended`, where there is one, is what it ended with (YLIBCExecl), or 126, as in sh(1), when it could not be started;
// otherwise it is left as it was.
int ReloadService(const Json::Value &serviceObj, int *ended = nullptr);

}  // namespace opalcrt
