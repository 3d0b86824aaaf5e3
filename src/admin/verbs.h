// The verbs of `opalcrt`. Each answers its exit status, or throws a Failure (admin/report.h), and what it puts into
// `report` is the answer in JSON; its `result` is added where it follows from the status (FinishReport).
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

namespace opalcrt {

constexpr int kDone = 0;
constexpr int kRefused = 1;        // or failed; nothing was changed
constexpr int kPartlyChanged = 3;  // changed, but not to the end
constexpr int kWrongUsage = 64;
// Of `status`, which ends as monitoring plugins do: 1 a warning, 2 something critical.
constexpr int kCouldNotLook = 3;

// What the command line says.
struct Options {
    std::vector<std::string> ids;  // of `status`; empty: all, and what belongs to none
    std::optional<std::string> id;
    int days = 30;
    bool onlyCheck = false;
    bool asJson = false;
    bool isNew = false;                 // `install` makes another certificate
    std::vector<std::string> keyFiles;  // one, or an RSA key and an EC key
    std::vector<std::string> crtFiles;
    std::vector<std::string> chainFiles;
    std::vector<std::string> names;  // of `renew`; empty: those of the old one
    std::string subscriber;
    std::string service;  // empty: all of the subscriber's
};

// Makes the folders that the tool works in, the serial file where it can be made of nothing else, and the archive
// with one generated certificate, INFO, SERVICES and DEFAULT. An archive that holds anything is left alone, and that
// is said. The archive is made aside and renamed into place: a run that was cut off anywhere leaves none, and the next
// one begins anew. Takes the recovery lock.
int Init(const Options &options, Json::Value &report);

// What the store and the services hold, and what is wrong with it; it only looks. One line that tells all for a monitor
// that shows one, and a line for each certificate, service and finding; or as JSON {"worst", "certificates",
// "findings"}, where the last are those that belong to no certificate.
int Status(const Options &options, Json::Value &report);

// Another key and certificate in the place of one of the archive's. The new folder is made whole beside the old one and
// exchanged with it in one step (admin/archive.h) under the recovery lock; then its services get it.
int Install(const Options &options, Json::Value &report);

// Copies certificates to the services that have them, and runs the hooks. When all is done, the folders that were
// exchanged before are removed.
int Deploy(const Options &options, Json::Value &report);

// The same at the end of a verb that has changed the archive: all failures are kPartlyChanged.
int DeployChanged(const Options &options, Json::Value &report);

// Gives listed services another certificate.
int Assign(const Options &options, Json::Value &report);

// Prints the id of the certificate that new services get; or makes it another one, if a registration could use it.
int Default(const Options &options, Json::Value &report);

// A new set in the place of a self-made certificate; another one is left alone. It is due when fewer than `days` days
// are left, or when it is to have other names. The set is made beside the old one, without a mark of a mend, exchanged
// with it, and its services get it. When nothing is due, but the run before was cut off, or a service or hook failed in
// it, they get it again.
int Renew(const Options &given, Json::Value &report);

}  // namespace opalcrt
