#include "platform/startup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

namespace opalcrt {

bool PrepareProcess()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        // The lowest free descriptor is this one. Without O_CLOEXEC: children get streams of their own.
        const int wrongWay = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (open("/dev/null", wrongWay) != fd) {
            return false;
        }
    }
    return signal(SIGCHLD, SIG_DFL) != SIG_ERR && signal(SIGPIPE, SIG_IGN) != SIG_ERR &&
           signal(SIGXFSZ, SIG_IGN) != SIG_ERR;
}

void PrintBanner() { printf("Certificate service tool\n"); }

}  // namespace opalcrt
