// The three commands, chosen by the name under which the program was started.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "checksum/crt_checksums.h"
#include "common/json_file.h"
#include "common/log.h"
#include "frontend/registerer.h"
#include "frontend/unregisterer.h"
#include "platform/atomic_file.h"
#include "platform/startup.h"

namespace opalcrt {

namespace {

void PrintUsage(const char *name)
{
    PrintBanner();
    printf("usage: %s <subscriber> <service>\n", name);
    printf("usage: %s <subscriber>\n", name);
}

int PrintChecksums(int, char *[])
{
    Json::Value report(Json::arrayValue);
    if (!ListCrtChecksums(report)) {
        return 1;
    }
    if (!WriteAll(STDOUT_FILENO, toString(report))) {
        LOG_ERROR("Failed to write report (%m)");
        return 1;
    }
    return 0;
}

struct Command {
    const char *name;
    bool takesSubscriber;  // and optionally a service; otherwise the arguments are not looked at
    int (*run)(int argc, char *argv[]);
};

constexpr Command kCommands[] = {
    {"opalcrtregister", true, Registerer},
    {"opalcrtunregister", true, UnRegisterer},
    {"opalcrtchecksum", false, PrintChecksums},
};

int RunCommand(int argc, char *argv[])
{
    const char *started = argc > 0 ? argv[0] : "";
    const char *slash = strrchr(started, '/');
    const char *name = slash != nullptr ? slash + 1 : started;

    for (const Command &command : kCommands) {
        if (strcmp(name, command.name) != 0) {
            continue;
        }
        if (command.takesSubscriber && static_cast<unsigned>(argc - 2) > 1) {
            PrintUsage(name);
            return 1;
        }
        return command.run(argc, argv);
    }
    return 1;
}

}  // namespace

}  // namespace opalcrt

int main(int argc, char *argv[])
{
    int status = 1;
    try {
        if (opalcrt::PrepareProcess()) {
            status = opalcrt::RunCommand(argc, argv);
        }
    } catch (const std::exception &error) {
        // No function lets one out but for want of memory. What was held has been let go on the way here, as after any
        // other failure, so there is memory again for the line that says why.
        LOG_ERROR("Failed to finish (%s)", error.what());
    }
    return fflush(stdout) == 0 ? status : 1;
}
