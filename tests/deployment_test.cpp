#include "deploy/deployment.h"

#include "deploy/dir_utils.h"
#include "deploy/key_types.h"
#include "sandbox.h"

using namespace opalcrt;

using Deployment = Sandbox;

// What a killed run has left, and real failures of each step: the old folder must be whole at its place or in the backup.
TEST_F(Deployment, MovesAFolderOrLeavesTheOldOne)
{
    struct Case {
        std::string scene;
        bool result;
        const char *tree;
        Trail trail;
    };
    const std::string old = "mkdir s; echo old > s/o; ";
    const char *left = "s.temp/n=new\ns/o=old\n";
    const Case cases[] = {
        {old, true, "s/n=new\n", {}},
        {old + "mkdir s.bak; echo half > s.bak/h", true, "s/n=new\n", {}},
        {"mkdir s.bak; echo old > s.bak/o", true, "s/n=new\n", {}},
        {"mkdir t; ln -s t s", true, "s/n=new\n", {}},
        {"echo file > s", true, "s/n=new\n", {}},
        {"rm -r s.temp; echo file > s.temp", false, "s.temp=file\n", {"dir_utils.cpp /tmp/w/s.temp is not a valid dir"}},
        {old + "replace /bin/rm 'exit 1'", false, left, {"Failed to remove /tmp/w/s.bak [5]"}},
        {old + "replace /bin/cp 'mkdir $3; exit 1'", false, left, {"Failed to copy /tmp/w/s to /tmp/w/s.bak [5]"}},
        {old + "replace /bin/rm 'case $2 in */s) unlink /tmp/w/s/o; exit 1;; esac'", false, "s.bak/o=old\ns.temp/n=new\n",
         {"Failed to remove /tmp/w/s [5]\n", "Failed to remove /tmp/w/s [5]\n"}},
        // The backup is the only whole copy where the folder is less than it, and nothing else.
        {"mkdir s.bak; echo old > s.bak/o; replace /bin/cp 'exit 1'", false, left, {"Failed to copy /tmp/w/s to "}},
        {old + "cp -a s s.bak; echo b > s.bak/b; replace /bin/cp 'exit 1'", true, "s/n=new\n", {}},
        {old + "cp -a s s.bak; replace /bin/cp 'exit 1'", false, left, {"Failed to copy /tmp/w/s to "}},
        {old + "mkdir s.bak; echo older > s.bak/o; touch -r s/o s.bak/o; echo b > s.bak/b; replace /bin/cp 'exit 1'", false, left,
         {"Failed to copy /tmp/w/s to "}},
        {old + "cp -r s s.bak; touch -d 2020-01-01 s.bak/o; echo b > s.bak/b; replace /bin/cp 'exit 1'", false, left,
         {"Failed to copy /tmp/w/s to "}},
        {"mkdir s.bak; mount -t tmpfs test s.bak; replace /bin/rm 'touch /tmp/w/ran'", false, "s.temp/n=new\n",
         {"Failed to move /tmp/w/s.bak to /tmp/w/s [16]"}},
        // A rename fails because the source is a mount point: rolled back.
        {old + "mount -t tmpfs test s.temp", false, left, {"Failed to move /tmp/w/s.temp to /tmp/w/s [16]\n"}},
        {"mount -t tmpfs test s.temp", false, "s.temp/n=new\n", {"Failed to move /tmp/w/s.bak to /tmp/w/s [2]\n"}},
        // A backup that stays is no failure.
        {old + "replace /bin/rm 'case $2 in */s) unlink /tmp/w/s/o; rmdir /tmp/w/s;; *) [ ! -d $2 ];; esac'", true,
         "s.bak/o=old\ns/n=new\n", {"Failed to remove /tmp/w/s.bak [5]"}},
    };
    for (const Case &test : cases) {
        Shell("rm -rf /tmp/w; mkdir -p /tmp/w/s.temp; cd /tmp/w; echo new > s.temp/n; " + test.scene);
        EXPECT_EQ(MoveDirectory("/tmp/w/s.temp", "/tmp/w/s"), test.result) << test.scene;
        EXPECT_EQ(Shell("restore; cd /tmp/w; find . -type f -printf '%P=' -exec cat {} \\; | sort"), test.tree) << test.scene;
        EXPECT_TRUE(Logged(test.trail)) << test.scene;
    }
    EXPECT_TRUE(MoveDirectory("/tmp/w/s", "/tmp/w/s"));
    EXPECT_EQ(Log(), "dir_utils.cpp skip move directory, due to source equals to destination [/tmp/w/s]\n");
}

