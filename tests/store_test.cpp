#include "store/crt_info.h"

#include <sys/stat.h>

#include "common/json_file.h"
#include "common/log.h"
#include "sandbox.h"
#include "store/names.h"
#include "store/paths.h"

namespace opalcrt
{

using Store = Sandbox;

TEST_F(Store, FormsPathsAndKeepsFoldersInsideTheirRoot)
{
    EXPECT_EQ(GetServiceFolderPath(true, "pkgA", "web"), "/usr/local/etc/certificate/pkgA/web");
    EXPECT_EQ(GetServiceFolderPath(false, "pkgA", "web"), "/usr/opal/etc/certificate/pkgA/web");

    Shell("cd /usr/local/etc/certificate; mkdir -p a/web ab /usr/local/out/web; ln -s /usr/local/out linked; "
          "ln -s ../../../out a/out; ln -s nowhere dangling");
    struct Case {
        const char *subscriber;
        const char *service;
        bool answer;
    };
    const Case cases[] = {{"a", "", true},      {"a", "web", true},       {"", "", false},      {"", "web", false},
                          {".", "", false},     {"..", "", false},        {"a", "none", false}, {"none", "", false},
                          {"linked", "", false}, {"linked", "web", false}, {"a", "out", false},  {"a", "..", false},
                          {"a", ".", false},    {"dangling", "", false}};
    for (const Case &test : cases) {
        EXPECT_EQ(IsServiceFolderInRoot(true, test.subscriber, test.service), test.answer)
            << test.subscriber << "/" << test.service;
    }
}

TEST_F(Store, ReadsTheDefaultId)
{
    Shell("mkdir " + kStore + "abc123 " + kStore + "123456789012345");
    struct Case {
        const char *text;
        const char *id;
    };
    for (const Case &test : {Case{"abc123\n", "abc123"}, {"abc123", "abc123"}, {"abc123\nmore\n", "abc123"},
                             {"123456789012345678\n", "123456789012345"}, {"abc123 \n", ""}, {"", ""}, {"\n", ""}}) {
        WriteFile(kStore + "DEFAULT", test.text);
        EXPECT_EQ(GetDefCrtId(), test.id) << test.text;
    }
}

TEST_F(Store, ChecksServiceObjects)
{
    struct Case {
        const char *key;
        const char *value;  // null: removed
        bool isValid;
        const char *line;
    };
    const char *lack = "utils.cpp Lack of necesary key. [";
    const Case cases[] = {
        {"owner", nullptr, false, lack},        {"display_name", nullptr, false, lack}, {"isPkg", nullptr, false, lack},
        {"subscriber", nullptr, false, lack},   {"service", nullptr, false, lack},      {"isPkg", "\"true\"", false, ""},
        {"isPkg", "false", true, ""},           {"owner", "\"\"", false, ""},           {"owner", "5", false, ""},
        {"service", "\"\"", false, ""},         {"subscriber", "[]", false, ""},        {"display_name", "\"\"", false, ""},
        {"display_name_i18n", "\"\"", false, ""}, {"display_name_i18n", "\"x\"", true, ""}, {"other", "[[]]", true, ""},
    };
    for (const Case &test : cases) {
        Json::Value object = ServiceObj("p", "web");
        if (test.value == nullptr) {
            object.removeMember(test.key);
        } else {
            object[test.key] = ParseJson(std::string("[") + test.value + "]")[0];
        }
        EXPECT_EQ(IsServiceObjValid(object), test.isValid) << test.key;
        const std::vector<std::string> log = TakeLog();
        EXPECT_EQ(log, *test.line == '\0' ? std::vector<std::string>() : std::vector{test.line + std::string(test.key) + "]"});
    }
    EXPECT_FALSE(IsServiceObjValid(ParseJson("[1]")[0]));
}

TEST_F(Store, LooksUpTheFirstCertificateThatListsTheService)
{
    SetInfo(R"({"a": 5, "b": {"services": 5}, "c": {"services": [5, {"service": "web"}]}, "d": {},
                "z": {"services": [{"subscriber": "p", "service": "web"}]},
                "Z": {"services": [{"subscriber": "p", "service": "web"}]}})");
    std::string id;
    EXPECT_TRUE(GetServiceCrtId(ServiceObj("p", "web"), id));
    EXPECT_EQ(id, "Z");
    id = "kept";
    EXPECT_TRUE(GetServiceCrtId(ServiceObj("p", "other"), id));
    EXPECT_EQ(id, "kept");

