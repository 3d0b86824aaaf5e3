// The service manager and the system's notifications.
#pragma once

namespace opalcrt {

// Asks the service manager to reload the unit: /usr/bin/systemctl reload UNIT (systemctl(1)). True on
// success; false also where the unit or the manager does not exist.
bool OPALSystemdReload(const char *unit);

// Sends the event as a signal on the system bus, with /usr/bin/busctl emit (busctl(1)): object
// /org/opal/Notification, interface org.opal.Notification, member Event, one string argument, the event's
// name. An administrator listens with
//   busctl monitor --match="type='signal',interface='org.opal.Notification'"
// `parameters` must be null: no event has any. 0 when the bus took it, non-zero otherwise (no bus running).
int OPALSysNotifySendNotifiction(const char *event, const void *parameters);

}  // namespace opalcrt
