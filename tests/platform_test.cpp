#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>

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
    WriteFile("/tmp/script", "exit 0", 0755);  // No interpreter line: the kernel does not start it.
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
    for (const Case &test : cases) {
        YLIBCErrSetEx(0, "", 0);
        const int result = YLIBCExec(test.path, "-c", test.command, nullptr, nullptr);
        EXPECT_EQ(result < 0, test.code != 0) << test.command;
        EXPECT_EQ(YLIBCErrGet(), test.code) << test.command;
        EXPECT_EQ(result < 0 ? errno : 0, test.error) << test.command;

        const int hook = YLIBCExecl(test.path, kExecHook, {"-c", test.command});
        EXPECT_EQ(hook < 0, test.code == kErrChildStart) << test.command;
        EXPECT_EQ(YLIBCExecl(test.path, kExecDefault, {"-c", test.command}), result);
    }
    signal(SIGCHLD, SIG_IGN);
    EXPECT_LT(YLIBCExec("/bin/true", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(YLIBCErrGet(), kErrChildLost);
    signal(SIGCHLD, SIG_DFL);
}

TEST_F(Platform, GivesChildrenNothingOfItsOwn)
{
    const int open7 = dup2(open("/etc/passwd", O_RDONLY), 77);
    ASSERT_EQ(open7, 77);
    signal(SIGTERM, SIG_IGN);
    setenv("SECRET", "1", 1);
    sigset_t blocked;
    sigfillset(&blocked);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    umask(0);
    const char *look = "{ ls -l /proc/$$/fd | grep -c -- '-> /dev/null'; ls /proc/$$/fd | tr '\\n' ' '; env | sort; pwd; umask; "
                       "grep -E 'Sig(Blk|Ign)' /proc/$$/status; } > /tmp/seen";
    ASSERT_EQ(YLIBCExec("/bin/sh", "-c", look, nullptr, nullptr), 0);
    sigemptyset(&blocked);
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    umask(022);
    close(77);
    EXPECT_EQ(ReadFile("/tmp/seen"), "3\n0 1 10 2 HOME=/root\nLC_ALL=C\nPATH=/usr/sbin:/usr/bin:/sbin:/bin\nPWD=/\n/\n0022\n"
                                     "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(Platform, TakesItsChildrenAlongWhenItIsKilled)
{
    AddCrt("abc123");
    WriteFile(kStore + "DEFAULT", "abc123");
    Define("p", {"web"});
    ReplaceProgram("/bin/cp", "sleep 600; touch /tmp/too-late");
    Shell(tools_ + "/opalcrtregister p & until pgrep -x sleep; do sleep 0.02; done; kill -9 $(pgrep -x opalcrtregister)");
    EXPECT_EQ(Shell("sleep 0.2; pgrep -x cp"), "");
}

TEST_F(Platform, LooksAtFiles)
{
    Shell("mkdir -p /tmp/d /tmp/loop; touch /tmp/f; ln -s /tmp/l /tmp/l; ln -s /tmp/none /tmp/dangling");
    struct Case {
        const char *path;
        int exists;
        int isFolder;
    };
    for (const Case &test : {Case{"/tmp/d", 1, 1}, {"/tmp/f", 1, 0}, {"/tmp/none", 0, 0}, {"/tmp/f/x", 0, 0},
                             {"/tmp/dangling", 0, 0}, {"/tmp/l", -1, -1}}) {
        EXPECT_EQ(YLIBCFileExist(test.path), test.exists) << test.path;
        EXPECT_EQ(YLIBCFileCheckDir(test.path), test.isFolder) << test.path;
    }
    uid_t uid = 0;
    EXPECT_EQ(OPALUserGetUGID("opalweb", &uid, nullptr), 0);
    EXPECT_EQ(uid, kWeb);
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
    WriteFile("/tmp/file", "");
    EXPECT_LT(OPALFSMkdirP("/tmp/file", nullptr, 1, 0, 0, 0700), 0);
    EXPECT_EQ(Shell("stat -c '%n %a %u %g' /tmp/a /tmp/a/b /tmp/a/b/c"),
              "/tmp/a 751 64101 64102\n/tmp/a/b 751 64101 64102\n/tmp/a/b/c 751 64101 64102\n");
}

TEST_F(Platform, ReplacesFilesWholeAndStripsTheMark)
{
    umask(0777);
    EXPECT_TRUE(ReplaceFile("/tmp/new", "text", "/tmp/new"));
    umask(022);
    WriteFile("/tmp/key", "\xEF\xBB\xBFkey", 0400);
    EXPECT_EQ(YLIBCFileUTF8BomStrip("/tmp/key"), 0);
    EXPECT_EQ(YLIBCFileUTF8BomStrip("/tmp/key"), 0);
    EXPECT_EQ(YLIBCFileUTF8BomStrip("/tmp/none"), -1);
    EXPECT_EQ(ReadFile("/tmp/key"), "key");
    EXPECT_EQ(Shell("stat -c '%n %a' /tmp/new /tmp/key"), "/tmp/new 644\n/tmp/key 400\n");

    // Neither a planted link nor a file left by a killed run is written through; a full disk leaves the old.
    WriteFile("/tmp/victim", "victim");
    Shell("ln -s /tmp/victim /tmp/new.new; mkdir /tmp/full; mount -t tmpfs -o size=4k full /tmp/full");
    EXPECT_TRUE(ReplaceFile("/tmp/new", "next", "/tmp/new"));
    EXPECT_EQ(ReadFile("/tmp/victim") + ReadFile("/tmp/new"), "victimnext");
    EXPECT_TRUE(ReplaceFile("/tmp/full/f", "old", ""));
    EXPECT_FALSE(ReplaceFile("/tmp/full/f", std::string(9000, 'x'), ""));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(ReadFile("/tmp/full/f") + Shell("ls /tmp/full"), "oldf\n");
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

    int second = -1;
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockShared, 0, &fd), 0);
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockShared, 0, &second), 0);
    close(fd);
    close(second);

    // A lock file that was removed while somebody waited for it guards nothing: its successor must be taken.
    const UniqueFd removed(open(path, O_RDONLY | O_CLOEXEC));
    flock(removed.Get(), LOCK_EX);
    std::thread remover([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        Shell("rm /tmp/some.lock; touch /tmp/some.lock");
        flock(removed.Get(), LOCK_UN);
    });
    EXPECT_NE(YLIBCFileLockTimeByFile(path, kLockExclusive, 5, &fd), 0);
    remover.join();
    const UniqueFd successor(open(path, O_RDONLY | O_CLOEXEC));
    EXPECT_NE(flock(successor.Get(), LOCK_EX | LOCK_NB), 0);
    close(fd);
}

