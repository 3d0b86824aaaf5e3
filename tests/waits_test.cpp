// Waiting for locks that somebody else keeps, each with its own time. Each takes as long as the wait; they run
// side by side with the other tests.

#include <chrono>

#include "platform/file_lock.h"
#include "sandbox.h"

namespace opalcrt
{

class Waits : public Sandbox
{
protected:
    Waits()
    {
        AddCrt("c");
        WriteFile(kStore + "DEFAULT", "c");
        Define("p", {"web"});
    }
    // Runs the command while the lock is held, and says after how many seconds it gave up.
    double RunAgainst(const char *lock, int mode, const std::vector<std::string> &args, Result &result)
    {
        int fd = -1;
        EXPECT_NE(YLIBCFileLockTimeByFile(lock, mode, 0, &fd), 0);
        const auto start = std::chrono::steady_clock::now();
        result = Run(args);
        const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
        EXPECT_NE(YLIBCFileUnlockByFile(fd), 0);
        return waited.count();
    }
    void Expect(const char *lock, int mode, double seconds, const std::vector<std::string> &args, const char *out,
                const std::vector<std::string> &trail)
    {
        const std::string info = ReadFile(kStore + "INFO");
        Result result;
        const double waited = RunAgainst(lock, mode, args, result);
        EXPECT_GE(waited, seconds);
        EXPECT_LT(waited, seconds + 5);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, out);
        EXPECT_TRUE(Logged(trail));
        EXPECT_EQ(ReadFile(kStore + "INFO"), info);
    }
};

TEST_F(Waits, InfoLockOfAnUnregistration)
{
    Expect("/tmp/opalcertificate_info.lock", kLockShared, 10, {"opalcrtunregister", "p"}, "",
           {"opalcrtregister.cpp Lock list file [/tmp/opalcertificate_info.lock] failed"});
}

TEST_F(Waits, InfoLockOfALookup)
{
    Expect("/tmp/opalcertificate_info.lock", kLockExclusive, 30, {"opalcrtregister", "p"}, "Failed to DeployDefCrt for p\n",
           {"utils.cpp Failed to lock [/tmp/opalcertificate_info.lock]", "Failed to check service exist for {"});
}

TEST_F(Waits, InfoLockOfAnUpdate)
{
    Expect("/tmp/opalcertificate_info.lock", kLockShared, 30, {"opalcrtregister", "p"}, "Failed to DeployDefCrt for p\n",
           {"utils.cpp Lock list file [/tmp/opalcertificate_info.lock] failed", "Failed to update cert info for [{"});
}

TEST_F(Waits, RecoveryLock)
{
    unlink((kStore + "c/cert.pem").c_str());
    Expect("/tmp/opal_cert_recover.lock", kLockShared, 30, {"opalcrtregister", "p"}, "Failed to DeployDefCrt for p\n",
           {"utils.cpp Failed to lock file [/tmp/opal_cert_recover.lock]", "Failed to recover certificate for [c]"});
}

TEST_F(Waits, ServicesLock)
{
    Expect("/tmp/opal_cert_register_services.lock", kLockShared, 60, {"opalcrtregister", "p"}, "Failed to append register services\n",
           {"opalcrtregister.cpp Failed to lock [/tmp/opal_cert_register_services.lock]"});
}

TEST_F(Waits, ServiceLock)
{
    Expect("/tmp/certificate_p_web.lock", kLockShared, 60, {"opalcrtregister", "p"}, "Failed to DeployDefCrt for p\n",
           {"utils.cpp Failed to lock [/tmp/certificate_p_web.lock]", "Failed to set cert [c] for [{"});
}

TEST_F(Waits, ALockThatCannotBeReleasedIsOnlyLogged)
{
    unlink((kStore + "c/cert.pem").c_str());
    const char *lines[] = {"utils.cpp Failed to unlock /tmp/opal_cert_recover.lock", "utils.cpp Failed to unlock /tmp/opalcertificate_info.lock",
                           "utils.cpp Failed to unlock /tmp/certificate_p_web.lock", "utils.cpp Failed to unlock /tmp/opalcertificate_info.lock"};
    EXPECT_EQ(RunWithFault({"opalcrtregister", "p"}, "flock", "error=EIO", 2).status, 0);
    EXPECT_TRUE(Logged({"opalcrtregister.cpp Failed to unlock [/tmp/opal_cert_register_services.lock]"}));
    for (int index = 0; index < 4; ++index) {
        unlink((kStore + "c/cert.pem").c_str());
        Define("p", {"web"});
        EXPECT_EQ(RunWithFault({"opalcrtregister", "p"}, "flock", "error=EIO", 4 + 2 * index).status, 0);
        EXPECT_TRUE(Logged({lines[index]})) << index;
    }
}

}  // namespace opalcrt
