#include "assign/engine.h"

#include "assign/reload_hooks.h"
#include "sandbox.h"

namespace opalcrt
{

class Engine : public Sandbox
{
protected:
    Engine()
    {
        AddCrt("new");
        AddCrt("old");
        SetInfo(R"({"new": {"services": [{"subscriber": "q", "service": "web"}]},
                    "old": {"services": [{"subscriber": "p", "service": "web"}], "desc": 1}})");
        WriteFile("/usr/local/libexec/certificate.d/p", "#!/bin/sh\necho libexec \"$@\" >> /tmp/hooks; exit 7\n", 0755);
        ReplaceProgram("/usr/bin/systemctl", "echo \"$@\" >> /tmp/systemctl");
        services_.append(ServiceObj("p", "web"));
    }
    // The services that INFO lists, "new: q/web p/web old: "
    static std::string Listed()
    {
        std::string seen;
        const Json::Value info = ReadJson(kStore + "INFO");
        for (const std::string &id : info.getMemberNames()) {
            seen += id + ": ";
            for (const Json::Value &service : info[id]["services"]) {
                seen += service["subscriber"].asString() + "/" + service["service"].asString() + " ";
            }
        }
        return seen;
    }
    Json::Value services_{Json::arrayValue};
};

TEST_F(Engine, DoesWhatEachActionSays)
{
    struct Case {
        int action;
        const char *oldId;
        const char *crt;  // whose files are deployed
        const char *listed;
        bool runsHook;
    };
    const Case cases[] = {
        {0, "old", "new", "new: q/web p/web old: ", true},   {1, "old", "new", "new: q/web p/web old: ", true},
        {2, "old", "new", "new: q/web old: p/web ", true},   {3, "", "old", "new: q/web old: p/web ", false},
        {4, "old", "new", "new: q/web p/web old: ", true},   {4, "", "new", "new: q/web p/web old: p/web ", true},
    };
    const std::string info = ReadFile(kStore + "INFO");
    for (const Case &test : cases) {
        SetInfo(info);
        Shell("rm -f /tmp/hooks /tmp/systemctl");
        EXPECT_TRUE(SetCrtForServices("new", services_, test.oldId, test.action)) << test.action;
        EXPECT_EQ(ReadFile(kPackages + "p/web/cert.pem"), ReadFile(kStore + test.crt + "/cert.pem")) << test.action;
        EXPECT_EQ(Listed(), test.listed) << test.action;
        EXPECT_EQ(ReadJson(kStore + "INFO")["old"]["desc"], 1);
        EXPECT_EQ(ReadFile("/tmp/hooks"), test.runsHook ? "libexec web\n" : "(missing)") << test.action;
        EXPECT_EQ(ReadFile("/tmp/systemctl"), "reload opalrelayd\n");
    }
    EXPECT_TRUE(TakeLog().empty());
    Shell("rm -f /tmp/systemctl");
    EXPECT_TRUE(SetCrtForServices("new", Json::Value(Json::arrayValue), "", 3));
    EXPECT_EQ(ReadFile("/tmp/systemctl"), "reload opalrelayd\n");
}

TEST_F(Engine, RefusesWrongParametersBeforeItDoesAnything)
{
    const std::string info = ReadFile(kStore + "INFO");
    for (const int action : {-1, 5, 1 << 30}) {
        EXPECT_FALSE(SetCrtForServices("new", services_, "", action));
        EXPECT_EQ(TakeLog(), (std::vector<std::string>{"utils.cpp Wrong rgCRTActionInfo.", "utils.cpp Invalid params (action)"}));
    }
    EXPECT_FALSE(SetCrtForServices("new", Json::Value(Json::objectValue), "", 0));
    EXPECT_FALSE(SetCrtForServices("unknown", services_, "", 0));
    EXPECT_TRUE(Logged({"Invalid params (cert_id/services)", "Invalid cert id: [unknown]", "Invalid params (cert_id/services)"}));
    EXPECT_FALSE(DeployDefCrt(services_, 3, ""));
    EXPECT_TRUE(TakeLog().empty());
    EXPECT_FALSE(Exists("/tmp/systemctl"));
    EXPECT_FALSE(Exists(kPackages + "p"));
    EXPECT_EQ(ReadFile(kStore + "INFO"), info);
}

