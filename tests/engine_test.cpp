#include "assign/engine.h"

#include "assign/reload_hooks.h"
#include "sandbox.h"
#include "store/crt_info.h"
#include "store/service.h"

using namespace opalcrt;

class Engine : public Sandbox
{
protected:
    Engine()
    {
        Shell(R"(crt new; crt old; H=/usr/local/libexec/certificate.d; mkdir -p $H; replace /usr/bin/systemctl 'echo $* >> /tmp/systemctl'
                 printf '#!/bin/sh\necho libexec $* >> /tmp/hooks; exit 7' > $H/p; chmod 0755 $H/p; echo '{"new": {"services": [{"subscriber":
                 "q", "service": "web"}]}, "old": {"services": [{"subscriber": "p", "service": "web"}], "desc": 1}}' | tee INFO > /run/INFO)");
        services_.append(ServiceObj("web"));
    }
    Json::Value services_{Json::arrayValue};
};

TEST_F(Engine, DoesWhatEachActionSays)
{
    struct Case {
        int action;
        const char *oldId;
        std::string seen;  // whose files are deployed, what INFO lists, and the hook's line
    };
    const std::string moved = "new info: new: q/web p/web old: ";
    for (const Case &test : {Case{0, "old", moved + "libexec web\n"}, {1, "old", moved + "libexec web\n"}, {4, "old", moved + "libexec web\n"},
                             {2, "old", "new info: new: q/web old: p/web libexec web\n"}, {3, "", "old info: new: q/web old: p/web "},
                             {4, "", moved + "p/web libexec web\n"}}) {
        Shell("cp /run/INFO INFO; rm -f /tmp/hooks /tmp/systemctl");
        EXPECT_TRUE(SetCrtForServices("new", services_, test.oldId, test.action)) << test.action;
        EXPECT_EQ(Shell("for i in old new; do cmp -s $P/p/web/cert.pem $i/cert.pem && printf \"$i \"; done; books | sed 's/list: //'; "
                        "cat /tmp/hooks 2>/dev/null; jq .old.desc INFO; cat /tmp/systemctl"),
                  test.seen + "1\nreload opalrelayd\n") << test.action;
    }
    EXPECT_TRUE(SetCrtForServices("new", Json::Value(Json::arrayValue), "", 3));
    EXPECT_EQ(Log() + Shell("cat /tmp/systemctl"), "reload opalrelayd\nreload opalrelayd\n");
}

TEST_F(Engine, RefusesWrongParametersBeforeItDoesAnythingAndGoesOnAfterAServiceThatFails)
{
    for (const int action : {-1, 5}) {
        EXPECT_FALSE(SetCrtForServices("new", services_, "", action));
        EXPECT_EQ(Log(), "utils.cpp Wrong rgCRTActionInfo.\nutils.cpp Invalid params (action)\n");
    }
    EXPECT_FALSE(SetCrtForServices("new", Json::Value(Json::objectValue), "", 0));
    EXPECT_FALSE(SetCrtForServices("unknown", services_, "", 0));
    const std::string params = "utils.cpp Invalid params (cert_id/services)\n";
    EXPECT_EQ(Log(), params + "utils.cpp Invalid cert id: [unknown]\n" + params);
    EXPECT_EQ(Shell("ls $P; ls /tmp/*.lock /tmp/systemctl 2>/dev/null; cmp INFO /run/INFO"), "");

    services_[0]["owner"] = "nobody-knows";
    services_.append(5);
    services_.append(ServiceObj("late"));
    EXPECT_FALSE(SetCrtForServices("new", services_, "", 3));
    EXPECT_TRUE(Logged({"Failed to OPALUserGetUGID [nobody-knows]", "Failed to set cert [old] for [{", "service object is error."}));
    EXPECT_EQ(Shell("books; cat /tmp/systemctl"), "list: info: new: q/web p/late old: p/web reload opalrelayd\n");
}

TEST_F(Engine, LeavesInfoAloneWhenAnEntryIsBroken)
{
    for (const std::string info : {R"({"new": {"services": []}, "old": {}})", R"({"new": {"services": []}, "old": 7})", R"({"new": {"services": []}})",
                                    R"({"new": {"services": {}}, "old": {"services": []}})", R"({"new": {}, "old": {"services": []}})"}) {
        Shell("echo '" + info + "' > INFO");
        EXPECT_FALSE(SetCrtForServices("new", services_, "old", 0)) << info;
        EXPECT_TRUE(Logged({"utils.cpp Broken [$A/INFO][", "].[0x", "utils.cpp Failed to update cert info for [{",
                            "}] from old to new\n"})) << info;
        EXPECT_EQ(Shell("cat INFO; ls /tmp/hooks 2>/dev/null"), info + "\n");
    }
}

TEST_F(Engine, ChecksServiceObjects)
{
    const std::pair<const char *, Json::Value> bad[] = {{"isPkg", "true"}, {"owner", ""}, {"owner", 5}, {"service", ""}, {"subscriber", ""},
                                                        {"display_name", ""}, {"display_name_i18n", ""}, {"display_name_i18n", false}};
    for (const auto &[key, value] : bad) {
        Json::Value object = ServiceObj("web");
        object["display_name_i18n"] = "x";
        EXPECT_TRUE(IsServiceObjValid(object));
        object[key] = value;
        EXPECT_FALSE(IsServiceObjValid(object)) << key;
        object.removeMember(key);
        EXPECT_EQ(IsServiceObjValid(object), std::string(key) == "display_name_i18n") << key;
        EXPECT_EQ(Log(), std::string(key) == "display_name_i18n" ? "" : std::string("utils.cpp Lack of necesary key. [") + key + "]\n");
    }
}

TEST_F(Engine, FindsTheHookOfTheSubscriber)
{
    Json::Value system = ServiceObj("we b");
    system["isPkg"] = false;
    Json::Value other = ServiceObj("web");
    other["subscriber"] = "none";
    EXPECT_EQ(ReloadService(other), 0);
    EXPECT_EQ(ReloadService(system), 0);
    const std::string hook = "hook() { printf '#!/bin/sh\\necho $0 \"$#$1\" >> /tmp/hooks; exit 3' > $1/p; chmod 0755 $1/p; }; ";
    EXPECT_EQ(Shell("ls /tmp/hooks 2>/dev/null; mkdir -p /usr/libexec/certificate.d; " + hook + "hook /usr/libexec/certificate.d"), "");
    EXPECT_EQ(ReloadService(system), 0);
    Shell(hook + "hook /usr/opal/share/certificate.d");
    EXPECT_EQ(ReloadService(system), 0);
    EXPECT_EQ(Log() + Shell("cat /tmp/hooks"), "/usr/libexec/certificate.d/p 1we b\n/usr/opal/share/certificate.d/p 1we b\n");
    Shell("rm /tmp/hooks; touch $D/p");  // Not executable.
    EXPECT_FALSE(SetCrtForServices("new", services_, "old", 2));
    EXPECT_TRUE(Logged({"utils.cpp Failed to [/usr/local/share/certificate.d/p][web].[0x0500 process.cpp:", "Failed to reload [{"}));
    EXPECT_EQ(Shell("ls /tmp/hooks 2>/dev/null"), "");
}
