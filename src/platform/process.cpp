#include "platform/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <vector>

#include "platform/error_state.h"

namespace opalcrt
{

namespace
{

// LC_ALL keeps the children's behaviour apart from any locale; hooks may need the usual PATH.
const char *const kChildEnvironment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LC_ALL=C",
                                         nullptr};

// openssl x509 reads the system's bundle of CA certificates at its start, even where it verifies nothing; that takes
// longer than all the rest that it does.
const char *const kWithoutBundle[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "LC_ALL=C",
                                      "SSL_CERT_FILE=/dev/null", nullptr};

// Runs in the child, between vfork and exec: only system calls, and `startError` is the parent's variable.
[[noreturn]] void BecomeProgram(const char *path, char *const argv[], const char *const environment[],
                                bool diesWithUs, pid_t parent, volatile int &startError)
{
    struct sigaction byDefault = {};
    byDefault.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        sigaction(number, &byDefault,
                  nullptr);  // Fails for those that cannot be changed; they need no change.
    }
    sigset_t none;
    sigemptyset(&none);

    const int null = open("/dev/null", O_RDWR);
    bool ready = null >= 0 && sigprocmask(SIG_SETMASK, &none, nullptr) == 0 && chdir("/") == 0;
    for (int fd = STDIN_FILENO; ready && fd <= STDERR_FILENO; ++fd) {
        ready = dup2(null, fd) == fd;
    }
    ready = ready && close_range(STDERR_FILENO + 1, ~0U, 0) == 0;
    if (ready && diesWithUs) {
        ready = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    }
    if (ready) {
        umask(S_IWGRP | S_IWOTH);
        execve(path, argv, const_cast<char *const *>(environment));
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

int RunProgram(const char *path, char *const argv[], const char *const environment[], bool isHook)
{
    // vfork, not fork: a tool that holds two large books in memory would pay for copying its page tables at
    // every /bin/cp. Not posix_spawn: it can set neither the umask nor the death signal of the child.
    volatile int startError = 0;
    const pid_t parent = getpid();
    const pid_t child = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (child == 0) {
        BecomeProgram(path, argv, environment, !isHook, parent, startError);
    }
    if (child < 0) {
        return Fail(kErrChildStart, errno);
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
        return reaped == child && WIFEXITED(status) ? WEXITSTATUS(status) : 0;
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

int RunWithArguments(const char *path, std::initializer_list<const char *> args, bool isHook)
{
    std::vector<char *> argv = {const_cast<char *>(path)};
    for (const char *arg : args) {
        if (arg == nullptr) {
            break;
        }
        argv.push_back(const_cast<char *>(arg));
    }
    argv.push_back(nullptr);
    return RunProgram(path, argv.data(), kChildEnvironment, isHook);
}

}  // namespace

int YLIBCExec(const char *path, const char *arg1, const char *arg2, const char *arg3, const char *arg4)
{
    return RunWithArguments(path, {arg1, arg2, arg3, arg4}, false);
}

int YLIBCExecl(const char *path, unsigned options, std::initializer_list<const char *> args)
{
    return RunWithArguments(path, args, (options & kExecAnyStatus) != 0);
}

int YLIBCExecv(const char *path, char *const argv[], int)
{
    return RunProgram(path, argv, kWithoutBundle, false);
}

}  // namespace opalcrt
