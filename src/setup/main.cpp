// opalcrt-init-store: run by the package when it is installed or upgraded. Takes no arguments.

#include <unistd.h>

#include <cstdio>

#include "platform/startup.h"
#include "setup/store_setup.h"

int main()
{
    if (!opalcrt::PrepareProcess()) {
        return 1;
    }
    if (geteuid() != 0) {
        fprintf(stderr, "opalcrt-init-store: only root can make the store\n");
        return 1;
    }
    return opalcrt::SetUpStore() ? 0 : 1;
}
