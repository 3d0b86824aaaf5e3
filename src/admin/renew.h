// `opalcrt renew`: a new set in the place of a self-made one that ends.
#pragma once

#include "admin/options.h"

namespace opalcrt {

// The exit status; 0 for a certificate that is not self-made, which is left alone. A self-made one is due when fewer
// than `days` days are left, or when it is to have other names. The new set is made beside the old one, without a
// mark of a mend, exchanged with it, and its services get it. When nothing is due, services that have not got it yet
// do.
int Renew(Options options);

}  // namespace opalcrt
