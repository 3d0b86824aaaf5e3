#include "assign/recovery.h"

#include "sandbox.h"

using namespace opalcrt;

using Recovery = Sandbox;

const std::string kLacks = "utils.cpp Lack of necessary files in cert dir [$A/c]\n";
const std::string kStart = "utils.cpp c is incomplete, start recovering\n";

TEST_F(Recovery, MendsACertificateThatLacksAFileAndLeavesACompleteOneAlone)
{
    const std::string sums = "cd c; sha256sum *; ls --full-time";
    Shell("echo '{\"is_broken\": false, \"more\": 1}' > c/cert_info; echo kept > c/other");
    for (const char *file : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        Shell("rm c/" + std::string(file));
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_EQ(Log(), kLacks + kStart + "utils.cpp Failed to send notification for certificate broken\n");
        EXPECT_EQ(Shell("cd c; cat cert_info other; cmp cert.pem fullchain.pem"), "{\"is_broken\":true}\nkept\n");
        const std::string before = Shell(sums);
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_EQ(Log() + Shell(sums), before);
    }
}

TEST_F(Recovery, MendsWhatIsNoRealFolderAndWhatLacksAKeyTypesFile)
{
    for (const char *scene : {"mv c /usr/opal/x; ln -s /usr/opal/x c", "rm -r c"}) {
        Shell(scene);
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_TRUE(Logged({"utils.cpp Path not match, maybe bugs or attacked\nutils.cpp Folder not exits [$A/c]\n" + kStart})) << scene;
    }
    Shell("cd c; echo '{\"key_types\": \"RSA/ECC\"}' > renew.json; touch RSA-cert.pem RSA-fullchain.pem RSA-privkey.pem ECC-cert.pem ECC-fullchain.pem");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({kLacks + kStart, kLacks + kStart}));
    EXPECT_EQ(Shell("touch c/ECC-privkey.pem"), "");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Log(), "");
}

TEST_F(Recovery, RefusesIdsThatInfoDoesNotKnowAndWhatItCannotLookAt)
{
    Shell("mkdir unlisted; echo '{\"c\": {}, \"number\": 5, \"..\": {}, \"c/\": {}, \"x/../c\": {}, \"\": {}}' > INFO");
    for (const std::string id : {"unlisted", "number", "", "..", "c/", "x/../c", "none"}) {
        EXPECT_FALSE(CheckAndRecoverCrt(id)) << id;
        EXPECT_EQ(Log(), "utils.cpp Invalid cert id: [" + id + "]\n");
    }
    // A file that cannot be looked at is not a missing one: the key beside it may be good.
    EXPECT_EQ(Shell("ls unlisted; cp c/privkey.pem /tmp; cd c; mv fullchain.pem kept; ln -s fullchain.pem fullchain.pem"), "");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Log(), kLacks + "utils.cpp Failed to recover certificate for [c]\n");
    Expect("rm c/fullchain.pem; mv c/kept c/fullchain.pem; define p web; fault readlink 4 opalcrtregister p; "
           "cmp c/privkey.pem /tmp/privkey.pem", "Failed to DeployDefCrt for p\n0",
           {"Failed to get realpath [5]", "Folder not exits [$A/c]", "Failed to recover certificate for [c]"});
    EXPECT_EQ(Shell("cmp c/privkey.pem /tmp/privkey.pem; mv c /usr/opal/real; ln -s c c"), "");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Folder not exits [$A/c]\nutils.cpp Failed to recover certificate for [c]\n"}));
}

// Each program that a mend runs fails once; the folder must then be one that is mended again, or the old one whole.
TEST_F(Recovery, NeverLooksWholeWhenItWasCutOff)
{
    const std::string failed = "Failed to DeployDefCrt for p\n1";
    const std::string end = "utils.cpp Failed to generate default certificate to recover for [c]\n";
    const std::string ca = "mkcert.cpp Generate CA key & crt failed\n" + end;
    const std::string set = "mkcert.cpp Failed to generate cert set\n" + end;
    Check({{"ssl '*' 'exit 1'", failed, {"Error when execute\nmkcert.cpp genCAKey() failed\n" + ca}, "fullchain.pem\n"},
           {"ssl 'req*' 'exit 1'", failed, {"Create CSR failed, command\nmkcert.cpp genCACsr() failed\n" + ca}, "fullchain.pem\n"},
           {"ssl 'x509*' 'exit 1'", failed, {"Error when execute\nmkcert.cpp genCACrt() failed\n" + ca}},
           {"ssl '*CAserial*' 'exit 1'", failed, {"Error when execute\nmkcert.cpp Failed to generate cert\n" + set}},
           {"ssl '*c/privkey.pem*2048*' 'exit 1'", failed, {"Error when execute\nmkcert.cpp Failed to generate key\n" + set}},
           {"ssl '*server.cfg*' 'exit 1'", failed, {"Create CSR failed, command\nmkcert.cpp Failed to generate csr\n" + set}},
           {"ssl '*signkey*' 'cp /tmp/other.pem ${11}'", failed, {"Root certificate and key is not matching\n" + ca}},
           {"ssl '*CAserial*' 'cp /tmp/other.pem ${11}'", failed, {"mkcert.cpp cert and key is not matching.\n" + set}},
           {"replace /bin/cp ': > $3; exit 1'", failed, {"mkcert.cpp Failed to copy crt to chain crt.\n" + set}},
           {"replace /bin/mkdir 'exit 1'", failed, {"mkcert.cpp Failed to mkdir -p [$A/c] (5)\n", ca}, "fullchain.pem\n"},
           {"mkdir -p c/cert_info.new/x", failed, {"utils.cpp Failed to write cert info [21]\n"}, "fullchain.pem\n"}},
          R"(restore; cp c/cert.pem /tmp/other.pem 2>/dev/null; rm -rf c; mkdir c; echo old | tee c/fullchain.pem > c/privkey.pem; define p
             ssl() { replace /usr/bin/openssl "case \"\$*\" in $1) $2;; *) exec \$REAL \"\$@\";; esac"; }; )",
          "opalcrtregister p", "ls c | grep fullchain");
}

