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
        if (what != Init && what != Default) {
            command->add_flag("--json", options.asJson, "One JSON object on one line");
        }
        return command;
    };
    const CLI::Range days(0, 36500);
    const auto addList = [](CLI::App *command, const char *name, std::vector<std::string> &list,
                            const char *type, const char *text) {
        return command->add_option(name, list, text)->type_name(type)->allow_extra_args(false);
    };

    add("init", "Make the first certificate archive, where there is none", Init);

    auto *status = add("status", "Tell what certificates and services there are and what is wrong", Status);
    status->add_option("ID", options.ids, "Only these certificates");
    status->add_option("--days", options.days, "Warn when fewer days are left")
        ->capture_default_str()
        ->check(days);
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
    renew->add_option("--days", options.days, "When fewer days are left")->capture_default_str()->check(days);
    addList(renew, "--name", options.names, "NAME", "A host name or address that it is to be for");
    renew->add_flag("--check", options.onlyCheck, "Only tell, with status 1, that it is due");
}

// `failure` is the status of a verb that could not begin.
int Run(int argc, char *argv[], int failure)
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
    Json::Value report;
    int status = failure;
    try {
        if (geteuid() == 0) {
            status = verb(options, report);
        } else {
            Complain("only root can do this");
        }
    } catch (const Failure &early) {
        status = early.status;
    }
    FinishReport(options, status, report);
    const bool isTold = fflush(stdout) == 0 && ferror(stdout) == 0;
    return isTold || (status == kRefused && failure == kRefused) ? status : kPartlyChanged;
}

}  // namespace

}  // namespace opalcrt

int main(int argc, char *argv[])
{
    // To a monitor 1 would be a warning.
    const int failure =
        argc > 1 && strcmp(argv[1], "status") == 0 ? opalcrt::kCouldNotLook : opalcrt::kRefused;
    if (!opalcrt::PrepareProcess()) {
        return failure;
    }
    opalcrt::ReadNoOpenSSLConfig();
    try {
        return opalcrt::Run(argc, argv, failure);
    } catch (const std::exception &error) {
        fprintf(stderr, "opalcrt: cannot go on: %s\n", error.what());
        return failure;
    }
}