TEST_F(Deployment, GivesWhatTheModeAsksFor)
{
    const std::string plain = "p web\ncert.pem chain.pem fullchain.pem info opal-ca-cert.pem privkey.pem\n@cert.pem @privkey.pem @fullchain.pem\n";
    const std::string files = "RSA-cert.pem RSA-fullchain.pem RSA-privkey.pem info\n";
    const std::string ecc = "@ECC-cert.pem @ECC-privkey.pem @ECC-fullchain.pem\n";
    const std::string rsa = "@RSA-cert.pem @RSA-privkey.pem @RSA-fullchain.pem\n";
    Check({{"null RSA", "web\n0", {}, plain},
           {"true ''", "web\n0", {}, plain},
           {"true RSA", "web\n0", {}, "p web\n" + files + rsa},
           {"true ECC/RSA", "web\n0", {}, "p web\nECC-cert.pem ECC-fullchain.pem ECC-privkey.pem " + files + ecc + rsa},
           {"true RSA/RSA", "web\n0", {}, "p web\n" + files + rsa + rsa}},
          R"([ -e c/chain.pem ] || { crt c RSA-; crt c ECC-; touch c/chain.pem c/opal-ca-cert.pem; }; mkdir -p $P/p/web.temp/stray
             mode() { echo "{\"key_types\": \"$2\"}" > c/renew.json; definition "[{\"service\": \"web\", \"display_name\": \"x\",
             \"multiple_cert\": $1}]"; }; mode )",
          "opalcrtregister p; ls $P/p",
          R"sh(cd $P/p/web; jq -r '"\(.subscriber) \(.service)"' info; echo $(ls); for f in *.pem; do cmp $f $A/c/$f; done
             jq -r '.certs[] | "\(.cert) \(.key) \(.chain)"' info | sed s,/usr/local/etc/certificate/p/web/,@,g
             stat -c '%a %U' *.pem | grep -v '400 opalweb')sh");
    Shell("rm c/renew.json");
    EXPECT_FALSE(DeployMultipleCrt("c", ServiceObj("web")));
    EXPECT_EQ(Log(), "utils.cpp Empty key types, Failed to setup multiple mode\n");
}

TEST_F(Deployment, ParsesKeyTypes)
{
    const std::vector<KeyType> both = {KeyType::RSA, KeyType::ECC};
    const std::pair<const char *, std::vector<KeyType>> cases[] = {
        {"[]", {}}, {"{\"key_types\": \"\"}", {}}, {"{\"key_types\": [\"RSA\"]}", {}}, {"{\"key_types\": \"RSA/\"}", {KeyType::RSA}},
        {R"({"key_types": "ECC/RSA"})", {KeyType::ECC, KeyType::RSA}}, {R"({"key_types": " RSA\t/\n ECC\u000b"})", both},
        {R"({"key_types": "rsa"})", both}, {R"({"key_types": "E CC/"})", both}, {R"({"key_types": "DSA/ECC"})", {KeyType::ECC}}};
    for (const auto &[renew, types] : cases) {
        Shell(std::string("printf %s '") + renew + "' > c/renew.json");
        EXPECT_EQ(GetCrtKeyTypes("c"), types) << renew;
    }
}

