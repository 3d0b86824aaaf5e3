#include "assign/recovery.h"

#include "sandbox.h"

namespace opalcrt
{

class Recovery : public Sandbox
{
protected:
    Recovery() { AddCrt("c"); }
    const std::string folder_ = kStore + "c";
};

TEST_F(Recovery, LeavesACompleteCertificateAlone)
{
    const std::string before = Shell("cat " + folder_ + "/*; ls --full-time " + folder_);
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(TakeLog().empty());
    EXPECT_EQ(Shell("cat " + folder_ + "/*; ls --full-time " + folder_), before);
}

TEST_F(Recovery, MendsACertificateThatLacksAFile)
{
    WriteFile(folder_ + "/cert_info", R"({"is_broken": false, "more": 1})");
    WriteFile(folder_ + "/other", "kept");
    for (const char *file : {"cert.pem", "privkey.pem", "fullchain.pem"}) {
        unlink((folder_ + "/" + file).c_str());
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_TRUE(Logged({"utils.cpp Lack of necessary files in cert dir [" + folder_ + "]", "utils.cpp c is incomplete, start recovering",
                            "utils.cpp Failed to send notification for certificate broken"}));
        EXPECT_EQ(ReadFile(folder_ + "/cert_info"), "{\"is_broken\":true}\n");
        EXPECT_TRUE(CheckAndRecoverCrt("c"));
        EXPECT_TRUE(TakeLog().empty());
    }
    EXPECT_EQ(ReadFile(folder_ + "/other"), "kept");
    EXPECT_EQ(ReadFile(folder_ + "/fullchain.pem"), ReadFile(folder_ + "/cert.pem"));
}

TEST_F(Recovery, MendsWhatIsNoRealFolderAndWhatLacksAKeyTypesFile)
{
    Shell("mv " + folder_ + " /usr/opal/elsewhere; ln -s /usr/opal/elsewhere " + folder_);
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Path not match, maybe bugs or attacked", "Folder not exits [" + folder_ + "]", "c is incomplete"}));
    Shell("rm -r " + folder_);
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Failed to get realpath [2]", "Folder not exits [" + folder_ + "]", "c is incomplete"}));
    EXPECT_TRUE(Exists(folder_ + "/privkey.pem"));

    WriteFile(folder_ + "/renew.json", R"({"key_types": "RSA/ECC"})");
    for (const std::string file : {"RSA-cert.pem", "RSA-fullchain.pem", "RSA-privkey.pem", "ECC-cert.pem", "ECC-fullchain.pem"}) {
        WriteFile(folder_ + "/" + file, "x");
    }
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Lack of necessary files", "c is incomplete", "Lack of necessary files", "c is incomplete"}));
    EXPECT_FALSE(Exists(folder_ + "/ECC-privkey.pem"));
    WriteFile(folder_ + "/ECC-privkey.pem", "x");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(TakeLog().empty());
}

TEST_F(Recovery, RefusesIdsThatInfoDoesNotKnow)
{
    Shell("mkdir " + kStore + "unlisted");
    SetInfo(R"({"c": {}, "number": 5, "..": {}, "c/": {}, "x/../c": {}})");
    for (const std::string id : {"unlisted", "number", "", "..", "c/", "x/../c", "none"}) {
        EXPECT_FALSE(CheckAndRecoverCrt(id)) << id;
        EXPECT_EQ(TakeLog(), std::vector<std::string>{"utils.cpp Invalid cert id: [" + id + "]"});
    }
    EXPECT_EQ(Shell("ls " + kStore + "unlisted"), "");
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    SetInfo("[]");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    SetInfo("");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Invalid cert id: [c]", "Broken [/usr/opal/etc/certificate/_archive/INFO].[0x0300 "}));
}

// A file that cannot be looked at is not a missing one: the key beside it may be good.
TEST_F(Recovery, DoesNotMendWhatItCannotLookAt)
{
    const std::string key = ReadFile(folder_ + "/privkey.pem");
    Shell("cd " + folder_ + "; mv fullchain.pem kept; ln -s fullchain.pem fullchain.pem");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(TakeLog(), (std::vector<std::string>{"utils.cpp Lack of necessary files in cert dir [" + folder_ + "]",
                                                   "utils.cpp Failed to recover certificate for [c]"}));
    EXPECT_EQ(ReadFile(folder_ + "/privkey.pem"), key);
    Shell("mv " + folder_ + " /usr/opal/real; ln -s c " + folder_);
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"Folder not exits [", "Failed to recover certificate for [c]"}));
}

