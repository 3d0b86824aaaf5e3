#include <grp.h>
#include <sys/stat.h>

#include "sandbox.h"

namespace opalcrt
{

class Registration : public Sandbox
{
protected:
    Registration()
    {
        AddCrt("abc123");
        WriteFile(kStore + "DEFAULT", "abc123\n");
    }
};

TEST_F(Registration, GivesEveryServiceItsFolderAndEntersItInBothBooks)
{
    Define("pkgA", {"web", "mail"});

    const Result result = Run({"opalcrtregister", "pkgA"}, "umask 0777;");

    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_FALSE(Exists(kPackageDefinitions + "pkgA.cfg"));
    EXPECT_EQ(ReadJson(kStore + "SERVICES"), ReadJson(kStore + "INFO")["abc123"]["services"]);
    EXPECT_EQ(ReadJson(kStore + "SERVICES")[1], ServiceObj("pkgA", "mail"));
    EXPECT_EQ(Shell("cd /usr/local/etc/certificate && find . -mindepth 1 -printf '%P %m %u:%g\\n' | sort"),
              "pkgA 755 root:root\n"
              "pkgA/mail 755 root:root\n"
              "pkgA/mail/cert.pem 400 opalweb:opalweb\n"
              "pkgA/mail/fullchain.pem 400 opalweb:opalweb\n"
              "pkgA/mail/info 644 root:root\n"
              "pkgA/mail/privkey.pem 400 opalweb:opalweb\n"
              "pkgA/web 755 root:root\n"
              "pkgA/web/cert.pem 400 opalweb:opalweb\n"
              "pkgA/web/fullchain.pem 400 opalweb:opalweb\n"
              "pkgA/web/info 644 root:root\n"
              "pkgA/web/privkey.pem 400 opalweb:opalweb\n");
    EXPECT_TRUE(Logged({"opalcrtregister.cpp Register certificate for pkgA/web(pkg)",
                        "opalcrtregister.cpp Register certificate for pkgA/mail(pkg)",
                        "utils.cpp Reload opalrelayd failed."}));
}

// What the definition and the command line choose; the listed services are those that end up in both books.
TEST_F(Registration, TakesTheServicesThatAreAskedFor)
{
    const std::string head = R"({"owner": "opalweb", "isPkg": true, )";
    const std::string web = R"({"service": "web", "display_name": "W", "display_name_i18n": 5, "multiple_cert": "yes"})";
    const std::string mail = R"({"service": "mail", "display_name": "M", "display_name_i18n": "i", "user_setable": true})";
    struct Case {
        std::string definition;
        std::vector<std::string> args;
        std::string out;
        std::string listed;
    };
    const std::string prepare = "Failed to prepare services\n";
    const Case cases[] = {
        {head + R"("services": [)" + web + "," + mail + "]}", {"p"}, "", "web mail "},
        {head + R"("services": [)" + web + "," + mail + "]}", {"p", "mail"}, "", "mail "},
        {head + R"("services": [)" + web + "," + mail + "]}", {"p", ""}, "", "web mail "},
        {head + R"("services": [)" + web + "," + mail + "]}", {"p", "other"}, "", ""},
        {head + R"("services": [)" + web + "," + mail + R"(], "service": "mail"})", {"p"}, "", "mail "},
        {head + R"("services": [)" + web + "," + mail + R"(], "service": "mail"})", {"p", "web"}, "", "web "},
        {head + R"("services": [)" + web + R"(, {"service": 1}]})", {"p", "web"}, "", "web "},
        {head + R"("services": [{"service": 1}, )" + web + "]}", {"p", "web"}, prepare, ""},
        {head + R"("services": [)" + web + R"(, {"service": "x"}]})", {"p"}, prepare, ""},
        {head + R"("services": [)" + web + R"(, "mail"]})", {"p"}, prepare, ""},
        {head + R"("services": {}})", {"p"}, prepare, ""},
        {head + R"("services": []})", {"p"}, "", ""},
    };
    for (const Case &test : cases) {
        SetServices("[]");
        SetInfo(R"({"abc123": {"services": []}})");
        WriteFile(kPackageDefinitions + "p.cfg", test.definition);
        std::vector<std::string> args = {"opalcrtregister"};
        args.insert(args.end(), test.args.begin(), test.args.end());

        const Result result = Run(args);

        EXPECT_EQ(result.out, test.out) << test.definition;
        EXPECT_EQ(result.status, test.out.empty() ? 0 : 1) << test.definition;
        EXPECT_FALSE(Exists(kPackageDefinitions + "p.cfg"));
        std::string listed;
        for (const Json::Value &service : ReadJson(kStore + "SERVICES")) {
            listed += service["service"].asString() + " ";
            EXPECT_EQ(service.isMember("display_name_i18n"), service["service"] == "mail");
            EXPECT_EQ(service.isMember("user_setable"), service["service"] == "mail");
            EXPECT_FALSE(service.isMember("multiple_cert"));
        }
        EXPECT_EQ(listed, test.listed) << test.definition;
        EXPECT_EQ(ReadJson(kStore + "INFO")["abc123"]["services"].size(), ReadJson(kStore + "SERVICES").size());
    }
}

TEST_F(Registration, RefusesBadDefinitionsAndRemovesThem)
{
    const std::string good = R"({"owner": "opalweb", "isPkg": true, "services": []})";
    struct Case {
        std::string text;
        std::string line;
    };
    const std::string unreadable = "Failed to get config from /usr/local/share/certificate.d/p.cfg";
    const Case cases[] = {
        {"", unreadable},
        {"{", unreadable},
        {good.substr(0, 30), unreadable},
        {good + " x", unreadable},
        {good + std::string(1, '\0'), unreadable},
        {"/* c */" + good, unreadable},
        {R"({/* c */"owner": "opalweb", "isPkg": true, "services": []})", unreadable},
        {R"({"owner": "opalweb", "owner": "root", "isPkg": true, "services": []})", unreadable},
        {R"({"owner": "opalweb", "isPkg": true, "services": [],})", unreadable},
        {std::string(200000, '['), unreadable},
        {"[" + good + "]", "Bad config"},
        {"5", "Bad config"},
        {R"({"owner": 5, "isPkg": true, "services": []})", "Bad config"},
        {R"({"owner": "opalweb", "isPkg": "true", "services": []})", "Bad config"},
        {R"({"owner": "opalweb", "isPkg": false, "services": []})", "Bad config"},
        {R"({"owner": "", "isPkg": true, "services": []})", "Failed to init, [0x0D00 opalcrtregister.cpp:"},
    };
    for (const Case &test : cases) {
        WriteFile(kPackageDefinitions + "p.cfg", test.text);
        const Result result = Run({"opalcrtregister", "p"});
        EXPECT_EQ(result.status, 1) << test.text.substr(0, 80);
        EXPECT_EQ(result.out, "Failed to init registerer\n");
        EXPECT_FALSE(Exists(kPackageDefinitions + "p.cfg"));
        EXPECT_TRUE(Logged({"opalcrtregister.cpp " + test.line})) << test.text.substr(0, 80);
    }

    for (const char *special : {"mkfifo ", "mkdir "}) {
        Shell(special + kPackageDefinitions + "p.cfg");
        EXPECT_EQ(Run({"opalcrtregister", "p"}, "timeout 5").out, "Failed to init registerer\n");
        EXPECT_TRUE(Logged({unreadable}));
    }
    Shell("rm -rf " + kPackageDefinitions + "p.cfg");
    EXPECT_EQ(Run({"opalcrtregister", "p"}).status, 1);
    EXPECT_TRUE(Logged({"opalcrtregister.cpp Failed to get p.cfg"}));

    // A file of the system wins, and must say that it is one.
    WriteFile(kPackageDefinitions + "p.cfg", good);
    WriteFile(kSystemDefinitions + "p.cfg", good);
    EXPECT_EQ(Run({"opalcrtregister", "p"}).status, 1);
    EXPECT_TRUE(Exists(kPackageDefinitions + "p.cfg"));
    EXPECT_FALSE(Exists(kSystemDefinitions + "p.cfg"));
}

TEST_F(Registration, TakesOddNamesAndRefusesThoseThatAreNoFolderName)
{
    // "é" in Latin-1 is no UTF-8; all of it must come back from the books as it was.
    const std::vector<std::string> odd = {" a b ", "-rf", "it's \"x\"", "\xE9t\xE9", "ümläut", std::string(200, 'n')};
    Define("--sub x", odd);
    EXPECT_EQ(Run({"opalcrtregister", "--sub x"}).status, 0);
    for (const std::string &name : odd) {
        EXPECT_EQ(ReadJson(kPackages + "--sub x/" + name + "/info")["service"].asString(), name);
    }
    EXPECT_EQ(ReadJson(kStore + "INFO")["abc123"]["services"].size(), odd.size());
    TakeLog();

    WriteFile("/usr/local/share/evil.cfg", R"({"owner": "opalweb", "isPkg": true, "services": []})");
    WriteFile(kPackageDefinitions + "_archive.cfg", R"({"owner": "opalweb", "isPkg": true, "services": []})");
    for (const std::string &subscriber : {std::string("../evil"), std::string("."), std::string(".."), std::string(""),
                                          std::string("_archive"), std::string(252, 's'), std::string(237, 's')}) {
        const Result result = Run({"opalcrtregister", subscriber});
        EXPECT_EQ(result.out, "Failed to init registerer\n") << subscriber;
        EXPECT_EQ(TakeLog(), std::vector<std::string>{"opalcrtregister.cpp Bad params: subscriber"}) << subscriber;
    }
    EXPECT_TRUE(Exists("/usr/local/share/evil.cfg"));
    EXPECT_TRUE(Exists(kPackageDefinitions + "_archive.cfg"));

    for (const std::string &service : {std::string("a/b"), std::string("../x"), std::string("."), std::string(".."),
                                       std::string("web.temp"), std::string("web.bak"), std::string("a\0b", 3),
                                       std::string(251, 's')}) {
        Define("p", {"good", service});
        const Result result = Run({"opalcrtregister", "p"});
        EXPECT_EQ(result.out, "Failed to prepare services\n") << service;
        EXPECT_TRUE(Logged({"Bad service config: {"})) << service;
    }
    EXPECT_FALSE(Exists(kPackages + "p"));

    // The empty name is a service that the engine refuses.
    Define("p", {""});
    EXPECT_EQ(Run({"opalcrtregister", "p"}).out, "Failed to DeployDefCrt for p\n");
    EXPECT_TRUE(Logged({"utils.cpp service object is error.", "Reload opalrelayd failed."}));
    EXPECT_EQ(ReadJson(kStore + "SERVICES").size(), odd.size() + 1);
}

TEST_F(Registration, ReplacesAListedServiceInItsPlaceAndKeepsStrangers)
{
    SetServices(R"(["stranger", {"subscriber": "p"}, {"subscriber": "p", "service": "web", "display_name": "old"},
                    {"subscriber": "q", "service": "web"}])");
    SetInfo(R"({"abc123": {"desc": "kept", "services": [7, {"subscriber": "p", "service": "web"},
                {"subscriber": "q", "service": "web"}]}, "other": 5})");
    chmod((kStore + "INFO").c_str(), 0640);
    ASSERT_EQ(chown((kStore + "SERVICES").c_str(), 0, kMail), 0);
    Define("p", {"web", "mail", "web"});

    EXPECT_EQ(Run({"opalcrtregister", "p"}).status, 0);

    const Json::Value list = ReadJson(kStore + "SERVICES");
    ASSERT_EQ(list.size(), 5U);
    EXPECT_EQ(list[0], "stranger");
    EXPECT_EQ(list[2], ServiceObj("p", "web"));
    EXPECT_EQ(list[4], ServiceObj("p", "mail"));
    const Json::Value info = ReadJson(kStore + "INFO");
    EXPECT_EQ(info["other"], 5);
    EXPECT_EQ(info["abc123"]["desc"], "kept");
    ASSERT_EQ(info["abc123"]["services"].size(), 3U);
    EXPECT_EQ(info["abc123"]["services"][0]["subscriber"], "q");
    EXPECT_EQ(info["abc123"]["services"][2], ServiceObj("p", "web"));
    EXPECT_EQ(Shell("cd " + kStore + " && stat -c '%n %a %G' *[!3]"),
              "DEFAULT 644 root\nINFO 640 root\nSERVICES 644 opalmail\n");
}