// Each row breaks a step. "between" is the mend of another process between two copies: whatever was replaced, also by the
// same bytes, half of each must not be published.
TEST_F(Deployment, LeavesTheOldFolderWhenAStepFails)
{
    const std::string failed = "Failed to DeployDefCrt for p\n1";
    const Trail copy = {"utils.cpp Failed to copy cert files from $A/c to $P/p/web.temp\n", "utils.cpp Failed to set cert [c] for [{"};
    const std::string old = "web\nold\n";
    Check({{"sed -i s/opalweb/nobody-knows/ $D/p.cfg", failed, {"utils.cpp Failed to OPALUserGetUGID [nobody-knows].[0x2A00 "}, old},
           {"mkdir /tmp/certificate_p_web.lock", failed, {"utils.cpp Failed to lock [/tmp/certificate_p_web.lock]"}, old},
           {"touch $P/p/web.temp; replace /bin/rm '[ ! -f $2 ]'", failed,
            {"utils.cpp Failed to clean $P/p/web.temp\n", "utils.cpp Failed to remove $P/p/web.temp\n"}, old},
           {"mkdir $P/p/web.bak; mount -t tmpfs test $P/p/web.bak", failed,
            {"dir_utils.cpp Failed to remove $P/p/web.bak [5]\n", "utils.cpp Failed to move $P/p/web.temp to $P/p/web\n"}, old},
           {"replace /bin/cp 'case $1 in -arp) mkdir $3; touch $3/half; exit 1;; esac; exec $REAL \"$@\"'", failed,
            {"dir_utils.cpp Failed to copy $P/p/web to $P/p/web.bak ["}, old},
           {"rm c/chain.pem; ln -s chain.pem c/chain.pem", failed, copy, old},
           {"rm c/fullchain.pem; mkdir c/fullchain.pem", failed, {"Failed to copy [$A/c/fullchain.pem].[0x0601 ", copy[0]}, old},
           {"replace /bin/cp 'rm $3'", failed, {"utils.cpp Failed to chmod chown. [$P/p/web.temp/cert.pem]", copy[0]}, old},
           {"between 'mkdir -p ${3%/*}/info.new/x'", failed, {"Failed to write info to service certificate folder [21]"}, old},
           {"between 'touch $C/cert.pem'", failed, copy, old},
           {"between 'cp $C/privkey.pem $C/new; mv $C/new $C/privkey.pem'", failed, copy, old},
           {"between 'rm $C/chain.pem'", failed, copy, old},
           {"between 'rm $C/opal-ca-cert.pem'", failed, copy, old},
           {"replace /bin/cp 'case $1 in -f) stat -c %a $3 >> /tmp/modes;; esac; exec $REAL \"$@\"'; chmod 0666 c/*", "0", {}, "400\nweb\n"}},
          R"(rm -rf c /tmp/*.lock $P/p; crt c; touch c/chain.pem c/opal-ca-cert.pem; mkdir -p $P/p/web; echo old > $P/p/web/file
             between() { replace /bin/cp "C=$A/c; cat \$2 > \$3; case \$2 in */fullchain.pem) $1;; esac"; }; define p web; )",
          "opalcrtregister p", "{ restore; sort -u /tmp/modes; cd $P/p; rm -f web.temp; rmdir web.bak; ls; cat web/file; } 2>/dev/null");
}

// What must be on the disk before what: the order of the calls is all that a test can see of it.
TEST_F(Deployment, SyncsBeforeItRemovesOrRenames)
{
    Shell("touch c/chain.pem c/opal-ca-cert.pem; define p web; opalcrtregister p; define p web");
    Expect("strace -f -qq -y -s 300 -o /run/trace -e signal=none -e trace=fsync,rename,execve opalcrtregister p", "0");
    // Only what concerns the folder of the service, in short words, repeated words once.
    EXPECT_EQ(Shell("sed -E -n -e 's/.*fsync\\([0-9]+<.*p\\/web\\.temp\\/([a-z-]*)[.a-z]*>.*/sync staged \\1/p' -e "
                    "'s/.*fsync\\([0-9]+<.*p\\/web\\.temp>.*/sync staging/p' -e 's/.*fsync\\([0-9]+<.*p\\/web\\.bak.*/sync backup/p' -e "
                    "'s/.*fsync\\([0-9]+<.*certificate\\/p>.*/sync parent/p' -e 's/.*execve.*cp\", \"-arp\".*/back up/p' -e "
                    "'s/.*execve.*rm\", \"-rf\", \"[^\"]*\\/(web[.a-z]*)\".*/remove \\1/p' -e 's/.*rename\\(.*web.temp\", .*/swap/p' "
                    "/run/trace | uniq; grep -c 'fsync.*web.bak' /run/trace"),
              "sync parent\nsync staged cert\nsync staged privkey\nsync staged fullchain\nsync staged chain\n"
              "sync staged opal-ca-cert\nsync staged info\nsync staging\nremove web.bak\nback up\nsync backup\n"
              "sync parent\nremove web\nswap\nsync parent\nremove web.bak\n7\n");
    // When the last of them fails, the new folder stands and the backup stays, until the next run.
    Expect("define p web; fault fsync $(grep fsync /run/trace | grep -n 'certificate/p>' | tail -n 1 | cut -d: -f1) opalcrtregister p; "
           "ls $P/p; define p web; opalcrtregister p; ls $P/p", "Failed to DeployDefCrt for p\nweb\nweb.bak\nweb\n0",
           {"dir_utils.cpp Failed to move $P/p/web.temp to $P/p/web [5]", "Failed to set cert [c] for [{"});
}
