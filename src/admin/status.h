// `opalcrt status`: what the store and the services hold, and what is wrong with it. It only looks.
#pragma once

#include "admin/options.h"

namespace opalcrt {

constexpr int kCouldNotLook = 3;

// Prints the report: one line that tells all for a monitor that shows one, and a line for each certificate, service and
// finding; or as JSON {"worst", "certificates", "findings"}, where the last are those that belong to no certificate.
// The exit status, that of a monitoring plugin: 0 well, 1 a warning, 2 something critical, 3 it could not look (there
// is no INFO, or it may not be read), which one line on standard error tells.
int Status(const Options &options);

}  // namespace opalcrt
