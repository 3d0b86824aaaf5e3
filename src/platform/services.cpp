#include "platform/services.h"

#include "platform/process.h"

namespace opalcrt {

bool OPALSystemdReload(const char *unit)
{
    return YLIBCExec("/usr/bin/systemctl", "reload", unit, nullptr, nullptr) == 0;
}

int OPALSysNotifySendNotifiction(const char *event, const void *)
{
    return YLIBCExecl("/usr/bin/busctl", kExecDefault, "--system", "emit", "/org/opal/Notification",
                      "org.opal.Notification", "Event", "s", event, nullptr);
}

}  // namespace opalcrt
