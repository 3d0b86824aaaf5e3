#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>

#include "platform/atomic_file.h"
#include "platform/directory.h"
#include "platform/error_state.h"
#include "platform/file_lock.h"
#include "platform/file_test.h"
#include "platform/process.h"
#include "platform/string_list.h"
#include "platform/unique_fd.h"
#include "platform/users.h"
#include "sandbox.h"

namespace opalcrt
{

using Platform = Sandbox;

TEST_F(Platform, TellsTheEndingsOfChildrenApart)
{
    struct Case {
        const char *path;
        const char *command;
        int code;
        int error;
    };
    const Case cases[] = {
        {"/bin/sh", "exit 0", 0, 0},
        {"/bin/sh", "exit 3", kErrChildStatus + 3, EIO},
        {"/bin/sh", "kill -9 $$", kErrChildSignal + 9, EINTR},
        {"/bin/nothing", "", kErrChildStart, ENOENT},
        {"/etc/passwd", "", kErrChildStart, EACCES},
        {"/tmp/script", "", kErrChildStart, ENOEXEC},
    };
    Shell("echo exit 0 > /tmp/script; chmod 0755 /tmp/script");  // No interpreter line: the kernel does not start it.
    for (const Case &test : cases) {
        YLIBCErrSetEx(0, "", 0);
        const int result = YLIBCExec(test.path, "-c", test.command, nullptr, nullptr);
        EXPECT_EQ(result < 0 ? errno : 0, test.error) << test.command;
        EXPECT_EQ(YLIBCErrGet(), test.code) << test.command;
        EXPECT_EQ(YLIBCExecl(test.path, kExecHook, {"-c", test.command}) < 0, test.code == kErrChildStart) << test.command;
        EXPECT_EQ(YLIBCExecl(test.path, kExecDefault, {"-c", test.command}), result);
    }
    signal(SIGCHLD, SIG_IGN);
    EXPECT_LT(YLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(YLIBCErrGet(), kErrChildLost);
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(Platform, TakesItsChildrenAlongWhenItIsKilled)
{
    Shell("define p web; replace /bin/cp 'sleep 600'; opalcrtregister p & until pgrep -x sleep; do sleep 0.02; done; kill -9 $(pgrep -x opalcrtregister)");
    EXPECT_EQ(Shell("sleep 0.2; pgrep -x cp"), "");
}

TEST_F(Platform, LooksAtFilesAndUsers)
{
    Shell("cd /tmp; mkdir d; touch f; ln -s l l; ln -s none dangling");
    struct Case {
        const char *path;
        int exists;
        int isFolder;
    };
    for (const Case &test : {Case{"/tmp/d", 1, 1}, {"/tmp/f", 1, 0}, {"/tmp/none", 0, 0}, {"/tmp/f/x", 0, 0}, {"/tmp/dangling", 0, 0}, {"/tmp/l", -1, -1}}) {
        EXPECT_EQ(YLIBCFileExist(test.path), test.exists) << test.path;
        EXPECT_EQ(YLIBCFileCheckDir(test.path), test.isFolder) << test.path;
    }
    for (const std::string &name : {std::string(), std::string("nobody-knows"), std::string("opalweb\0", 8)}) {
        EXPECT_LT(OPALUserGetUGID(name, nullptr, nullptr), 0) << name;
        EXPECT_EQ(YLIBCErrGet(), kErrUserLookup);
    }
    EXPECT_EQ(YLIBCStrSep(nullptr, ";", nullptr), -1);
}

TEST_F(Platform, MakesFoldersWithTheirMode)
{
    umask(0777);
    EXPECT_EQ(OPALFSMkdirP("/tmp/a/b/c", nullptr, 1, kWeb, kMail, 0751), 0);
    EXPECT_EQ(OPALFSMkdirP("/tmp/a/b/c", nullptr, 1, 0, 0, 0700), 0);
    EXPECT_LT(OPALFSMkdirP("/tmp/x/y", nullptr, 0, 0, 0, 0700), 0);
    umask(022);
    EXPECT_LT(OPALFSMkdirP("/etc/passwd", nullptr, 1, 0, 0, 0700), 0);
    EXPECT_EQ(Shell("cd /tmp; stat -c '%n %a %u %g' a a/b a/b/c"), "a 751 64101 64102\na/b 751 64101 64102\na/b/c 751 64101 64102\n");
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
    EXPECT_EQ(Shell("cd /tmp; cat victim full/f fresh; stat -c ' %a' fresh; ls full; restore"), "victim\nold\ntext 644\nf\n");
}

TEST_F(Platform, LocksBetweenProcesses)
{
    const char *path = "/tmp/some.lock";
    int fd = -1;
    ASSERT_NE(YLIBCFileLockTimeByFile(path, kLockExclusive, 0, &fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(Shell("stat -c %a /tmp/some.lock"), "600\n");
    int other = -1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(YLIBCFileLockTimeByFile(path, kLockShared, 1, &other), 0);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(other, -1);
    EXPECT_GE(waited.count(), 1.0);
    EXPECT_LT(waited.count(), 1.5);
    EXPECT_NE(YLIBCFileUnlockByFile(fd), 0);
    EXPECT_EQ(YLIBCFileUnlockByFile(999), 0);
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockShared, 0, &fd), 0);
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockShared, 0, &other), 0);
    close(fd);
    close(other);

    // A lock file that was removed while somebody waited for it guards nothing: its successor must be taken.
    Shell("flock /tmp/some.lock sh -c 'sleep 0.3; rm /tmp/some.lock; touch /tmp/some.lock' >/dev/null 2>&1 & sleep 0.1");
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockExclusive, 5, &fd), 0);
    EXPECT_EQ(Shell("flock -n /tmp/some.lock true; echo $?"), "1\n");
    close(fd);
}

