// Gives a certificate of the archive to services with any action of the assignment engine, which no command does:
//
//     opalcrt-assign CERT_ID OLD_ID SERVICES_FILE ACTION
//
// SERVICES_FILE holds a JSON array of service objects. An empty OLD_ID stands for a service that has no certificate.
// The status is 0 when the engine handled every service; the log says why it did not.

#include <cstdio>
#include <cstdlib>

#include "assign/engine.h"
#include "common/json_file.h"
#include "platform/startup.h"

int main(int argc, char *argv[])
{
    if (argc != 5) {
        fprintf(stderr, "usage: opalcrt-assign CERT_ID OLD_ID SERVICES_FILE ACTION\n");
        return 2;
    }
    Json::Value services;
    if (!opalcrt::PrepareProcess() || !opalcrt::fromFile(argv[3], services)) {
        fprintf(stderr, "opalcrt-assign: cannot read %s\n", argv[3]);
        return 2;
    }
    return opalcrt::SetCrtForServices(argv[1], services, argv[2], atoi(argv[4])) ? 0 : 1;
}