TEST_F(Engine, GoesOnAfterAServiceThatFails)
{
    Json::Value services(Json::arrayValue);
    services.append(ServiceObj("p", "web", R"({"note": "x"})"));
    services[0]["owner"] = "nobody-knows";
    services.append(5);
    services.append(ServiceObj("p", "late"));
    EXPECT_FALSE(SetCrtForServices("new", services, "", 3));
    EXPECT_TRUE(Logged({"Failed to OPALUserGetUGID [nobody-knows]", "Failed to set cert [old] for [{", "service object is error."}));
    EXPECT_EQ(Listed(), "new: q/web p/late old: p/web ");
    EXPECT_TRUE(Exists("/tmp/systemctl"));
}

TEST_F(Engine, LeavesInfoAloneWhenAnEntryIsBroken)
{
    struct Case {
        const char *info;
        const char *line;
    };
    const Case cases[] = {
        {R"({"new": {"services": []}, "old": {}})", "Broken [/usr/opal/etc/certificate/_archive/INFO][old].[0x"},
        {R"({"new": {"services": []}, "old": 7})", "Broken [/usr/opal/etc/certificate/_archive/INFO][old].[0x"},
        {R"({"new": {"services": []}})", "Broken [/usr/opal/etc/certificate/_archive/INFO][old].[0x"},
        {R"({"new": {"services": {}}, "old": {"services": []}})", "Broken [/usr/opal/etc/certificate/_archive/INFO][new].[0x"},
        {R"({"new": {}, "old": {"services": []}})", "Broken [/usr/opal/etc/certificate/_archive/INFO][new].[0x"},
    };
    for (const Case &test : cases) {
        SetInfo(test.info);
        EXPECT_FALSE(SetCrtForServices("new", services_, "old", 0)) << test.info;
        const std::vector<std::string> log = TakeLog();
        ASSERT_EQ(log.size(), 2U) << test.info;
        EXPECT_TRUE(log[0].find(test.line) != std::string::npos) << log[0];
        EXPECT_TRUE(log[1].starts_with("utils.cpp Failed to update cert info for [{")) << log[1];
        EXPECT_TRUE(log[1].ends_with("}] from old to new")) << log[1];
        EXPECT_EQ(ReadFile(kStore + "INFO"), test.info);
        EXPECT_FALSE(Exists("/tmp/hooks"));
    }
    SetInfo(R"({"new": {"services": []}, "old": {"services": []}})");
    Shell("mkdir -p " + kStore + "INFO.temp/x");
    EXPECT_FALSE(SetCrtForServices("new", services_, "old", 0));
    EXPECT_TRUE(Logged({"Failed to write [{", "utils.cpp Failed to write [/usr/opal/etc/certificate/_archive/INFO].",
                        "Failed to update cert info for [{"}));
}

TEST_F(Engine, FindsTheHookOfTheSubscriber)
{
    const auto hook = [](const std::string &path, mode_t mode) {
        WriteFile(path, "#!/bin/sh\necho " + path + " \"$#$1\" >> /tmp/hooks; exit 3\n", mode);
    };
    Json::Value system = ServiceObj("p", "we b");
    system["isPkg"] = false;
    EXPECT_EQ(ReloadService(ServiceObj("none", "web")), 0);
    EXPECT_EQ(ReloadService(system), 0);
    EXPECT_FALSE(Exists("/tmp/hooks"));

    hook("/usr/libexec/certificate.d/p", 0755);
    EXPECT_EQ(ReloadService(system), 0);
    EXPECT_EQ(ReadFile("/tmp/hooks"), "/usr/libexec/certificate.d/p 1we b\n");
    hook(kSystemDefinitions + "p", 0755);
    hook(kPackageDefinitions + "p", 0644);
    Shell("rm /tmp/hooks");
    EXPECT_EQ(ReloadService(system), 0);
    EXPECT_EQ(ReadFile("/tmp/hooks"), kSystemDefinitions + "p 1we b\n");
    EXPECT_TRUE(TakeLog().empty());

    Shell("rm /tmp/hooks");
    EXPECT_FALSE(SetCrtForServices("new", services_, "old", 2));
    EXPECT_TRUE(Logged({"utils.cpp Failed to [/usr/local/share/certificate.d/p][web].[0x0500 process.cpp:", "Failed to reload [{"}));
    EXPECT_FALSE(Exists("/tmp/hooks"));
}

}  // namespace opalcrt
