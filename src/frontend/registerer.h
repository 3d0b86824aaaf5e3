// opalcrtregister SUBSCRIBER [SERVICE]
#pragma once

#include <json/value.h>

namespace opalcrt {

// Registers the services that the subscriber's definition file declares, or the one that is named: builds the
// service objects, lists them in SERVICES, and gives each its certificate. The definition file is removed
// once it was read, whatever happens then. Answers the exit status; on a failure one line on standard output
// names the stage, the log has the cause, and what earlier stages did stays. To be run again, the definition
// file must be dropped again.
int Registerer(int argc, char *argv[]);

// Fills `services` with the service objects that the definition (with `subscriber`, and `service` as a
// filter) declares. With a filter only its first element of that name is taken, and those after it are not
// looked at. A service whose name is not usable (store/names.h) is refused; the empty name is left to the
// engine, which refuses it. False, logged, with `services` empty.
bool PrepareServices(const Json::Value &definition, Json::Value &services);

}  // namespace opalcrt
