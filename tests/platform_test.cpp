#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "platform/atomic_file.h"
#include "platform/error_state.h"
#include "platform/file_lock.h"
#include "platform/process.h"
#include "sandbox.h"

using namespace opalcrt;

using Platform = Sandbox;

TEST_F(Platform, TellsTheEndingsOfChildrenApart)
{
    Shell("echo exit 0 > /tmp/script; chmod 0755 /tmp/script");  // No interpreter line: the kernel does not start it.
    struct Case {
        const char *path;
        const char *command;
        int code;
        int error;
    };
    for (const Case &test : {Case{"/bin/sh", "exit 0", 0, 0}, {"/bin/sh", "exit 3", kErrChildStatus + 3, EIO},
                             {"/bin/sh", "kill -9 $$", kErrChildSignal + 9, EINTR}, {"/bin/nothing", "", kErrChildStart, ENOENT},
                             {"/etc/passwd", "", kErrChildStart, EACCES}, {"/tmp/script", "", kErrChildStart, ENOEXEC}}) {
        YLIBCErrSetEx(0, "", 0);
        const int result = YLIBCExec(test.path, "-c", test.command, nullptr, nullptr);
        EXPECT_EQ(result < 0 ? errno : 0, test.error) << test.command;
        EXPECT_EQ(YLIBCErrGet(), test.code) << test.command;
        EXPECT_EQ(YLIBCExecl(test.path, kExecHook, "-c", test.command, nullptr) < 0, test.code == kErrChildStart) << test.command;
    }
    signal(SIGCHLD, SIG_IGN);
    EXPECT_LT(YLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(YLIBCErrGet(), kErrChildLost);
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(Platform, TakesItsChildrenAlongWhenItIsKilled)
{
    Shell("define p web; replace /bin/cp 'sleep 600'; opalcrtregister p & until pgrep -x sleep; do sleep 0.02; done; "
          "kill -9 $(pgrep -x opalcrtregister)");
    EXPECT_EQ(Shell("sleep 0.2; pgrep -x cp"), "");
}

// Neither a planted link nor a file left by a killed run is written through; a full disk leaves the old.
TEST_F(Platform, ReplacesFilesWhole)
{
    Shell("cd /tmp; echo victim > victim; ln -s victim fresh.new; mkdir full; mount -t tmpfs -o size=4k test full");
    umask(0777);
    EXPECT_TRUE(ReplaceFile("/tmp/fresh", "text", "/tmp/fresh"));
    umask(022);
    EXPECT_TRUE(ReplaceFile("/tmp/full/f", "old\n", ""));
    EXPECT_FALSE(ReplaceFile("/tmp/full/f", std::string(9000, 'x'), ""));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(Shell("cd /tmp; cat victim full/f fresh; stat -c ' %a' fresh; ls full"), "victim\nold\ntext 644\nf\n");
}

TEST_F(Platform, TakesNoPlantedLockFileAndNoneThatWasRemoved)
{
    Shell("cd /tmp; touch victim theirs open opalcertificate_info.lock; ln -s victim link; ln -s none dangling; mkfifo fifo; mkdir dir; ln open more; "
          "chown opalmail theirs opal*; chmod 0 theirs");
    int fd = -1;
    for (const char *planted : {"/tmp/link", "/tmp/dangling", "/tmp/fifo", "/tmp/dir", "/tmp/open"}) {
        EXPECT_EQ(YLIBCFileLockTimeByFile(planted, kLockExclusive, 0, &fd), 0) << planted;
        EXPECT_NE(errno, ETIMEDOUT) << planted;
    }
    // Another user's file is taken and becomes root's, so that he cannot rename it while it is locked; and without O_CREAT: with fs.protected_regular that is refused even to root.
    EXPECT_NE(YLIBCFileLockTimeByFile("/tmp/theirs", kLockShared, 0, &fd), 0);
    EXPECT_NE(YLIBCFileLockTimeByFile("/tmp/theirs", kLockShared, 0, &fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(Shell("cd /tmp; stat -c '%U %a' theirs; chmod 1777 .; setpriv --reuid opalmail --clear-groups mv theirs gone 2>&1 | grep -c permitted"),
              "root 600\n1\n");
    EXPECT_EQ(YLIBCFileUnlockByFile(999), 0);
    EXPECT_EQ(Shell("ls /tmp/none 2>/dev/null; strace -qq -o /run/trace -e trace=openat opalcrtunregister p; "
                    "grep 'info.lock' /run/trace | grep -c O_CREAT"),
              "Failed to remove service certificate\n0\n");
    // A lock file that was removed while somebody waited for it guards nothing: its successor must be taken.
    Shell("flock /tmp/some.lock sh -c 'sleep 0.3; rm /tmp/some.lock' >/dev/null 2>&1 & sleep 0.1");
    EXPECT_NE(YLIBCFileLockTimeByFile("/tmp/some.lock", kLockExclusive, 5, &fd), 0);
    EXPECT_EQ(Shell("flock -n /tmp/some.lock true; echo $?; stat -c %a /tmp/some.lock"), "1\n600\n");
}

TEST_F(Platform, OnlyLogsALockThatCannotBeReleased)
{
    Check({{"2", "0", {"opalcrtregister.cpp Failed to unlock [/tmp/opal_cert_register_services.lock]\n"}},
           {"4", "0", {"utils.cpp Failed to unlock /tmp/opal_cert_recover.lock\n"}},
           {"6", "0", {"utils.cpp Failed to unlock /tmp/opalcertificate_info.lock\n"}},
           {"8", "0", {"utils.cpp Failed to unlock /tmp/certificate_p_web.lock\n"}},
           {"10", "0", {"utils.cpp Failed to unlock /tmp/opalcertificate_info.lock\n"}}},
          "rm c/cert.pem; define p web; call=", "fault flock $call opalcrtregister p");
}
