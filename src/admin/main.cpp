// opalcrt: what an administrator does with certificates, a verb for each.

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>

#include "admin/archive.h"
#include "admin/first_store.h"
#include "admin/install.h"
#include "admin/renew.h"
#include "admin/report.h"
#include "admin/roll_out.h"
#include "admin/status.h"
#include "common/openssl.h"
#include "platform/startup.h"

namespace opalcrt {

namespace {

// What the command line asks for; run when all of it was understood.
using Verb = std::function<int()>;

int ToStatus(bool isDone) { return isDone ? kDone : kRefused; }

constexpr char kJsonText[] = "One JSON object on one line";

void AddStatus(CLI::App &app, StatusOptions &options, Verb &verb)
{
    CLI::App *command =
        app.add_subcommand("status", "Tell what certificates and services there are and what is wrong");
    command->add_option("ID", options.ids, "Only these certificates");
    command->add_option("--days", options.days, "Warn when fewer days are left")
        ->capture_default_str()
        ->check(CLI::Range(0, 36500));
    command->add_flag("--json", options.asJson, kJsonText);
    command->footer("Exit status: 0 well, 1 a warning, 2 something critical, 3 it could not look.");
    command->callback([&] { verb = [&options] { return Status(options); }; });
}

void AddInstall(CLI::App &app, InstallOptions &options, Verb &verb)
{
    CLI::App *command =
        app.add_subcommand("install", "Put a key and its certificate in the place of a certificate");
    command->add_option("ID", options.id, "The certificate")->required();
    const auto addFiles = [command](const char *name, std::vector<std::string> &files, const char *what) {
        return command->add_option(name, files, what)
            ->type_name("FILE")
            ->expected(1, 2)
            ->allow_extra_args(false);
    };
    addFiles("--key", options.keyFiles, "PEM file of the private key; twice: an RSA key and an EC key")
        ->required();
    addFiles("--cert", options.crtFiles, "PEM file of its certificate, with or without the chain")
        ->required();
    addFiles("--chain", options.chainFiles, "PEM file of the certificates that sign it");
    command->add_flag("--new", options.isNew, "The certificate is not in the archive yet");
    command->add_flag("--check", options.onlyCheck, "Only tell whether it could be installed");
    command->add_flag("--json", options.asJson, kJsonText);
    command->callback([&] {
        if (options.keyFiles.size() != options.crtFiles.size()) {
            throw CLI::ValidationError("--key and --cert", "each key needs a certificate");
        }
        verb = [&options] { return Install(options); };
    });
}

void AddRenew(CLI::App &app, RenewOptions &options, Verb &verb)
{
    CLI::App *command = app.add_subcommand("renew", "Make a self-made certificate anew before it ends");
    command->add_option("ID", options.id, "The certificate; else the default one");
    command->add_option("--days", options.days, "When fewer days are left")
        ->capture_default_str()
        ->check(CLI::Range(0, 36500));
    command
        ->add_option("--name", options.names,
                     "A host name or address that it is for, instead of the old ones")
        ->allow_extra_args(false);
    command->add_flag("--check", options.onlyCheck, "Only tell, with status 1, that it is due");
    command->add_flag("--json", options.asJson, kJsonText);
    command->callback([&] { verb = [&options] { return Renew(options); }; });
}

// What the small verbs are told.
struct Arguments {
    std::string id, subscriber, service;
    bool asJson = false;
};

void AddSmallVerbs(CLI::App &app, Arguments &args, Verb &verb)
{
    app.add_subcommand("init", "Make the first certificate archive, where there is none")->callback([&] {
        verb = [] { return ToStatus(InitStore()); };
    });

    CLI::App *deploy = app.add_subcommand("deploy", "Copy certificates to their services again");
    deploy->add_option("ID", args.id, "Only this certificate");
    deploy->add_flag("--json", args.asJson, kJsonText);
    deploy->callback(
        [&] { verb = [&args] { return RollOutCrt(args.id, Json::Value(Json::objectValue), args.asJson); }; });

    CLI::App *assign = app.add_subcommand("assign", "Give services another certificate");
    assign->add_option("ID", args.id, "The certificate")->required();
    assign->add_option("SUBSCRIBER", args.subscriber, "Whose services")->required();
    assign->add_option("SERVICE", args.service, "Only this one");
    assign->add_flag("--json", args.asJson, kJsonText);
    assign->callback(
        [&] { verb = [&args] { return Assign(args.id, args.subscriber, args.service, args.asJson); }; });

    CLI::App *standard = app.add_subcommand("default", "Print, or set, the certificate of new services");
    CLI::Option *option = standard->add_option("ID", args.id, "The certificate that they get from now on");
    standard->callback([&args, &verb, option] {
        verb = [&args, isSet = option->count() > 0] {
            return ToStatus(isSet ? SetDefault(args.id) : PrintDefault());
        };
    });
}

int Run(int argc, char *argv[])
{
    Verb verb;
    StatusOptions statusOptions;
    InstallOptions installOptions;
    RenewOptions renewOptions;
    Arguments arguments;

    CLI::App app("Looks after the certificates of the appliance and of its services.", "opalcrt");
    app.set_version_flag("--version", "opalcrt " OPALCRT_VERSION);
    app.require_subcommand(1);
    app.footer(
        "Exit status: 0 done; 1 refused or failed, nothing changed; 3 changed, but not all is done; "
        "64 wrong usage. It is root's command.");
    AddStatus(app, statusOptions, verb);
    AddInstall(app, installOptions, verb);
    AddRenew(app, renewOptions, verb);
    AddSmallVerbs(app, arguments, verb);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kWrongUsage;
    }
    // A monitor may not be root, and is answered in its own way.
    if (geteuid() != 0 && !app.got_subcommand("status")) {
        return Refuse("only root can do this");
    }
    return verb();
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
