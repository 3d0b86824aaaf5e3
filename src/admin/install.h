// `opalcrt install`: another key and certificate in the place of one of the archive's.
#pragma once

#include "admin/install_plan.h"

namespace opalcrt
{

// The exit status. The new folder is made whole beside the old one, "." + id + ".new", and exchanged with it in one
// step under the recovery lock: what a kill leaves is the old folder or the new one, each whole, and that name, which
// the next run removes first.
int Install(const InstallOptions &options);

}  // namespace opalcrt
