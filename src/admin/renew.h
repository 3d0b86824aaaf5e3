// `opalcrt renew`: a new set in the place of a self-made one that ends.
#pragma once

#include <string>
#include <vector>

namespace opalcrt {

struct RenewOptions {
    std::string id;  // empty: the default certificate
    int days = 30;
    std::vector<std::string> names;  // empty: those of the old one
    bool onlyCheck = false;
    bool asJson = false;
};

// The exit status; 0 for a certificate that is not self-made, which is left alone. A self-made one is due when fewer
// than `days` days are left, or when it is to have other names. The new set is made beside the old one, without a
// mark of a mend, exchanged with it, and its services get it. When nothing is due, services that have not got it yet
// do.
int Renew(RenewOptions options);

}  // namespace opalcrt
