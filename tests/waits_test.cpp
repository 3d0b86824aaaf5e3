// Waiting for locks that somebody else keeps, each with its own time. Each takes as long as the wait; they run
// side by side with the other tests.

#include <chrono>

#include "sandbox.h"

using namespace opalcrt;

struct Wait {
    const char *name;
    const char *lock;  // and how somebody else keeps it, flock(1)
    double seconds;
    const char *command;
    const char *result;
    Trail trail;
};

void PrintTo(const Wait &wait, std::ostream *out) { *out << wait.name; }

class Locks : public Sandbox, public testing::WithParamInterface<Wait>
{
};

TEST_P(Locks, AreWaitedForNoLonger)
{
    const Wait &wait = GetParam();
    Shell(std::string("define p web; cp INFO /tmp; flock ") + wait.lock + " sleep 90 >/dev/null 2>&1 & sleep 0.3");
    const auto start = std::chrono::steady_clock::now();
    Expect(wait.command, wait.result, wait.trail);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited.count(), wait.seconds);
    EXPECT_LT(waited.count(), wait.seconds + 5);
    EXPECT_EQ(Shell("cmp INFO /tmp/INFO"), "");
}

const char *const kFailed = "Failed to DeployDefCrt for p\n1";
const Wait kWaits[] = {
    {"InfoOfAnUnregistration", "-s /tmp/opalcertificate_info.lock", 10, "opalcrtunregister p", "1",
     {"opalcrtregister.cpp Lock list file [/tmp/opalcertificate_info.lock] failed"}},
    {"InfoOfALookup", "-x /tmp/opalcertificate_info.lock", 30, "opalcrtregister p", kFailed,
     {"utils.cpp Failed to lock [/tmp/opalcertificate_info.lock]", "Failed to check service exist for {"}},
    {"InfoOfAnUpdate", "-s /tmp/opalcertificate_info.lock", 30, "opalcrtregister p", kFailed,
     {"utils.cpp Lock list file [/tmp/opalcertificate_info.lock] failed", "Failed to update cert info for [{"}},
    {"Recovery", "-s /tmp/opal_cert_recover.lock", 30, "rm c/cert.pem; opalcrtregister p", kFailed,
     {"utils.cpp Failed to lock file [/tmp/opal_cert_recover.lock]", "Failed to recover certificate for [c]"}},
    {"Services", "-s /tmp/opal_cert_register_services.lock", 60, "opalcrtregister p", "Failed to append register services\n1",
     {"opalcrtregister.cpp Failed to lock [/tmp/opal_cert_register_services.lock]"}},
    {"Service", "-s /tmp/certificate_p_web.lock", 60, "opalcrtregister p", kFailed,
     {"utils.cpp Failed to lock [/tmp/certificate_p_web.lock]", "Failed to set cert [c] for [{"}},
};
INSTANTIATE_TEST_SUITE_P(Waits, Locks, testing::ValuesIn(kWaits), [](const auto &wait) { return wait.param.name; });