TEST_F(Platform, TakesNoPlantedLockFile)
{
    WriteFile("/tmp/victim", "victim");
    Shell("ln -s /tmp/victim /tmp/link.lock; ln -s /tmp/none /tmp/dangling.lock; mkfifo /tmp/fifo.lock; mkdir /tmp/dir.lock; "
          "touch /tmp/theirs.lock; chown opalmail /tmp/theirs.lock; chmod 0 /tmp/theirs.lock");
    int fd = -1;
    for (const char *planted : {"/tmp/link.lock", "/tmp/dangling.lock", "/tmp/fifo.lock", "/tmp/dir.lock"}) {
        EXPECT_EQ(YLIBCFileLockTimeByFile(planted, kLockExclusive, 0, &fd), 0) << planted;
    }
    EXPECT_FALSE(Exists("/tmp/none"));
    // Another user's file is taken, and without O_CREAT: with fs.protected_regular that is refused even to root.
    EXPECT_NE(YLIBCFileLockTimeByFile("/tmp/theirs.lock", kLockExclusive, 0, &fd), 0);
    close(fd);
    Shell("cd /tmp; touch opalcertificate_info.lock; chown opalmail opalcertificate_info.lock");
    EXPECT_EQ(Run({"opalcrtunregister", "p"}, "/usr/bin/strace -qq -o /run/trace -e trace=openat").status, 1);
    EXPECT_EQ(Shell("grep 'info.lock' /run/trace | grep -c O_CREAT"), "0\n");
}

}  // namespace opalcrt
