// The assignment engine: gives a certificate of the archive to services, keeps INFO right, and tells the
// services and the relay daemon.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

namespace opalcrt {

// The action of a registration: a service that has a certificate keeps it, and no hook runs.
constexpr int kActionDefault = 3;

// What became of one service.
struct ServiceOutcome {
    bool isDone = false;  // It has the certificate, and INFO says so, whatever became of its hook.
    std::string cert_id;  // what it was to get; empty when it was refused before that was known
    int hookEnded = -1;   // what ReloadService tells; below 0 when there is no hook, or it was not to run
};
using ServiceObserver = std::function<void(const Json::Value &serviceObj, const ServiceOutcome &outcome)>;

// SetCrtForServices with the system default certificate. False at once when there is none.
bool DeployDefCrt(const Json::Value &services, int action, const std::string &old_cert_id);

// Gives the certificate `cert_id` to each service object of the array `services`: deploys it into the
// service's folder, moves the service in INFO from `old_cert_id` (empty: from nowhere) to it, and runs the
// subscriber's hook, as the action's row has it. At the end the relay daemon is reloaded, whose failure does
// not count.
//
//   action       INFO      hook
//   0, 1, 4      changed   runs
//   2            untouched runs
//   3            changed   does not run; a service that INFO lists keeps the certificate listed there
//
// A service whose names are not usable (store/names.h) is refused as an invalid one is.
// True when every service was handled. False, logged, when a parameter was refused (nothing was done then) or
// a service failed; the others are still handled, and nothing is rolled back: a service whose INFO update
// failed has its new files already. `tell` is called after each service, with no lock held. Locks are taken and
// released one at a time; the caller may hold none.
bool SetCrtForServices(const std::string &cert_id, const Json::Value &services,
                       const std::string &old_cert_id, int action, const ServiceObserver &tell = {},
                       bool reloadsRelay = true);

// The end of SetCrtForServices, for who calls it several times and reloads once. A failure is logged.
void ReloadRelayDaemon();

}  // namespace opalcrt
