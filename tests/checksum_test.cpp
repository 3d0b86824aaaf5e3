#include "checksum/crt_checksums.h"

#include <openssl/err.h>

#include "checksum/openssl_error.h"
#include "sandbox.h"

namespace opalcrt
{

using Checksum = Sandbox;

namespace
{

// The fingerprint as the openssl program shows it, in our notation.
std::string Fingerprint(const std::string &id)
{
    return Shell("openssl x509 -in " + kStore + id + "/cert.pem -noout -fingerprint -sha256 | cut -d= -f2 | tr -d ':\\n' | "
                 "tr A-F a-f");
}

}  // namespace

TEST_F(Checksum, ReportsEveryServiceOfEveryCertificate)
{
    AddCrt("b");
    AddCrt("a");
    const std::string body = ReadFile(kStore + "a/cert.pem");
    WriteFile(kStore + "a/cert.pem", "some text\n" + body + ReadFile(kStore + "b/cert.pem"));
    SetInfo(R"({"b": {"services": [{"service": "web", "subscriber": "p"}]},
                "a": {"services": [{"service": "one", "subscriber": "\u00fc", "owner": "x"}, {"service": [1]}]},
                "unused": {"services": []}})");
    const Result result = Run({"opalcrtchecksum"});
    EXPECT_EQ(result.status, 0);
    const std::string a = Fingerprint("a");
    EXPECT_EQ(a.size(), 64U);
    EXPECT_EQ(result.out, "[{\"checksum\":\"" + a + "\",\"service\":\"one\",\"subscriber\":\"ü\"},{\"checksum\":\"" + a +
                              "\",\"service\":[1],\"subscriber\":null},{\"checksum\":\"" + Fingerprint("b") +
                              "\",\"service\":\"web\",\"subscriber\":\"p\"}]\n");
    EXPECT_TRUE(TakeLog().empty());

    Shell("chmod 0444 " + kStore + "*/cert.pem; cp " + tools_ + "/opalcrt* /usr/opal/");
    tools_ = "/usr/opal";
    EXPECT_EQ(Run({"opalcrtchecksum"}, "", kMail).out, result.out);
}

TEST_F(Checksum, PrintsNothingWhenAnythingIsWrong)
{
    AddCrt("a");
    const std::string good = R"({"a": {"services": [{"service": "s", "subscriber": "p"}]}})";
    const std::string info = kStore + "INFO";
    const std::string crt = kStore + "a/cert.pem";
    struct Case {
        const char *breakIt;
        std::string info;
        std::vector<std::string> trail;
    };
    const std::string format = "utils.cpp Incorrect format for " + info;
    const Case cases[] = {
        {"true", "", {"utils.cpp Open " + info + " failed. Bad message"}},
        {"rm $I", good, {"utils.cpp Open " + info + " failed. No such file or directory"}},
        {"true", "[]", {format}}, {"true", "5", {format}}, {"true", R"({"a": 5})", {format}}, {"true", R"({"a": {}})", {format}},
        {"true", R"({"a": {"services": {}}})", {format}}, {"true", R"({"a": {"services": ["s"]}})", {format}},
        {"mv $C $C.away", good, {"utils.cpp Realpath " + crt + " failed. No such file or directory"}},
        {"mv $C $C.away; ln -s cert.pem.away $C", good, {"utils.cpp Invalid path for " + crt + ".away, " + crt + "."}},
        {"cp ${C%cert.pem}privkey.pem $C", good, {"utils.cpp Read X509 failed. ["}},
        {"rm $C; mkfifo $C", good, {"utils.cpp Open " + crt + " failed. Invalid argument"}},
        {"true", R"({"../_archive/a": {"services": [{"service": "s"}]}})", {"utils.cpp Invalid path for "}},
    };
    const std::string whole = ReadFile(crt);
    for (const Case &test : cases) {
        SetInfo(test.info);
        Shell("I=" + info + " C=" + crt + "; " + test.breakIt);
        const Result result = Run({"opalcrtchecksum"}, "timeout 5");
        EXPECT_EQ(result.status, 1) << test.breakIt << test.info;
        EXPECT_EQ(result.out, "") << test.breakIt << test.info;
        EXPECT_TRUE(Logged(test.trail)) << test.breakIt << test.info;
        Shell("rm -f " + crt);
        WriteFile(crt, whole);
    }
}

TEST_F(Checksum, FailsWhenNobodyTakesTheReport)
{
    EXPECT_EQ(Shell(tools_ + "/opalcrtchecksum > /dev/full; echo $?; " + tools_ + "/opalcrtchecksum >&-; echo $?; " +
                    "(sleep 0.2; " + tools_ + "/opalcrtchecksum; echo $? > /tmp/status) | true; cat /tmp/status"),
              "1\n1\n1\n");
    EXPECT_TRUE(Logged({"opalcrtregister.cpp Failed to write report (No space left on device)", "(Bad file descriptor)", "(Broken pipe)"}));
}

TEST_F(Checksum, LogsAndEmptiesTheErrorQueue)
{
    LogOpenSSLError("SHA256 init failed.");
    ERR_raise(ERR_LIB_PEM, 108);
    LogOpenSSLError("Step.");
    LogOpenSSLError("Again.");
    const std::vector<std::string> log = TakeLog();
    ASSERT_EQ(log.size(), 3U);
    EXPECT_EQ(log[0], "utils.cpp SHA256 init failed. []");
    EXPECT_NE(log[1].find("utils.cpp Step. ["), std::string::npos);
    EXPECT_NE(log[1].find("PEM"), std::string::npos);
    EXPECT_EQ(log[2], "utils.cpp Again. []");
}

}  // namespace opalcrt