TEST_F(Recovery, TellsOfAMendThatWasKilledOnceItsFilesStood)
{
    Shell("echo '{\"cert_id\": \"c\"}' > RECOVERING; touch c/cert_info.new");
    Shell("flock /tmp/opal_cert_recover.lock sleep 2 >/dev/null 2>&1 & sleep 0.3");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));  // Somebody is at it.
    EXPECT_EQ(Log() + Shell("flock /tmp/opal_cert_recover.lock ls c"), "cert.pem\ncert_info.new\nfullchain.pem\nprivkey.pem\n");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Log(), "utils.cpp Failed to send notification for certificate broken\n");
    EXPECT_EQ(Shell("ls . c; cat c/cert_info"), ".:\nDEFAULT\nINFO\nSERVICES\nc\n\nc:\ncert.pem\ncert_info\nfullchain.pem\nprivkey.pem\n{\"is_broken\":true}\n");
}

TEST_F(Recovery, KeepsANoteOnlyOfAMendThatIsNotEndedAndToldOf)
{
    // A mend that failed is over: a copy that an administrator brings back is not broken.
    Expect("cp -a c /tmp/copy; rm c/cert.pem; define p; replace /usr/bin/openssl 'exit 1'; opalcrtregister p; restore; ls RECOVERING 2>&1; "
           "cp -a /tmp/copy/. c; define p; opalcrtregister p; ls c", "Failed to DeployDefCrt for p\n"
           "ls: cannot access 'RECOVERING': No such file or directory\ncert.pem\nfullchain.pem\nprivkey.pem\n0");
    for (const char *gone : {"none", "../../etc", ""}) {
        Shell("echo '{\"cert_id\": \"" + std::string(gone) + "\"}' > RECOVERING");
        Log();
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_EQ(Log() + Shell("ls"), "DEFAULT\nINFO\nSERVICES\nc\n") << gone;
    }
    // The next mend waits for the one that is killed, and tells of it before its own note replaces the other.
    Shell("crt x; rm c/cert.pem; (flock 9; sleep 0.5; echo '{\"cert_id\": \"x\"}' > RECOVERING) 9> /tmp/opal_cert_recover.lock > /dev/null & sleep 0.2");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Shell("cat c/cert_info x/cert_info"), "{\"is_broken\":true}\n{\"is_broken\":true}\n");
    // One that cannot be noted is done all the same.
    Log();
    Shell("mkdir RECOVERING; rm c/cert.pem");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"utils.cpp Failed to write $A/RECOVERING [21]\n"}));
}

TEST_F(Recovery, SyncsTheSetBeforeTheChain)
{
    Shell("define p; rm c/privkey.pem");
    Expect("strace -f -qq -y -s 300 -o /run/trace -e signal=none -e trace=fsync,unlink,rename,execve opalcrtregister p", "0");
    EXPECT_EQ(Shell("grep -E 'unlink.*fullchain|_archive/c|\"genrsa\"|ssl/.mkcert.serial>|bin/cp' /run/trace | "
                    "sed -E -n -e 's/.*unlink.*fullchain.*/remove chain/p' -e 's/.*fsync.*_archive\\/c(\\/[a-z.-]*)?(_info.new)?>.*/sync \\1/p' "
                    "-e 's/.*rename.*\\/([a-z.]*)\", .*\\/([a-z._]*)\".*/\\1 to \\2/p' "
                    "-e 's/.*genrsa.*\\/([a-z-]*).pem.*/key \\1/p' -e 's/.*cert.serial>.*/sync serial/p' -e 's/.*\"-f\".*/copy/p' | uniq"),
              "key opal-ca-privkey\nremove chain\nsync \nkey privkey\nsync /opal-ca-privkey.pem\nsync /opal-ca-cert.pem\n"
              "sync /privkey.pem\nsync /cert.pem\nsync serial\nsync \nprivkey.pem to privkey.pem.held\nsync \ncopy\nsync /fullchain.pem\nsync \n"
              "privkey.pem.held to privkey.pem\nsync \nsync /cert\nsync \n");
}

// The listener is the system bus's own; the signal is what an administrator would see.
TEST_F(Recovery, TellsTheSystemBus)
{
    Shell("mkdir -p /run/dbus; dbus-daemon --system --fork --nopidfile --nosyslog 2>/dev/null; rm c/cert.pem; "
          "(busctl --system monitor --match=\"type='signal',interface='org.opal.Notification'\" > /tmp/heard 2>&1 &) ; "
          "for i in $(seq 100); do grep -q Monitoring /tmp/heard && break; sleep 0.05; done");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Log(), kLacks + kStart);
    EXPECT_EQ(Shell("for i in $(seq 100); do grep -q certificate_broken /tmp/heard && break; sleep 0.05; done; grep -cE 'Path=/org/opal/Notification "
                    "+Interface=org.opal.Notification +Member=Event|STRING \"certificate_broken\"' /tmp/heard; pkill busctl; pkill dbus-daemon"), "2\n");
}
