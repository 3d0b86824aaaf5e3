// opalcrt: what an administrator does with certificates, a verb for each.

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cstdio>
#include <cstring>
#include <exception>

#include "admin/report.h"
#include "admin/verbs.h"
#include "common/openssl.h"
#include "platform/startup.h"

namespace opalcrt {

namespace {

using Verb = int (*)(const Options &, Json::Value &report);

void AddVerbs(CLI::App &app, Options &options, Verb &verb)
{
    const auto add = [&](const char *name, const char *text, Verb what) {
        CLI::App *command = app.add_subcommand(name, text);
        command->callback([&verb, what] { verb = what; });
        return command;
    };
    const auto addDays = [&](CLI::App *command, const char *text) {
        command->add_option("--days", options.days, text)->capture_default_str()->check(CLI::Range(0, 36500));
    };
    const auto addList = [](CLI::App *command, const char *name, std::vector<std::string> &list,
                            const char *type, const char *text) {
        return command->add_option(name, list, text)->type_name(type)->allow_extra_args(false);
    };

    add("init", "Make the first certificate archive, where there is none", Init);

    auto *status = add("status", "Tell what certificates and services there are and what is wrong", Status);
    status->add_option("ID", options.ids, "Only these certificates");
    addDays(status, "Warn when fewer days are left");
    status->footer("Exit status: 0 well, 1 a warning, 2 something critical, 3 it could not look.");

    auto *install = add("install", "Put a key and its certificate in the place of a certificate", Install);
    install->add_option("ID", options.id, "The certificate")->required();
    addList(install, "--key", options.keyFiles, "FILE", "PEM file of the key; twice: an RSA and an EC key")
        ->required();
    addList(install, "--cert", options.crtFiles, "FILE", "PEM file of its certificate, also with the chain")
        ->required();
    addList(install, "--chain", options.chainFiles, "FILE", "PEM file of the certificates that sign it");
    install->add_flag("--new", options.isNew, "The certificate is not in the archive yet");
    install->add_flag("--check", options.onlyCheck, "Only tell whether it could be installed");

    auto *deploy = add("deploy", "Copy certificates to their services again", Deploy);
    deploy->add_option("ID", options.id, "Only this certificate");

    auto *assign = add("assign", "Give services another certificate", Assign);
    assign->add_option("ID", options.id, "The certificate")->required();
    assign->add_option("SUBSCRIBER", options.subscriber, "Whose services")->required();
    assign->add_option("SERVICE", options.service, "Only this one");

    auto *standard = add("default", "Print, or set, the certificate of new services", Default);
    standard->add_option("ID", options.id, "The certificate that they get from now on");

    auto *renew = add("renew", "Make a self-made certificate anew before it ends", Renew);
    renew->add_option("ID", options.id, "The certificate; else the default one");
    addDays(renew, "When fewer days are left");
    addList(renew, "--name", options.names, "NAME", "A host name or address that it is to be for");
    renew->add_flag("--check", options.onlyCheck, "Only tell, with status 1, that it is due");

    for (CLI::App *command : {status, install, deploy, assign, renew}) {
        command->add_flag("--json", options.asJson, "One JSON object on one line");
    }
}

int Run(int argc, char *argv[])
{
    Verb verb = nullptr;
    Options options;
    CLI::App app("Looks after the certificates of the appliance and of its services.", "opalcrt");
    app.set_version_flag("--version", "opalcrt " OPALCRT_VERSION);
    app.require_subcommand(0, 1);
    app.footer(
        "Exit status: 0 done; 1 refused or failed, nothing changed; 3 changed, but not all is done; "
        "64 wrong usage. Only root can use it.");
    AddVerbs(app, options, verb);
    try {
        app.parse(argc, argv);
        if (options.keyFiles.size() != options.crtFiles.size()) {
            throw CLI::ValidationError("--key and --cert", "each key needs a certificate");
        }
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? kDone : kWrongUsage;
    }
    if (verb == nullptr) {
        fputs(app.help().c_str(), stderr);
        return kWrongUsage;
    }
    // A monitor may not be root, and is answered in its own way.
    if (geteuid() != 0 && !app.got_subcommand("status")) {
        return Refuse("only root can do this");
    }
    Json::Value report;
    const int status = verb(options, report);
    FinishReport(options, status, report);
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
