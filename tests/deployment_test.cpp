#include "deploy/deployment.h"

#include "sandbox.h"

namespace opalcrt
{

namespace
{

const std::string kWebFolder = kPackages + "p/web";

// Names with modes and owners, and what `info` lists.
std::string Look(const std::string &folder)
{
    std::string seen = Shell("cd " + folder + " && stat -c '%n %a %U' *");
    const Json::Value info = ReadJson(folder + "/info");
    for (const Json::Value &element : info["certs"]) {
        seen += element["cert"].asString() + " " + element["key"].asString() + " " + element["chain"].asString() + "\n";
    }
    return seen;
}

}  // namespace

class Deployment : public Sandbox
{
protected:
    Deployment()
    {
        AddCrt("c", {"", "RSA-", "ECC-"});
        WriteFile(kStore + "c/chain.pem", "chain");
        WriteFile(kStore + "c/opal-ca-cert.pem", "ca");
    }
    void SetKeyTypes(const std::string &text) { WriteFile(kStore + "c/renew.json", R"({"key_types": ")" + text + "\"}"); }
};

TEST_F(Deployment, GivesWhatTheModeAsksFor)
{
    const std::string plain =
        "cert.pem 400 opalweb\nchain.pem 400 opalweb\nfullchain.pem 400 opalweb\ninfo 644 root\n"
        "opal-ca-cert.pem 400 opalweb\nprivkey.pem 400 opalweb\n/usr/local/etc/certificate/p/web/cert.pem "
        "/usr/local/etc/certificate/p/web/privkey.pem /usr/local/etc/certificate/p/web/fullchain.pem\n";
    const auto files = [](const std::string &prefix) {
        return prefix + "cert.pem 400 opalweb\n" + prefix + "fullchain.pem 400 opalweb\n" + prefix + "privkey.pem 400 opalweb\n";
    };
    const auto entry = [](const std::string &prefix) {
        return kWebFolder + "/" + prefix + "cert.pem " + kWebFolder + "/" + prefix + "privkey.pem " + kWebFolder + "/" +
               prefix + "fullchain.pem\n";
    };
    struct Case {
        const char *more;
        const char *keyTypes;
        std::string seen;
    };
    const Case cases[] = {
        {"{}", "RSA", plain},
        {R"({"multiple_cert": false})", "RSA", plain},
        {R"({"multiple_cert": "true"})", "RSA", plain},
        {R"({"multiple_cert": true})", "", plain},
        {R"({"multiple_cert": true})", "RSA", files("RSA-") + "info 644 root\n" + entry("RSA-")},
        {R"({"multiple_cert": true})", "ECC/RSA",
         files("ECC-") + files("RSA-") + "info 644 root\n" + entry("ECC-") + entry("RSA-")},
        {R"({"multiple_cert": true})", "RSA/RSA", files("RSA-") + "info 644 root\n" + entry("RSA-") + entry("RSA-")},
    };
    for (const Case &test : cases) {
        SetKeyTypes(test.keyTypes);
        WriteFile(kWebFolder + ".temp/stray", "from a killed run");
        EXPECT_TRUE(DeployServiceCrt("c", ServiceObj("p", "web", test.more))) << test.more << test.keyTypes;
        EXPECT_EQ(Look(kWebFolder), test.seen) << test.more << test.keyTypes;
        EXPECT_EQ(Shell("ls " + kPackages + "p"), "web\n");
    }
    EXPECT_EQ(ReadJson(kWebFolder + "/info")["subscriber"], "p");
    EXPECT_EQ(ReadFile(kWebFolder + "/RSA-privkey.pem"), ReadFile(kStore + "c/RSA-privkey.pem"));
    unlink((kStore + "c/renew.json").c_str());
    EXPECT_FALSE(DeployMultipleCrt("c", ServiceObj("p", "web")));
    EXPECT_TRUE(Logged({"utils.cpp Empty key types, Failed to setup multiple mode"}));
}

TEST_F(Deployment, LeavesTheOldFolderWhenAStepFails)
{
    struct Case {
        const char *breakIt;
        const char *mendIt;
        const char *owner;
        std::vector<std::string> trail;
    };
    const std::string copy = "utils.cpp Failed to copy cert files from " + kStore + "c to " + kWebFolder + ".temp";
    const Case cases[] = {
        {"true", "true", "nobody-knows", {"utils.cpp Failed to OPALUserGetUGID [nobody-knows].[0x2A00 "}},
        {"mv $C $C.away", "mv $C.away $C", "opalweb", {"_archive/c] doesn't exist.[0x0100 "}},
        {"rm $L; mkdir $L", "rmdir $L", "opalweb",
         {"Failed to lock [/tmp/certificate_p_web.lock]"}},
        {"touch $W.temp", "rm -f $W.temp", "opalweb", {"dir_utils.cpp Failed to create", "utils.cpp Failed to clean " + kWebFolder + ".temp"}},
        {"mv $C/privkey.pem /tmp", "mv /tmp/privkey.pem $C", "opalweb", {"Failed to copy [", copy}},
        {"mv $C/chain.pem /tmp; ln -s chain.pem $C/chain.pem", "mv -f /tmp/chain.pem $C", "opalweb", {copy}},
        {"mkdir $W.bak; mount -t tmpfs none $W.bak", "umount $W.bak; rmdir $W.bak", "opalweb",
         {"dir_utils.cpp Failed to remove " + kWebFolder + ".bak [5]", "utils.cpp Failed to move "}},
    };
    const std::string names = "C=" + kStore + "c W=" + kWebFolder + " L=/tmp/certificate_p_web.lock; ";
    ASSERT_TRUE(DeployServiceCrt("c", ServiceObj("p", "web")));
    const std::string before = Shell("cat " + kWebFolder + "/*");
    for (const Case &test : cases) {
        Json::Value service = ServiceObj("p", "web");
        service["owner"] = test.owner;
        ASSERT_EQ(Shell(names + test.breakIt), "");
        EXPECT_FALSE(DeployServiceCrt("c", service)) << test.breakIt;
        EXPECT_TRUE(Logged(test.trail)) << test.breakIt;
        ASSERT_EQ(Shell(names + test.mendIt), "") << test.breakIt;
        EXPECT_EQ(Shell("cat " + kWebFolder + "/*"), before) << test.breakIt;
        EXPECT_EQ(Shell("ls " + kPackages + "p"), "web\n") << test.breakIt;
    }
    EXPECT_TRUE(DeployServiceCrt("c", ServiceObj("p", "web")));
}