TEST_F(Platform, TakesNoPlantedLockFile)
{
    Shell("cd /tmp; touch victim; ln -s victim link; ln -s none dangling; mkfifo fifo; mkdir dir; touch theirs opalcertificate_info.lock; "
          "chown opalmail theirs opal*; chmod 0 theirs");
    int fd = -1;
    for (const char *planted : {"/tmp/link", "/tmp/dangling", "/tmp/fifo", "/tmp/dir"}) {
        EXPECT_EQ(YLIBCFileLockTimeByFile(planted, kLockExclusive, 0, &fd), 0) << planted;
    }
    // Another user's file is taken, and without O_CREAT: with fs.protected_regular that is refused even to root.
    EXPECT_NE(YLIBCFileLockTimeByFile("/tmp/theirs", kLockExclusive, 0, &fd), 0);
    close(fd);
    EXPECT_EQ(Shell("ls /tmp/none 2>/dev/null; strace -qq -o /run/trace -e trace=openat opalcrtunregister p; grep 'info.lock' /run/trace | grep -c O_CREAT"),
              "Failed to remove service certificate\n0\n");
}

TEST_F(Platform, OnlyLogsALockThatCannotBeReleased)
{
    const char *lines[] = {"opalcrtregister.cpp Failed to unlock [/tmp/opal_cert_register_services.lock]\n",
        "utils.cpp Failed to unlock /tmp/opal_cert_recover.lock\n", "utils.cpp Failed to unlock /tmp/opalcertificate_info.lock\n",
        "utils.cpp Failed to unlock /tmp/certificate_p_web.lock\n", "utils.cpp Failed to unlock /tmp/opalcertificate_info.lock\n"};
    for (int index = 0; index < 5; ++index) {
        Shell("rm c/cert.pem; define p web");
        ExpectWithFault("flock", 2 + 2 * index, "opalcrtregister p", "0", {lines[index]});
    }
}

}  // namespace opalcrt
