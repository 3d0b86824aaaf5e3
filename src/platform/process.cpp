#include "platform/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <vector>

#include "platform/error_state.h"
#include "platform/unique_fd.h"

namespace opalcrt {

namespace {

// LC_ALL keeps the children's behaviour apart from any locale; hooks may need the usual PATH.
const char *const kChildEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LC_ALL=C",
                                         nullptr};

// Making a key takes a second; an openssl that runs out of memory at its start reports that for ever.
constexpr rlimit kProcessorTime = {30, 30};  // SIGKILL, without a core file that would hold a key

// Runs in the child, between vfork and exec: only system calls, and `startError` is the parent's variable.
[[noreturn]] void BecomeProgram(const char *path, char *const argv[], bool isHook, mode_t mask, pid_t parent,
                                volatile int &startError)
{
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        sigaction(number, &byDefault, nullptr);  // Fails for those that cannot be changed and need no change.
    }
    sigset_t none;
    sigemptyset(&none);

    const int null = open("/dev/null", O_RDWR);
    bool ready = null >= 0 && sigprocmask(SIG_SETMASK, &none, nullptr) == 0 && chdir("/") == 0;
    for (int fd = STDIN_FILENO; ready && fd <= STDERR_FILENO; ++fd) {
        ready = dup2(null, fd) == fd;
    }
    if (ready && isHook) {
        ready = setpgid(0, 0) == 0;  // To be stopped with all that it starts.
    } else if (ready) {
        setrlimit(RLIMIT_CPU, &kProcessorTime);  // Without it the program runs all the same.
        ready = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    }
    if (ready) {
        closefrom(STDERR_FILENO + 1);
        umask(mask);
        execve(path, argv, const_cast<char *const *>(kChildEnvironment));
    }
    startError = errno;
    _exit(127);
}

int Fail(int code, int error)
{
    SET_PLATFORM_ERROR(code);
    errno = error;
    return -1;
}

// A hook that hangs would hold up every service after its own.
void StopAfter(pid_t hook, int seconds)
{
    const UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, hook, 0)));
    pollfd ended = {fd.Get(), POLLIN, 0};
    int answer = -1;
    do {
        answer = fd.IsOpen() ? poll(&ended, 1, seconds * 1000) : -1;
    } while (answer < 0 && errno == EINTR);
    if (answer == 0) {
        kill(-hook, SIGKILL);
    }
}

int RunProgram(const char *path, char *const argv[], bool isHook, mode_t mask = S_IWGRP | S_IWOTH)
{
    // vfork, not fork: a tool that holds two large books in memory would pay for copying its page tables at
    // every /bin/cp. Not posix_spawn: it can set neither the umask nor the death signal of the child.
    volatile int startError = 0;
    const pid_t parent = getpid();
    const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        BecomeProgram(path, argv, isHook, mask, parent, startError);
    }
    if (child < 0) {
        return Fail(kErrChildStart, errno);
    }

    if (isHook) {
        StopAfter(child, kHookSeconds);
    }
    int status = 0;
    pid_t reaped;
    do {
        reaped = waitpid(child, &status, 0);
    } while (reaped < 0 && errno == EINTR);

    if (startError != 0) {
        return Fail(kErrChildStart, startError);
    }
    if (isHook) {
        return reaped == child && WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    if (reaped != child) {
        return Fail(kErrChildLost, ECHILD);
    }
    if (WIFSIGNALED(status)) {
        return Fail(kErrChildSignal + WTERMSIG(status), EINTR);
    }
    if (WEXITSTATUS(status) != 0) {
        return Fail(kErrChildStatus + WEXITSTATUS(status), EIO);
    }
    return 0;
}

}  // namespace

int YLIBCExec(const char *path, const char *arg1, const char *arg2, const char *arg3, const char *arg4)
{
    const char *const argv[] = {path, arg1, arg2, arg3, arg4, nullptr};
    return RunProgram(path, const_cast<char *const *>(argv), false);
}

int ExecPrivately(const char *path, const char *arg1, const char *arg2, const char *arg3)
{
    const char *const argv[] = {path, arg1, arg2, arg3, nullptr};
    return RunProgram(path, const_cast<char *const *>(argv), false, S_IRWXG | S_IRWXO);
}

int YLIBCExecl(const char *path, unsigned options, ...)
{
    std::vector<char *> argv = {const_cast<char *>(path)};
    va_list args;
    va_start(args, options);
    do {
        argv.push_back(va_arg(args, char *));
    } while (argv.back() != nullptr);
    va_end(args);
    return RunProgram(path, argv.data(), (options & kExecAnyStatus) != 0);
}

int YLIBCExecv(const char *path, char *const argv[], int) { return RunProgram(path, argv, false); }

}  // namespace opalcrt