// Each program that a mend runs fails once; the folder must then be one that is mended again, or the old one whole.
TEST_F(Recovery, NeverLooksWholeWhenItWasCutOff)
{
    struct Case {
        const char *program;
        const char *script;
        std::vector<std::string> trail;
        bool keepsChain;
    };
    const std::string fails = "utils.cpp Failed to generate default certificate to recover for [c]";
    const Case cases[] = {
        {"/usr/bin/openssl", "exit 1", {"Error when execute", "genCAKey() failed", "Generate CA key & crt failed", fails}, true},
        {"/usr/bin/openssl", "[ $1 = req ] && exit 1; exec /usr/opal/openssl \"$@\"",
         {"Create CSR failed, command", "genCACsr() failed", "Generate CA key & crt failed", fails}, true},
        {"/usr/bin/openssl", "[ $1 = x509 ] && exit 1; exec /usr/opal/openssl \"$@\"",
         {"Error when execute", "genCACrt() failed", "Generate CA key & crt failed", fails}, false},
        {"/usr/bin/openssl", "case \"$*\" in *CAserial*) exit 1;; esac; exec /usr/opal/openssl \"$@\"",
         {"Error when execute", "Failed to generate cert", "Failed to generate cert set", fails}, false},
        {"/usr/bin/openssl", "case \"$*\" in *c/privkey.pem*2048*) exit 1;; esac; exec /usr/opal/openssl \"$@\"",
         {"Error when execute", "Failed to generate key", "Failed to generate cert set", fails}, false},
        {"/usr/bin/openssl", "case \"$*\" in *server.cfg*) exit 1;; esac; exec /usr/opal/openssl \"$@\"",
         {"Create CSR failed, command", "Failed to generate csr", "Failed to generate cert set", fails}, false},
        {"/usr/bin/openssl", "case \"$*\" in *signkey*) cp /usr/opal/cert.pem ${11};; *) exec /usr/opal/openssl \"$@\";; esac",
         {"Root certificate and key is not matching", "Generate CA key & crt failed", fails}, false},
        {"/usr/bin/openssl", "case \"$*\" in *CAserial*) cp /usr/opal/cert.pem ${11};; *) exec /usr/opal/openssl \"$@\";; esac",
         {"cert and key is not matching.", "Failed to generate cert set", fails}, false},
        {"/bin/cp", ": > $3; exit 1", {"Failed to copy crt to chain crt.", "Failed to generate cert set", fails}, false},
        {"/bin/mkdir", "exit 1", {"Failed to mkdir -p [", "Failed to generate directory for", "genCAKey() failed", fails}, true},
    };
    Shell("cp /usr/bin/openssl " + folder_ + "/cert.pem /usr/opal/");
    for (const Case &test : cases) {
        WriteFile(folder_ + "/fullchain.pem", "old");
        WriteFile(folder_ + "/privkey.pem", "old");
        unlink((folder_ + "/cert.pem").c_str());
        ReplaceProgram(test.program, test.script);
        EXPECT_FALSE(CheckAndRecoverCrt("c")) << test.script;
        RestorePrograms();
        EXPECT_TRUE(Logged(test.trail)) << test.script;
        EXPECT_EQ(Exists(folder_ + "/fullchain.pem"), test.keepsChain) << test.script;
        EXPECT_FALSE(Exists(folder_ + "/cert_info"));
        bool isUnknown = false;
        EXPECT_TRUE(!IsCrtComplete("c", folder_, isUnknown)) << test.script;
    }
    Shell("mkdir -p " + folder_ + "/cert_info.new/x");
    EXPECT_FALSE(CheckAndRecoverCrt("c"));
    EXPECT_TRUE(Logged({"utils.cpp Failed to write cert info [21]", "Failed to recover certificate for [c]"}));
}

TEST_F(Recovery, SyncsTheSetBeforeTheChain)
{
    WriteFile(kStore + "DEFAULT", "c");
    Define("p", {});
    unlink((folder_ + "/privkey.pem").c_str());
    ASSERT_EQ(Run({"opalcrtregister", "p"}, "/usr/bin/strace -f -qq -y -s 300 -o /run/trace -e signal=none "
                                            "-e trace=fsync,unlink,execve").status, 0);
    EXPECT_EQ(Shell("grep -E 'unlink.*fullchain|_archive/c|\"genrsa\"|ssl/.mkcert.serial>|bin/cp' /run/trace | "
                    "sed -E -n -e 's/.*unlink.*fullchain.*/remove chain/p' -e 's/.*fsync.*_archive\\/c(\\/[a-z.-]*)?(_info.new)?>.*/sync \\1/p' "
                    "-e 's/.*genrsa.*\\/([a-z-]*).pem.*/key \\1/p' -e 's/.*cert.serial>.*/sync serial/p' -e 's/.*\"-f\".*/copy/p' | uniq"),
              "key opal-ca-privkey\nremove chain\nsync \nkey privkey\nsync /opal-ca-privkey.pem\nsync /opal-ca-cert.pem\n"
              "sync /privkey.pem\nsync /cert.pem\nsync serial\nsync \ncopy\nsync /fullchain.pem\nsync \nsync /cert\nsync \n");
}

// The listener is the system bus's own; the signal is what an administrator would see.
TEST_F(Recovery, TellsTheSystemBus)
{
    Shell("mkdir -p /run/dbus; /usr/bin/dbus-daemon --system --fork --nopidfile --nosyslog 2>/dev/null; "
          "(/usr/bin/busctl --system monitor --match=\"type='signal',interface='org.opal.Notification'\" > /tmp/heard 2>&1 &) ; "
          "for i in $(seq 100); do grep -q Monitoring /tmp/heard && break; sleep 0.05; done");
    unlink((folder_ + "/cert.pem").c_str());
    EXPECT_TRUE(CheckAndRecoverCrt("c"));
    EXPECT_EQ(Shell("for i in $(seq 100); do grep -q certificate_broken /tmp/heard && break; sleep 0.05; done; "
                    "grep -cE 'Path=/org/opal/Notification +Interface=org.opal.Notification +Member=Event|STRING \"certificate_broken\"' /tmp/heard; "
                    "pkill busctl; pkill dbus-daemon"),
              "2\n");
    EXPECT_FALSE(Logged({"Failed to send notification"}));
}

}  // namespace opalcrt
