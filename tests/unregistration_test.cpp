#include "frontend/unregisterer.h"

#include "sandbox.h"

namespace opalcrt
{

class Unregistration : public Sandbox
{
protected:
    Unregistration() { Fill(); }
    // Package p with web (certificate a) and mail (certificate b), system component s with web (certificate a).
    void Fill()
    {
        Shell("rm -rf /usr/local/etc /usr/opal/etc; mkdir -p " + kStore);
        Json::Value web = ServiceObj("p", "web");
        Json::Value mail = ServiceObj("p", "mail");
        Json::Value system = ServiceObj("s", "web");
        system["isPkg"] = false;
        system["owner"] = "root";
        Json::Value list(Json::arrayValue);
        list.append(web);
        list.append("stranger");
        list.append(system);
        list.append(mail);
        SetServices(list.toStyledString());
        Json::Value info;
        info["a"]["services"].append(system);
        info["a"]["services"].append(web);
        info["a"]["desc"] = "kept";
        info["b"]["services"].append(mail);
        info["c"] = 5;
        SetInfo(info.toStyledString());
        for (const std::string folder : {"local/etc/certificate/p/web", "local/etc/certificate/p/mail", "local/etc/certificate/p/extra",
                                         "opal/etc/certificate/s/web", "opal/etc/certificate/_archive/a"}) {
            WriteFile("/usr/" + folder + "/file", "x");
        }
    }
    // "list: p/web s/web p/mail info: a s/web p/web b p/mail folders: ..."
    static std::string Look()
    {
        const auto names = [](const Json::Value &services) {
            std::string seen;
            for (const Json::Value &service : services) {
                seen += service.isObject() ? service["subscriber"].asString() + "/" + service["service"].asString() + " " : "";
            }
            return seen;
        };
        const Json::Value info = ReadJson(kStore + "INFO");
        return "list: " + names(ReadJson(kStore + "SERVICES")) + "info: a " + names(info["a"]["services"]) + "b " +
               names(info["b"]["services"]) +
               "folders: " + Shell("cd /usr; ls -d local/etc/certificate/*/* opal/etc/certificate/*/[aw]* 2>/dev/null | sed -E "
                                   "'s/.etc.certificate//' | tr '\\n' ' '");
    }
};

TEST_F(Unregistration, TakesBackWhatWasGivenAndNothingElse)
{
    struct Case {
        std::vector<std::string> args;
        const char *left;
        const char *line;
    };
    const Case cases[] = {
        {{"p", "web"}, "list: s/web p/mail info: a s/web b p/mail folders: local/p/extra local/p/mail opal/_archive/a opal/s/web ",
         "Un-Register certificate for p/web(pkg)"},
        {{"p", "mail"}, "list: p/web s/web info: a s/web p/web b folders: local/p/extra local/p/web opal/_archive/a opal/s/web ",
         "Un-Register certificate for p/mail(pkg)"},
        {{"p"}, "list: s/web info: a s/web b folders: opal/_archive/a opal/s/web ", "Un-Register certificate for p(pkg)"},
        {{"p", ""}, "list: s/web info: a s/web b folders: opal/_archive/a opal/s/web ", "Un-Register certificate for p/(pkg)"},
        {{"s", "web"}, "list: p/web p/mail info: a p/web b p/mail folders: local/p/extra local/p/mail local/p/web opal/_archive/a ",
         "Un-Register certificate for s/web"},
    };
    for (const Case &test : cases) {
        Fill();
        std::vector<std::string> args = {"opalcrtunregister"};
        args.insert(args.end(), test.args.begin(), test.args.end());
        const Result result = Run(args);
        EXPECT_EQ(result.status, 0) << test.line;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(TakeLog(), std::vector<std::string>{std::string("opalcrtregister.cpp ") + test.line});
        EXPECT_EQ(Look(), test.left);
        EXPECT_EQ(ReadJson(kStore + "SERVICES")[0] == "stranger" || ReadJson(kStore + "SERVICES")[1] == "stranger", true);
        EXPECT_EQ(ReadJson(kStore + "INFO")["a"]["desc"], "kept");
        EXPECT_EQ(ReadJson(kStore + "INFO")["c"], 5);
        // Again: INFO knows nothing of it, so the system's root is looked into.
        EXPECT_EQ(Run(args).out, "Failed to remove service certificate\n");
        EXPECT_TRUE(Logged({"Can NOT find service: " + test.args[0] + "(" + (test.args.size() > 1 ? test.args[1] : "") + ")",
                            "Invalid certificate: " + test.args[0]}));
    }
}

TEST_F(Unregistration, StopsAtTheStepThatFails)
{
    struct Case {
        const char *breakIt;
        const char *out;
        std::vector<std::string> trail;
        bool listIsChanged;
        bool infoIsChanged;
    };
    const char *init = "Failed to init for Un-Registerer\n";
    const char *list = "Failed to remove register services\n";
    const char *info = "Failed to remove service from info\n";
    const char *folder = "Failed to remove service certificate\n";
    const Case cases[] = {
        {"rm INFO", init, {"opalcrtregister.cpp Failed to get info for UnRegisterer"}, false, false},
        {"echo [ > INFO", init, {"Failed to get info for UnRegisterer"}, false, false},
        {"echo {} > INFO", init, {"Bad certificate info"}, false, false},
        {"echo null > INFO", init, {"Bad certificate info"}, false, false},
        {"echo [1] > INFO", init, {"Bad certificate info"}, false, false},
        {"sed -i s/opalweb// INFO", init, {"Failed to init, [0x0D00 opalcrtregister.cpp:"}, false, false},
        {"rm SERVICES", list, {"Failed to read register services, it may missed or broken"}, false, false},
        {"echo {} > SERVICES", list, {"Incorrect format of register services [{}]"}, false, false},
        {"mkdir -p SERVICES.new/x", list, {"Failed to write register services (Is a directory)"}, false, false},
        {"sed -i 's/\"isPkg\" : true/\"isPkg\" : false/;0,/opalweb/s/opalweb/opalmail/' INFO", info,
         {"Bad info: [opalweb()_opalmail()]"}, true, false},
        {"mkdir -p INFO.new/x", info, {"Failed to update info file", "Original info file is backed up to /usr/opal/etc/certificate/_archive/INFO.bak"},
         true, false},
        {"mkdir -p INFO.new/x INFO.bak.new/x", info, {"Failed to update info file"}, true, false},
        {"rm -r /usr/local/etc/certificate/p", folder, {"Invalid certificate: p(pkg)"}, true, true},
        {"mount -t tmpfs none /usr/local/etc/certificate/p/web", folder, {"Failed to remove certificate [p(pkg)][0x0601 process.cpp:"}, true, true},
    };
    for (const Case &test : cases) {
        Fill();
        Shell("cd " + kStore + "; " + test.breakIt);
        const std::string listBefore = ReadFile(kStore + "SERVICES");
        const std::string infoBefore = ReadFile(kStore + "INFO");
        const Result result = Run({"opalcrtunregister", "p"});
        Shell("umount /usr/local/etc/certificate/p/web");
        EXPECT_EQ(result.status, 1) << test.breakIt;
        EXPECT_EQ(result.out, test.out) << test.breakIt;
        EXPECT_TRUE(Logged(test.trail)) << test.breakIt;
        EXPECT_EQ(ReadFile(kStore + "SERVICES") != listBefore, test.listIsChanged) << test.breakIt;
        EXPECT_EQ(ReadFile(kStore + "INFO") != infoBefore, test.infoIsChanged) << test.breakIt;
        if (std::string(test.breakIt) == "mkdir -p INFO.new/x") {
            EXPECT_EQ(ReadJson(kStore + "INFO.bak"), ReadJson(kStore + "INFO"));
        }
    }
    EXPECT_EQ(Run({"opalcrtunregister", ""}).out, init);
    EXPECT_TRUE(Logged({"Bad params: subscriber"}));
}

TEST_F(Unregistration, IsForRootAndTheOwner)
{
    Shell("cp " + tools_ + "/opalcrt* /usr/opal/; chmod -R a+rwX " + kStore);
    tools_ = "/usr/opal";
    const std::string before = Look();
    EXPECT_EQ(Run({"opalcrtunregister", "p"}, "", kMail).out, "Failed to init for Un-Registerer\n");
    EXPECT_TRUE(Logged({"Failed to init, [0xE400 opalcrtregister.cpp:"}));
    EXPECT_EQ(Look(), before);
}

// The archive and whatever lies behind a link outlive every name.
TEST_F(Unregistration, RemovesNeitherTheArchiveNorWhatALinkLeadsTo)
{
    Shell("mkdir -p /usr/opal/precious/web; touch /usr/opal/precious/web/key; cd /usr/opal/etc/certificate; ln -s /usr/opal/precious out; "
          "ln -s s inside; ln -s _archive sneaky; ln -s ../../../precious/web s/out; ln -s web s/alias; mkdir -p _archive_/web");
    const std::string before = Shell("find /usr/opal /usr/local | grep -v /_archive/ | sort; ls " + kStore + "a");
    struct Case {
        std::vector<std::string> args;
        std::string name;
    };
    for (const Case &test :
         {Case{{"_archive"}, "_archive"}, {{"_archive", ""}, "_archive/"}, {{"_archive", "a"}, "_archive/a"}, {{"_archive/a"}, "_archive/a"},
          {{"./_archive"}, "./_archive"}, {{"."}, "."}, {{".", "_archive"}, "./_archive"}, {{"s/../_archive"}, "s/../_archive"},
          {{"s", "../_archive"}, "s/../_archive"}, {{"..", "certificate"}, "../certificate"}, {{"s", ".."}, "s/.."}, {{"s", "."}, "s/."},
          {{"out"}, "out"}, {{"out", ""}, "out/"}, {{"out", "web"}, "out/web"}, {{"inside"}, "inside"}, {{"inside", ""}, "inside/"},
          {{"sneaky"}, "sneaky"}, {{"sneaky", ""}, "sneaky/"}, {{"sneaky", "a"}, "sneaky/a"}, {{"s", "out"}, "s/out"},
          {{"s", "alias"}, "s/alias"}, {{"s", "none"}, "s/none"}, {{"s", "web.temp"}, "s/web.temp"}}) {
        std::vector<std::string> args = {"opalcrtunregister"};
        args.insert(args.end(), test.args.begin(), test.args.end());
        EXPECT_EQ(Run(args).out, "Failed to remove service certificate\n") << test.name;
        EXPECT_TRUE(Logged({"opalcrtregister.cpp Invalid certificate: " + test.name})) << test.name;
        EXPECT_EQ(Shell("find /usr/opal /usr/local | grep -v /_archive/ | sort; ls " + kStore + "a"), before) << test.name;
    }
    // The books are cleaned of such a name all the same: it is only compared.
    SetServices(R"([{"subscriber": "../x", "service": "w"}, {"subscriber": "y", "service": "w"}])");
    SetInfo(R"({"a": {"services": [{"subscriber": "../x", "service": "w", "owner": "root", "isPkg": false}]}})");
    EXPECT_EQ(Run({"opalcrtunregister", "../x"}).out, "Failed to remove service certificate\n");
    EXPECT_EQ(ReadJson(kStore + "SERVICES").size(), 1U);
    EXPECT_EQ(ReadJson(kStore + "INFO")["a"]["services"].size(), 0U);
}

TEST_F(Unregistration, NeedsARequestWithASubscriber)
{
    EXPECT_FALSE(RemoveServiceCertificate(ParseJson(R"({"service": "web"})")));
    EXPECT_TRUE(Logged({"Invalid config: {\"service\":\"web\"}"}));
}

// A registration and an unregistration of one subscriber at once, many times: the books stay right for everybody else,
// and one quiet run brings books and folder to agree.
TEST_F(Unregistration, EndsRightAfterARaceWithARegistration)
{
    AddCrt("default");
    WriteFile(kStore + "DEFAULT", "default");
    Json::Value info = ReadJson(kStore + "INFO");
    for (int round = 0; round < 100; ++round) {
        Define("r", {"web", "mail"});
        Shell(tools_ + "/opalcrtregister r & " + tools_ + "/opalcrtunregister r & wait");
        ASSERT_TRUE(CanParse(kStore + "INFO") && CanParse(kStore + "SERVICES")) << round;
    }
    const auto count = [](const Json::Value &services) {
        int found = 0;
        for (const Json::Value &service : services) {
            found += service.isObject() && service["subscriber"] == "r" ? 1 : 0;
        }
        return found;
    };
    EXPECT_LE(count(ReadJson(kStore + "SERVICES")), 2);
    EXPECT_LE(count(ReadJson(kStore + "INFO")["default"]["services"]), 2);
    Define("r", {"web", "mail"});
    EXPECT_EQ(Run({"opalcrtregister", "r"}).status, 0);
    EXPECT_EQ(count(ReadJson(kStore + "SERVICES")), 2);
    EXPECT_EQ(count(ReadJson(kStore + "INFO")["default"]["services"]), 2);
    EXPECT_EQ(Shell("ls " + kPackages + "r"), "mail\nweb\n");
    EXPECT_EQ(Run({"opalcrtunregister", "r"}).status, 0);
    EXPECT_EQ(count(ReadJson(kStore + "SERVICES")) + count(ReadJson(kStore + "INFO")["default"]["services"]), 0);
    EXPECT_FALSE(Exists(kPackages + "r"));
    EXPECT_EQ(ReadJson(kStore + "SERVICES").size(), 4U);
    info["default"]["services"] = ReadJson(kStore + "INFO")["default"]["services"];
    EXPECT_EQ(ReadJson(kStore + "INFO"), info);
}

}  // namespace opalcrt