TEST_F(Deployment, FailsWhenInfoCannotBeWritten)
{
    ASSERT_TRUE(DeployServiceCrt("c", ServiceObj("p", "web")));
    ReplaceProgram("/bin/cp", "cat $2 > $3; case $2 in *opal-ca*) mkdir -p ${3%/*}/info.new/x;; esac");
    EXPECT_FALSE(DeployServiceCrt("c", ServiceObj("p", "web")));
    EXPECT_TRUE(Logged({"utils.cpp Failed to write info to service certificate folder [21]"}));
    EXPECT_EQ(Shell("ls " + kPackages + "p"), "web\n");
}

// The mend of another process falls between two copies: whatever was replaced, also by the same bytes.
TEST_F(Deployment, PublishesNoMixtureOfTwoGenerations)
{
    for (const std::string change : {"touch $C/cert.pem", "install $C/privkey.pem $C/new; mv $C/new $C/privkey.pem",
                                      "echo more >> $C/fullchain.pem", "unlink $C/chain.pem", "unlink $C/opal-ca-cert.pem"}) {
        ReplaceProgram("/bin/cp", "cat $2 > $3; C=" + kStore + "c; case $2 in */fullchain.pem) " +
                                      change + ";; esac");
        EXPECT_FALSE(DeployServiceCrt("c", ServiceObj("p", "web"))) << change;
        EXPECT_TRUE(Logged({"Failed to copy cert files from"})) << change;
        EXPECT_FALSE(Exists(kWebFolder)) << change;
        RestorePrograms();
        WriteFile(kStore + "c/chain.pem", "chain");
        WriteFile(kStore + "c/opal-ca-cert.pem", "ca");
    }
}

// What must be on the disk before what: the order of the calls is all that a test can see of it.
TEST_F(Deployment, SyncsBeforeItRemovesOrRenames)
{
    WriteFile(kStore + "DEFAULT", "c");
    Define("p", {"web"});
    ASSERT_EQ(Run({"opalcrtregister", "p"}).status, 0);
    Define("p", {"web"});
    ASSERT_EQ(Run({"opalcrtregister", "p"}, "/usr/bin/strace -f -qq -y -s 300 -o /run/trace -e signal=none "
                                            "-e trace=fsync,rename,execve").status, 0);
    // Only what concerns the folder of the service, in short words, repeated words once.
    const std::string order = Shell(
        "sed -E -n -e 's/.*fsync\\([0-9]+<.*p\\/web\\.temp\\/([a-z-]*)[.a-z]*>.*/sync staged \\1/p' -e "
        "'s/.*fsync\\([0-9]+<.*p\\/web\\.temp>.*/sync staging/p' -e 's/.*fsync\\([0-9]+<.*p\\/web\\.bak.*/sync backup/p' -e "
        "'s/.*fsync\\([0-9]+<.*certificate\\/p>.*/sync parent/p' -e 's/.*execve.*cp\", \"-arp\".*/back up/p' -e "
        "'s/.*execve.*rm\", \"-rf\", \"[^\"]*\\/(web[.a-z]*)\".*/remove \\1/p' -e 's/.*rename\\(.*web.temp\", .*/swap/p' "
        "/run/trace | uniq");
    EXPECT_EQ(order,
              "sync parent\nsync staged cert\nsync staged privkey\nsync staged fullchain\nsync staged chain\n"
              "sync staged opal-ca-cert\nsync staged info\nsync staging\nremove web.bak\nback up\nsync backup\n"
              "sync parent\nremove web\nswap\nsync parent\nremove web.bak\n");
    EXPECT_EQ(Shell("grep -c 'fsync.*web.bak' /run/trace"), "7\n");
}

TEST_F(Deployment, SaysFalseAndKeepsTheBackupWhenTheLastSyncFails)
{
    WriteFile(kStore + "DEFAULT", "c");
    Define("p", {"web"});
    ASSERT_EQ(Run({"opalcrtregister", "p"}).status, 0);
    Define("p", {"web"});
    ASSERT_EQ(Run({"opalcrtregister", "p"}, "/usr/bin/strace -qq -y -o /run/trace -e signal=none -e trace=fsync").status, 0);
    const int last = std::stoi(Shell("grep -n 'fsync.*certificate/p>' /run/trace | tail -n 1 | cut -d: -f1"));
    Define("p", {"web"});
    EXPECT_EQ(RunWithFault({"opalcrtregister", "p"}, "fsync", "error=EIO", last).status, 1);
    EXPECT_TRUE(Logged({"dir_utils.cpp Failed to move " + kWebFolder + ".temp to " + kWebFolder + " [5]", "Failed to set cert [c] for [{"}));
    EXPECT_EQ(Shell("ls " + kPackages + "p"), "web\nweb.bak\n");
    Define("p", {"web"});
    EXPECT_EQ(Run({"opalcrtregister", "p"}).status, 0);
    EXPECT_EQ(Shell("ls " + kPackages + "p"), "web\n");
}

}  // namespace opalcrt