TEST_F(Registration, KeepsTheCertificateThatInfoGivesTheService)
{
    AddCrt("bought");
    SetInfo(R"({"abc123": {"services": []}, "bought": {"services": [{"subscriber": "p", "service": "web"}]}})");
    Define("p", {"web", "mail"});
    EXPECT_EQ(Run({"opalcrtregister", "p"}).status, 0);
    EXPECT_EQ(ReadFile(kPackages + "p/web/cert.pem"), ReadFile(kStore + "bought/cert.pem"));
    EXPECT_EQ(ReadFile(kPackages + "p/mail/cert.pem"), ReadFile(kStore + "abc123/cert.pem"));
    EXPECT_EQ(ReadJson(kStore + "INFO")["bought"]["services"][0], ServiceObj("p", "web"));
}

TEST_F(Registration, SaysWhichStageFailedAndLeavesTheBooks)
{
    struct Case {
        const char *file;
        const char *text;  // null: removed
        const char *out;
        std::vector<std::string> trail;
    };
    const char *append = "Failed to append register services\n";
    const char *deploy = "Failed to DeployDefCrt for p\n";
    const std::string missed = "Failed to read register services, it may missed or broken";
    const Case cases[] = {
        {"SERVICES", nullptr, append, {missed}},
        {"SERVICES", "[", append, {missed}},
        {"SERVICES", "{}", append, {"Incorrect format of register services [{}]"}},
        {"INFO", nullptr, deploy, {"utils.cpp Broken [/usr/opal/etc/certificate/_archive/INFO].[0x0100 ", "Invalid params"}},
        {"INFO", "{]", deploy, {"utils.cpp Broken [/usr/opal/etc/certificate/_archive/INFO].[0x0300 ", "Invalid params"}},
        {"INFO", "[]", deploy, {"Invalid cert id: [abc123]", "Invalid params (cert_id/services)"}},
        {"INFO", "{}", deploy, {"Invalid cert id: [abc123]", "Invalid params (cert_id/services)"}},
        {"INFO", R"({"abc123": {"services": {}}})", deploy,
         {"Broken [/usr/opal/etc/certificate/_archive/INFO][abc123].[", "Failed to update cert info for [{"}},
        {"DEFAULT", nullptr, deploy, {}},
        {"DEFAULT", "", deploy, {}},
        {"DEFAULT", "abc123\r\n", deploy, {"[/usr/opal/etc/certificate/_archive/abc123\r] doesn't exist.[0x0100 "}},
        {"DEFAULT", "abc123 long enough", deploy, {"_archive/abc123 long eno] doesn't exist."}},
    };
    const std::string info = ReadFile(kStore + "INFO");
    for (const Case &test : cases) {
        SetInfo(info);
        SetServices("[]");
        WriteFile(kStore + "DEFAULT", "abc123");
        if (test.text == nullptr) {
            unlink((kStore + test.file).c_str());
        } else {
            WriteFile(kStore + test.file, test.text);
        }
        Define("p", {"web"});
        const Result result = Run({"opalcrtregister", "p"});
        EXPECT_EQ(result.status, 1) << test.file << test.text;
        EXPECT_EQ(result.out, test.out) << test.file << test.text;
        EXPECT_TRUE(Logged(test.trail)) << test.file;
        EXPECT_EQ(ReadFile(kStore + test.file), test.text == nullptr ? "(missing)" : test.text);
    }
}

