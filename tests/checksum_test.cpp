#include <openssl/err.h>

#include "checksum/openssl_error.h"
#include "common/log.h"
#include "sandbox.h"

using namespace opalcrt;

using Checksum = Sandbox;

TEST_F(Checksum, ReportsEveryServiceOfEveryCertificate)
{
    // The fingerprint as the openssl program shows it, in our notation.
    const std::string print = "openssl x509 -noout -fingerprint -sha256 | cut -d= -f2 | tr -d ':\\n' | tr A-F a-f";
    const std::string b = Shell("crt b; <b/cert.pem " + print);
    const std::string c = Shell("<c/cert.pem " + print);
    const std::string report = "[{\"checksum\":\"" + b + "\",\"service\":\"one\",\"subscriber\":\"ü\"},{\"checksum\":\"" + b +
                               "\",\"service\":[1],\"subscriber\":null},{\"checksum\":\"" + c + "\",\"service\":\"web\",\"subscriber\":\"p\"}]\n";
    Shell(R"({ echo some text; cat c/cert.pem b/cert.pem; } > x; mv x c/cert.pem; chmod 0444 */cert.pem; cp $(which opalcrtchecksum) /usr/opal
             echo '{"c": {"services": [{"service": "web", "subscriber": "p"}]}, "x": {"services": []},
             "b": {"services": [{"service": "one", "subscriber": "\u00fc", "owner": "x"}, {"service": [1]}]}}' > INFO)");
    EXPECT_EQ(b.size(), 64U);
    EXPECT_EQ(Shell("OPENSSL_CONF=/etc/passwd opalcrtchecksum; setpriv --reuid=opalmail --clear-groups /usr/opal/opalcrtchecksum"),
              report + report);
}

TEST_F(Checksum, PrintsNothingWhenAnythingIsWrong)
{
    const Trail format = {"utils.cpp Incorrect format for $A/INFO\n"};
    Check({{"> INFO", "1", {"utils.cpp Open $A/INFO failed. Bad message"}},
           {"rm INFO", "1", {"utils.cpp Open $A/INFO failed. No such file or directory"}},
           {"echo [] > INFO", "1", format},
           {"echo '{\"c\": 5}' > INFO", "1", format},
           {"echo '{\"c\": {\"services\": {}}}' > INFO", "1", format},
           {"echo '{\"c\": {\"services\": [{}, \"s\"]}}' > INFO", "1", format},
           {"sed -i 's|c|../_archive/c|' INFO", "1", {"utils.cpp Invalid path for $A/c/cert.pem, $A/../_archive/c/cert.pem.\n"}},
           {"mv c/cert.pem c/x", "1", {"utils.cpp Realpath $A/c/cert.pem failed. No such file or directory"}},
           {"mv c/cert.pem c/x; ln -s x c/cert.pem", "1", {"utils.cpp Invalid path for $A/c/x, $A/c/cert.pem.\n"}},
           {"cp c/privkey.pem c/cert.pem", "1", {"utils.cpp Read X509 failed. ["}},
           {"export LD_LIBRARY_PATH=/tmp/l; mkdir -p /tmp/l; : > /tmp/l/so.3", "1",
            {"utils.cpp Failed to load so.3 [/tmp/l/so.3: file too short]\n"}},
           {"rm c/cert.pem; mkfifo c/cert.pem", "1", {"utils.cpp Open $A/c/cert.pem failed. Invalid argument"}}},
          "rm -rf c; crt c; echo '{\"c\": {\"services\": [{}]}}' > INFO; ", "timeout 5 opalcrtchecksum");
}

TEST_F(Checksum, FailsWhenNobodyTakesTheReport)
{
    Expect("opalcrtchecksum > /dev/full; echo $?; opalcrtchecksum >&-; echo $?; (sleep 0.2; opalcrtchecksum; echo $? >&2) | true; "
           "opalcrtunregister x <&- >&-", "1\n1\n1\n1",
           {"opalcrtregister.cpp Failed to write report (No space left on device)", "(Bad file descriptor)", "(Broken pipe)"});
}

TEST_F(Checksum, LogsAndEmptiesTheErrorQueueAndCutsLongLines)
{
    ASSERT_TRUE(true);
    LogOpenSSLError("SHA256 init failed.");
    ERR_raise(ERR_LIB_PEM, 108);
    LogOpenSSLError("Step.");
    LogOpenSSLError("Again.");
    EXPECT_TRUE(Logged({"utils.cpp SHA256 init failed. []\n", "utils.cpp Step. [", "PEM", "utils.cpp Again. []\n"}));

    constexpr const char *LOG_SOURCE = "utils.cpp";
    std::string text = "u";
    while (text.size() < 20000) {
        text += "ü";
    }
    errno = ENOSPC;
    LOG_ERROR("Failed [%s] to [%s] %m", ShortenForLog(text).c_str(), "INFO");
    EXPECT_EQ(errno, ENOSPC);
    LOG_ERROR("%s] here", text.c_str());
    std::string log = Log();
    EXPECT_TRUE(log.ends_with("üü] here\n"));
    EXPECT_LT(log.size(), 16300U);
    log.erase(log.find('\n'));
    EXPECT_TRUE(log.ends_with("ü] to [INFO] No space left on device"));
    EXPECT_GT(log.size(), 5900U);
}
