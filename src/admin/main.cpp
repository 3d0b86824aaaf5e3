// opalcrt: what an administrator does with certificates, a verb for each.

#include <openssl/crypto.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>

#include "admin/default_crt.h"
#include "admin/first_store.h"
#include "admin/install.h"
#include "admin/message.h"
#include "admin/status.h"
#include "common/openssl.h"
#include "platform/startup.h"

namespace opalcrt {

namespace {

int ToStatus(bool isDone) { return isDone ? kDone : kRefused; }

int AsRoot(const std::function<int()> &verb)
{
    return geteuid() == 0 ? verb() : ToStatus(Refuse("only root can do this"));
}

void AddInit(CLI::App &app, int &status)
{
    app.add_subcommand("init", "Make the first certificate archive, where there is none")
        ->callback([&status] { status = AsRoot([] { return ToStatus(InitStore()); }); });
}

void AddStatus(CLI::App &app, StatusOptions &options, int &status)
{
    CLI::App *verb =
        app.add_subcommand("status", "Tell what certificates and services there are and what is wrong");
    verb->add_option("ID", options.ids, "Only these certificates");
    verb->add_option("--days", options.days, "Warn when fewer days are left")
        ->capture_default_str()
        ->check(CLI::Range(0, 36500));
    verb->add_flag("--json", options.asJson, "One JSON object on one line");
    verb->footer("Exit status: 0 well, 1 a warning, 2 something critical, 3 it could not look.");
    verb->callback([&options, &status] { status = Status(options); });
}

void AddInstall(CLI::App &app, InstallOptions &options, int &status)
{
    CLI::App *verb =
        app.add_subcommand("install", "Put a key and its certificate in the place of a certificate");
    verb->add_option("ID", options.id, "The certificate")->required();
    const auto addFiles = [verb](const char *name, std::vector<std::string> &files, const char *what) {
        return verb->add_option(name, files, what)
            ->type_name("FILE")
            ->expected(1, 2)
            ->allow_extra_args(false);
    };
    addFiles("--key", options.keyFiles, "PEM file of the private key; twice: an RSA key and an EC key")
        ->required();
    addFiles("--cert", options.crtFiles, "PEM file of its certificate, with or without the chain")
        ->required();
    addFiles("--chain", options.chainFiles, "PEM file of the certificates that sign it");
    verb->add_flag("--new", options.isNew, "The certificate is not in the archive yet");
    verb->add_flag("--check", options.onlyCheck, "Only tell whether it could be installed");
    verb->add_flag("--json", options.asJson, "One JSON object on one line");
    verb->callback([&options, &status] {
        if (options.keyFiles.size() != options.crtFiles.size()) {
            throw CLI::ValidationError("--key and --cert", "each key needs a certificate");
        }
        status = options.onlyCheck ? Install(options) : AsRoot([&options] { return Install(options); });
    });
}

void AddDefault(CLI::App &app, std::string &id, int &status)
{
    CLI::App *verb = app.add_subcommand("default", "Print, or set, the certificate of new services");
    CLI::Option *option = verb->add_option("ID", id, "The certificate that they get from now on");
    verb->callback([option, &id, &status] {
        status = option->count() == 0 ? ToStatus(PrintDefault())
                                      : AsRoot([&id] { return ToStatus(SetDefault(id)); });
    });
}

int Run(int argc, char *argv[])
{
    int status = kDone;
    StatusOptions statusOptions;
    InstallOptions installOptions;
    std::string defaultId;

    CLI::App app("Looks after the certificates of the appliance and of its services.", "opalcrt");
    app.set_version_flag("--version", "opalcrt " OPALCRT_VERSION);
    app.require_subcommand(1);
    app.footer("Exit status: 0 done; 1 refused or failed, nothing changed; 64 wrong usage.");
    AddInit(app, status);
    AddStatus(app, statusOptions, status);
    AddInstall(app, installOptions, status);
    AddDefault(app, defaultId, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kWrongUsage;
    }
    return status;
}

}  // namespace

}  // namespace opalcrt

int main(int argc, char *argv[])
{
    if (!opalcrt::PrepareProcess()) {
        return 1;
    }
    // Without the configuration file that the caller's environment may name.
    opalcrt::ReadNoOpenSSLConfig();
    // To a monitor 1 would be a warning.
    const int failure =
        argc > 1 && strcmp(argv[1], "status") == 0 ? opalcrt::kCouldNotLook : opalcrt::kRefused;
    try {
        const int status = opalcrt::Run(argc, argv);
        return fflush(stdout) == 0 ? status : failure;
    } catch (const std::exception &error) {
        fprintf(stderr, "opalcrt: cannot go on: %s\n", error.what());
        return failure;
    }
}