TEST_F(Registration, IsForRootAndTheOwner)
{
    const auto drop = [this](const std::string &owner) {
        Shell("chmod 0777 " + kPackageDefinitions);
        WriteFile(kPackageDefinitions + "p.cfg", R"({"owner": ")" + owner + R"(", "isPkg": true, "services": 5})");
    };
    struct Case {
        const char *owner;
        uid_t caller;
        const char *line;
    };
    const Case cases[] = {{"nobody-knows", 0, "Invalid config: {"},
                          {"opalweb", kWeb, "Invalid config: {"},
                          {"opalweb", kMail, "Failed to init, [0xE400 opalcrtregister.cpp:"},
                          {"nobody-knows", kMail, "Failed to init, [0x2A00 opalcrtregister.cpp:"}};
    Shell("cp -r " + tools_ + "/opalcrt* /usr/opal/");
    tools_ = "/usr/opal";
    for (const Case &test : cases) {
        drop(test.owner);
        EXPECT_EQ(Run({"opalcrtregister", "p"}, "", test.caller).status, 1);
        EXPECT_TRUE(Logged({test.line})) << test.owner << test.caller;
        EXPECT_FALSE(Exists(kPackageDefinitions + "p.cfg"));
    }

    // A set-user-id start is its caller; and a definition that cannot be removed changes nothing.
    drop("opalmail");
    Shell("chmod 0755 " + kPackageDefinitions + "; chmod u+s /usr/opal/opalcrtregister");
    EXPECT_EQ(Run({"opalcrtregister", "p"}, "", kWeb).out, "Failed to init registerer\n");
    EXPECT_TRUE(Logged({"Failed to init, [0xE400"}));
    Shell("chmod u-s /usr/opal/opalcrtregister");
    drop("opalweb");
    Shell("chmod 0755 " + kPackageDefinitions);
    EXPECT_EQ(Run({"opalcrtregister", "p"}, "", kWeb).out, "Failed to prepare services\n");
    EXPECT_TRUE(Logged({"Failed to unlink /usr/local/share/certificate.d/p.cfg (Permission denied)"}));
}