    for (const char *broken : {"", "[]", "{"}) {
        SetInfo(broken);
        EXPECT_FALSE(GetServiceCrtId(ServiceObj("p", "web"), id));
        EXPECT_TRUE(Logged({"utils.cpp Broken [/usr/opal/etc/certificate/_archive/INFO].[0x"}));
    }
    EXPECT_FALSE(GetServiceCrtId(ParseJson("{}"), id));
    EXPECT_TRUE(Logged({"Lack of necesary key. [display_name]", "Invalid input format [{}]"}));
}

TEST_F(Store, RebuildsServiceLists)
{
    const Json::Value service = ServiceObj("p", "web");
    Json::Value list = ParseJson(R"([{"subscriber": "a", "service": "web"}, {"subscriber": "p", "service": "web"}, "bare",
                                     {"subscriber": "p", "service": 1}, {"subscriber": "b", "service": "web"}])");
    UpdateServiceList(list, service, false);
    ASSERT_EQ(list.size(), 3U);
    EXPECT_EQ(list[1]["subscriber"], "b");
    EXPECT_EQ(list[2], service);
    UpdateServiceList(list, service, true);
    EXPECT_EQ(list.size(), 2U);
}

TEST_F(Store, WritesInfoWholeOrNotAtAll)
{
    const std::string old = R"({"a": {"services": []}})";
    const Json::Value fresh = ParseJson(R"({"b": {}})");
    SetInfo(old);
    chmod((kStore + "INFO").c_str(), 0600);

    Shell("mkdir -p " + kStore + "INFO.temp/x");
    EXPECT_FALSE(WriteCrtInfo(fresh));
    EXPECT_TRUE(Logged({"Failed to write [{\"b\":{}}] to [/usr/opal/etc/certificate/_archive/INFO.temp]."}));
    EXPECT_EQ(ReadFile(kStore + "INFO"), old);
    EXPECT_FALSE(Exists(kStore + "INFO.temp.new"));
    Shell("rm -r " + kStore + "INFO.temp; mount --bind " + kStore + "INFO " + kStore + "INFO");
    EXPECT_FALSE(WriteCrtInfo(fresh));
    EXPECT_TRUE(Logged({"Failed to move /usr/opal/etc/certificate/_archive/INFO.temp to "}));
    EXPECT_EQ(ReadJson(kStore + "INFO.temp"), fresh);
    Shell("umount " + kStore + "INFO");
    EXPECT_EQ(ReadFile(kStore + "INFO"), old);

    EXPECT_TRUE(WriteCrtInfo(fresh));
    EXPECT_EQ(ReadJson(kStore + "INFO"), fresh);
    EXPECT_EQ(Shell("stat -c %a " + kStore + "INFO"), "600\n");
    EXPECT_FALSE(Exists(kStore + "INFO.temp"));
}

TEST_F(Store, CutsLongTextsInsideALogLine)
{
    constexpr const char *kLogSource = log_source::kUtils;
    std::string text;
    while (text.size() < 20000) {
        text += "ü";
    }
    errno = ENOSPC;
    LOG_ERROR_LONG(text, "Failed [%s] to [%s] %m", text.c_str(), "INFO");
    EXPECT_EQ(errno, ENOSPC);
    const std::vector<std::string> log = TakeLog();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_TRUE(log[0].ends_with("ü] to [INFO] No space left on device"));
    EXPECT_GT(log[0].size(), 7900U);
    EXPECT_LT(log[0].size(), 8192U - 64);
}

TEST_F(Store, KeepsTheBytesOfStrings)
{
    const std::string text = "{\"a\":\"\xFF\xFE ü \\u0000 \\\\ \\\"\",\"b\":[1.5,-3,18446744073709551615,true,null]}";
    WriteFile("/tmp/in", text);
    Json::Value value;
    ASSERT_TRUE(fromFile("/tmp/in", value));
    EXPECT_EQ(toString(value), text + "\n");
    const Json::Value large(std::string(2 << 20, 'x'));
    EXPECT_TRUE(toFile("/tmp/out", large));
    ASSERT_TRUE(fromFile("/tmp/out", value));
    EXPECT_EQ(value, large);
}

}  // namespace opalcrt