TEST_F(Registration, ChoosesTheCommandByItsName)
{
    Shell("cp " + tools_ + "/opalcrtregister /usr/opal/; cd /usr/opal; "
          "for n in opalcrtunregister opalcrtchecksum opalcrtregister.bin OPALCRTREGISTER; do ln -s opalcrtregister $n; done");
    tools_ = "/usr/opal";
    const auto usage = [](const std::string &name) {
        return "Certificate service tool\nusage: " + name + " <subscriber> <service>\nusage: " + name + " <subscriber>\n";
    };
    for (const std::string name : {"opalcrtregister", "opalcrtunregister"}) {
        EXPECT_EQ(Run({name}).out, usage(name));
        EXPECT_EQ(Run({name, "a", "b", "c"}).out, usage(name));
        EXPECT_EQ(Run({name, "a", "b", "c"}).status, 1);
    }
    EXPECT_EQ(Run({"opalcrtchecksum", "any", "thing", "goes", "here"}).out, "[]\n");
    for (const std::string name : {"opalcrtregister.bin", "OPALCRTREGISTER"}) {
        const Result result = Run({name, "p"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
    }
    EXPECT_TRUE(TakeLog().empty());
}

TEST_F(Registration, LosesNobodyWhenManyRunAtOnce)
{
    std::string script;
    for (int index = 0; index < 16; ++index) {
        Define("pkg" + std::to_string(index), {"web", "mail"});
        script += tools_ + "/opalcrtregister pkg" + std::to_string(index) + " & ";
    }
    EXPECT_EQ(Shell(script + tools_ + "/opalcrtregister pkg0 >/dev/null; wait"), "");
    EXPECT_EQ(ReadJson(kStore + "SERVICES").size(), 32U);
    EXPECT_EQ(ReadJson(kStore + "INFO")["abc123"]["services"].size(), 32U);
    EXPECT_EQ(Shell("ls -d /usr/local/etc/certificate/*/*/info | wc -l"), "32\n");
}

// What a caller leaves strange in the process, and what must not reach a child.
TEST_F(Registration, PassesNothingOfItsCallerToItsChildren)
{
    Shell("rm " + kStore + "abc123/fullchain.pem");
    Define("p", {"web"});
    const Result result =
        Run({"opalcrtregister", "p"}, "exec 7</etc/passwd; trap '' CHLD PIPE TERM; OPENSSL_CONF=/etc/passwd "
                                      "LD_BIND_NOW=1 /usr/bin/strace -qq -f -v -s 300 -o /run/trace -e signal=none "
                                      "-e trace=execve,exit_group");
    EXPECT_EQ(result.status, 0);
    const std::string execs = Shell("grep execve /run/trace | tail -n +2 | sed 's/^[0-9]* //'");
    EXPECT_EQ(execs.find("OPENSSL_CONF"), std::string::npos) << execs;
    EXPECT_EQ(execs.find("LD_BIND_NOW"), std::string::npos) << execs;
    EXPECT_EQ(Shell("grep execve /run/trace | tail -n +2 | sed -E 's/.*execve\\(\"([^\"]*)\".*/\\1/' | sort | uniq -c | "
                    "sed 's/^ *//'"),
              "5 /bin/cp\n10 /bin/mkdir\n3 /bin/rm\n1 /usr/bin/busctl\n6 /usr/bin/openssl\n1 /usr/bin/systemctl\n");
}

TEST_F(Registration, RunsWithClosedStreams)
{
    Define("p", {"web"});
    EXPECT_EQ(Shell(tools_ + "/opalcrtregister p <&- >&- 2>&-; echo $?"), "0\n");
    EXPECT_EQ(ReadJson(kStore + "SERVICES").size(), 1U);
    EXPECT_TRUE(CanParse(kStore + "INFO"));
}

}  // namespace opalcrt
