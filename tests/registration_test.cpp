#include <cstring>

#include "sandbox.h"

using namespace opalcrt;

using Registration = Sandbox;

const std::string kInit = "Failed to init registerer\n1";
const std::string kPrepare = "Failed to prepare services\n1";
const std::string kAppend = "Failed to append register services\n1";
const std::string kDeploy = "Failed to DeployDefCrt for p\n1";

TEST_F(Registration, GivesEveryServiceItsFolderAndEntersItInBothBooks)
{
    Expect("define p web mail; umask 0777; opalcrtregister p", "0",
           {"opalcrtregister.cpp Register certificate for p/web(pkg)\n", "Register certificate for p/mail(pkg)\n",
            "utils.cpp Reload opalrelayd failed."});
    EXPECT_EQ(Shell("ls $D; books; jq -cS .[1] SERVICES; [ \"$(jq -S . SERVICES)\" = \"$(jq -S .c.services INFO)\" ] || echo no; "
                    "cd $P; find . -mindepth 1 -printf '%P %m %u:%g\\n' | sed s/mail/web/ | sort | uniq -c | sed 's/^ *//'"),
              "list: p/web p/mail info: c: p/web p/mail "
              R"({"display_name":"The mail","isPkg":true,"owner":"opalweb","service":"mail","subscriber":"p"})"
              "\n1 p 755 root:root\n2 p/web 755 root:root\n2 p/web/cert.pem 400 opalweb:opalweb\n"
              "2 p/web/fullchain.pem 400 opalweb:opalweb\n2 p/web/info 644 root:root\n2 p/web/privkey.pem 400 opalweb:opalweb\n");
}

TEST_F(Registration, TakesTheServicesThatAreAskedFor)
{
    const std::string none = "list: info: c: ";
    const std::string web = "list: p/web info: c: p/web [\"W\",null,null,null]\n";
    const std::string mail = "list: p/mail info: c: p/mail [\"M\",\"i\",true,null]\n";
    const std::string both = "list: p/web p/mail info: c: p/web p/mail [\"W\",null,null,null]\n[\"M\",\"i\",true,null]\n";
    Check({{R"(definition "[$W, $M]"; opalcrtregister p)", "0", {}, both},
           {R"(definition "[$W, $M]"; opalcrtregister p mail)", "0", {}, mail},
           {R"(definition "[$W, $M]"; opalcrtregister p '')", "0", {}, both},
           {R"(definition "[$W, $M]"; opalcrtregister p other)", "0", {}, none},
           {R"(definition "[$W, $M], \"service\": \"mail\""; opalcrtregister p)", "0", {}, mail},
           {R"(definition "[$W, $M], \"service\": \"mail\""; opalcrtregister p web)", "0", {}, web},
           {R"(definition "[$W, {\"service\": 1}]"; opalcrtregister p web)", "0", {}, web},
           {R"(definition "[{\"service\": 1}, $W]"; opalcrtregister p web)", kPrepare, {"Bad service config: {\"service\":1}\n"}, none},
           {R"(definition "[$W, {\"service\": \"x\"}]"; opalcrtregister p)", kPrepare, {"Bad service config: {"}, none},
           {R"(definition "[$W, \"mail\"]"; opalcrtregister p)", kPrepare, {"opalcrtregister.cpp Bad service config: \"mail\"\n"}, none},
           {R"(definition {}; opalcrtregister p)", kPrepare, {"opalcrtregister.cpp Invalid config: {"}, none}},
          R"(empty; W='{"service": "web", "display_name": "W", "display_name_i18n": 5, "multiple_cert": "yes"}'
             M='{"service": "mail", "display_name": "M", "display_name_i18n": "i", "user_setable": true}'; )",
          "", "ls $D; books; jq -c '.[] | [.display_name, .display_name_i18n, .user_setable, .multiple_cert]' SERVICES");
}

TEST_F(Registration, RefusesBadDefinitionsAndRemovesThem)
{
    std::vector<Row> rows = {
        {"rm p.cfg", kInit, {"opalcrtregister.cpp Failed to get p.cfg\n"}},
        {"sed -i 's|opalweb||' p.cfg", kInit, {"Failed to init, [0x0D00 opalcrtregister.cpp:"}},
        {"cp p.cfg /usr/opal/share/certificate.d/p.cfg", kInit, {"Bad config\n"}, "p.cfg\n"}};  // The system's file wins.
    for (const char *scene : {"sed -i 's|.*|[&]|' p.cfg", "echo 5 > p.cfg", "sed -i 's|\"opalweb\"|5|' p.cfg",
                              "sed -i 's|true|\"true\"|' p.cfg", "sed -i 's|true|false|' p.cfg"}) {
        rows.push_back({scene, kInit, {"opalcrtregister.cpp Bad config\n"}});
    }
    for (const char *scene : {"> p.cfg", "echo { > p.cfg", "echo x >> p.cfg", "printf '\\0' >> p.cfg", "sed -i 's|^|/* c */|' p.cfg",
                              "sed -i 's|{|{/* c */|' p.cfg", "sed -i 's|{|{\"owner\": \"root\", |' p.cfg", "sed -i 's|}|,}|' p.cfg",
                              "sed -i 's|opalweb|opal\tweb|' p.cfg", "head -c 200000 /dev/zero | tr '\\0' '[' > p.cfg",
                              "head -c 4194304 /dev/zero | tr '\\0' ' ' >> p.cfg", "rm p.cfg; mkfifo p.cfg", "rm p.cfg; mkdir p.cfg"}) {
        rows.push_back({scene, kInit, {"opalcrtregister.cpp Failed to get config from /usr/local/share/certificate.d/p.cfg\n"},
                        strstr(scene, "mkdir") != nullptr ? "p.cfg\n" : ""});
    }
    Check(rows, "cd $D; rm -rf p.cfg /usr/opal/share/certificate.d/p.cfg; definition []; ", "timeout 5 opalcrtregister p",
          "ls $D /usr/opal/share/certificate.d | grep p.cfg");
}

TEST_F(Registration, SeesWhatAnotherProcessDoesToInfoBetweenTwoReadings)
{
    // By renaming and in place, before and after the tool's own first write.
    Shell(R"(define p web api; replace /usr/bin/cp "cd $A; jq --arg key \"\$3\" '.[\$key] = {}' INFO > other
             case \$3 in */api.temp/*) cat other > INFO;; *) mv other INFO;; esac; exec \$REAL \"\$@\"")");
    Expect("opalcrtregister p", "0");
    EXPECT_EQ(Shell("jq -c '[length, .c.services[].service]' INFO"), "[7,\"web\",\"api\"]\n");
}

TEST_F(Registration, TakesOddNamesAndRefusesThoseThatAreNoFolderName)
{
    // Strangers in the books come back as they were.
    const std::string strangers = R"("odd":[18446744073709551615,1.5,-3,true,null,"\u0000\"\\/\b\f\n\r\t\u001f",{},[]])";
    Shell("printf '%s' '{" + strangers + R"(, "c": {"services": []}}' > INFO; define x ' a b ' _rf "it's" ümläut $(printf %0200d))"
          "; sed -i 's/_rf/-rf/g' $D/x.cfg; mv $D/x.cfg \"$D/--sub x.cfg\"");
    Expect("opalcrtregister '--sub x'", "0");
    for (const std::string &name : {std::string(" a b "), std::string("-rf"), std::string("it's"),
                                    std::string("ümläut"), std::string(200, '0')}) {
        EXPECT_EQ(Shell("LC_ALL=C sed 's/.*service\":\"\\(.*\\)\",\"sub.*/\\1/' \"$P/--sub x/" + name + "/info\""), name + "\n");
    }
    EXPECT_EQ(Shell("jq '.c.services | length' INFO; tr -d '\\n\\t ' < INFO | grep -cF '" + strangers + "'"), "5\n1\n");

    Shell("definition []; cp $D/p.cfg $D/../evil.cfg; mv $D/p.cfg $D/_archive.cfg");
    for (const std::string name : {"../evil", ".", "..", "", "_archive", "\xFF", "$(printf %0252d)", "$(printf %0237d)"}) {
        Expect("opalcrtregister \"" + name + "\"", kInit, {"opalcrtregister.cpp Bad params: subscriber\n"});
    }
    EXPECT_EQ(Shell("cd $D; ls * ../*.cfg"), "../evil.cfg\n_archive.cfg\n");
    for (const std::string name : {"a/b", "../x", ".", "..", "web.temp", "web.bak", "a\\\\u0000b", "a\xE9", "\xC0\x80", "a\\\\udc00", "$(printf %0251d)"}) {
        Expect("N=\"" + name + R"("; definition "[{\"service\": \"$N\", \"display_name\": \"x\"}]"; opalcrtregister p)",
               kPrepare, {"Bad service config: {"});
    }
    Expect(R"(definition '[{"service": "a", "display_name": "\udc00"}]'; opalcrtregister p)", kPrepare, {"Bad service config: {"});
    Expect("define p web; sed -i 's/opalweb/opalweb\xFF/' $D/p.cfg; opalcrtregister p", kInit, {"Bad config\n"});
    // A small definition whose service objects would fill the book: each has the owner in it.
    Expect(R"(jq -n '{owner: ("o" * 500), isPkg: true, services: [range(8000) | {service: ("s" + tostring), display_name: "d"}]}' > $D/p.cfg;
           opalcrtregister p | grep -v '^Register'; jq 'map(select(.subscriber == "p"))' SERVICES)", "Failed to prepare services\n[]\n0", {"Invalid config: {"});
    // The empty name is a service that the engine refuses.
    Expect("ls $P; define p ''; opalcrtregister p", "--sub x\n" + kDeploy, {"utils.cpp service object is error.\n"});
}

TEST_F(Registration, ReplacesAListedServiceInItsPlaceAndKeepsItsCertificate)
{
    Expect(R"(crt b; chmod 0640 INFO; chgrp opalmail SERVICES
              web='{"subscriber": "p", "service": "web"}' other='{"subscriber": "q", "service": "web"}'
              echo "[\"stranger\", {\"subscriber\": \"p\"}, $web, $other]" > SERVICES; echo "{\"0\": 5, \"a\": {\"services\": 5},
              \"b\": {\"desc\": 1, \"services\": [7, $web, $other]}, \"c\": {\"services\": []}, \"x\": {\"services\": [$web]}}" > INFO
              define p web mail web; opalcrtregister p; cmp $P/p/web/cert.pem b/cert.pem; cmp $P/p/mail/cert.pem c/cert.pem; books
              stat -c ' %a %G' INFO SERVICES; jq -c '.[0], .[1], .[2].owner' SERVICES; jq -c '."0", .a, .b.desc, .b.services[1].owner' INFO)",
           "list: p/null p/web q/web p/mail info: 0: a: b: q/web p/web c: p/mail x: p/web  640 root\n 644 opalmail\n"
           "\"stranger\"\n{\"subscriber\":\"p\"}\n\"opalweb\"\n5\n{\"services\":5}\n1\n\"opalweb\"\n0");
}

TEST_F(Registration, SaysWhichStageFailedAndLeavesTheBooks)
{
    const Trail unknown = {"utils.cpp Invalid cert id: [c]\n", "utils.cpp Invalid params (cert_id/services)"};
    Check({{"rm SERVICES", kAppend, {"opalcrtregister.cpp Failed to read register services, it may missed or broken"}},
           {"echo {} > SERVICES", kAppend, {"Incorrect format of register services [{}]"}},
           {"mkdir -p SERVICES.new/x", kAppend, {"Failed to write register services (Is a directory)"}},
           {"rm INFO", kDeploy, {"utils.cpp Broken [$A/INFO].[0x0100 ", "Invalid params (cert_id/services)"}},
           {"echo {] > INFO", kDeploy, {"utils.cpp Broken [$A/INFO].[0x0300 ", "Invalid params"}},
           {"echo [] > INFO", kDeploy, unknown},
           {"echo '{\"c\": 5}' > INFO", kDeploy, unknown},
           {"echo '{\"c\": {}}' > INFO", kDeploy, {"Broken [$A/INFO][c].[", "Failed to update cert info for [{", "}] from  to c\n"}},
           {"mkdir -p INFO.temp/x", kDeploy, {"Failed to write [{\"c\":{", "to [$A/INFO.temp].", "utils.cpp Failed to write [$A/INFO].\n"}},
           {"mount --bind INFO INFO", kDeploy, {"utils.cpp Failed to move $A/INFO.temp to $A/INFO\nutils.cpp Failed to write ["}},
           {"rm DEFAULT", kDeploy, {}},
           {"echo > DEFAULT", kDeploy, {}},
           {"printf 'c\\r\\n' > DEFAULT", kDeploy, {"utils.cpp [$A/c\r] doesn't exist.[0x0100 "}},
           {"echo '123456789 long enough' > DEFAULT", kDeploy, {"[$A/123456789 long ] doesn't exist."}},
           {"printf 'c\\nmore' > DEFAULT", "0", {}, "INFO differs\n"}},
          "restore; rm -rf INFO* SERVICES*; empty; ", "cp INFO /tmp 2>/dev/null; define p web; opalcrtregister p",
          "cmp -s INFO /tmp/INFO || [ ! -e INFO ] || echo INFO differs");
}

TEST_F(Registration, IsForRootAndTheOwner)
{
    Check({{"start root", kPrepare, {"Invalid config: {"}},
           {"sed -i s/opalweb/nobody-knows/ $D/p.cfg; start root", kPrepare, {"Invalid config: {"}},
           {"start opalweb", kPrepare, {"Invalid config: {"}},
           {"start opalmail", kInit, {"Failed to init, [0xE400 opalcrtregister.cpp:"}},
           {"sed -i 's/opalweb/&\\\\u0000/' $D/p.cfg; start opalweb", kInit, {"Failed to init, [0x2A00 opalcrtregister.cpp:"}},
           // A set-user-id start is its caller; and a definition that cannot be removed changes nothing.
           {"sed -i s/opalweb/root/ $D/p.cfg; chmod u+s $R; start opalmail", kInit, {"Failed to init, [0xE400"}},
           {"chmod 0755 $D; start opalweb", kPrepare,
            {"opalcrtregister.cpp Failed to unlink /usr/local/share/certificate.d/p.cfg (Permission denied)"}, "p.cfg\n"}},
          "R=/usr/opal/opalcrtregister; rm -f $R; cp $(which opalcrtregister) $R; chmod 0777 $D; definition {}; "
          "start() { setpriv --reuid=$1 --clear-groups $R p; }; ", "", "ls $D");
}

TEST_F(Registration, ChoosesTheCommandByItsName)
{
    Shell("cd /usr/opal; cp $(which opalcrtregister) x; for n in register unregister checksum register.bin Register; do ln -s x opalcrt$n; done");
    for (const std::string name : {"opalcrtregister", "opalcrtunregister"}) {
        const std::string usage = "usage: " + name + " <subscriber>";
        for (const char *arguments : {"", " a b c"}) {
            Expect("/usr/opal/" + name + arguments, "Certificate service tool\n" + usage + " <service>\n" + usage + "\n1");
        }
    }
    Expect("cd /usr/opal; ./opalcrtchecksum any thing goes here; ./opalcrtregister.bin p; ./opalcrtRegister p", "[]\n1");
    EXPECT_EQ(Log(), "");
}

TEST_F(Registration, LosesNobodyWhenManyRunAtOnceWithClosedStreams)
{
    EXPECT_EQ(Shell("for i in $(seq 16); do define p$i web mail; done; for i in $(seq 16); do opalcrtregister p$i <&- >&- 2>&- & done; wait; "
                    "jq length SERVICES; jq '.c.services | length' INFO; ls $P/*/*/info | wc -l"), "32\n32\n32\n");
}

// What a caller leaves strange in the process must not reach a child, and every child gets exactly its arguments.
TEST_F(Registration, PassesNothingOfItsCallerToItsChildren)
{
    Shell("rm c/fullchain.pem; replace /usr/bin/openssl 'echo $* >> /tmp/openssl; exec $REAL \"$@\"'; replace /usr/bin/systemctl '"
          "{ while read -r line; do case $line in SigBlk*|SigIgn*) echo $line;; esac; done < /proc/$$/status; "
          "ls -l /proc/$$/fd | grep -c null; (cd /proc/$$/fd; echo *); env | sort; pwd; umask; } > /tmp/seen'");
    Expect("define p web; exec 7</etc/passwd; umask 0; OPENSSL_CONF=/etc/passwd SECRET=1 env --block-signal "
           "--ignore-signal=CHLD,PIPE,TERM opalcrtregister p", "0", {"c is incomplete"});
    // The descriptors 10 and 11 are sh's own, and so are the signals 32 and 33 of popen(3).
    EXPECT_EQ(Shell("tr '\\n' ' ' < /tmp/seen"),
              "SigBlk: 0000000000000000 SigIgn: 0000000180000000 3 0 1 10 11 2 "
              "HOME=/root LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin PWD=/ / 0022 ");
    EXPECT_EQ(Shell("sed 's|/usr/opal/etc/certificate/_archive/c|C|g; s|/usr/opal/etc/ssl|L|g' /tmp/openssl"),
              "genrsa -rand /dev/urandom -out C/opal-ca-privkey.pem 2048\n"
              "req -config L/cfg.d/ca.cfg -new -sha256 -key C/opal-ca-privkey.pem -out L/ssl.csr/ca.csr\n"
              "x509 -extfile L/cfg.d/ca.crt.cfg -days 366 -in L/ssl.csr/ca.csr -req -sha256 -out C/opal-ca-cert.pem -signkey C/opal-ca-privkey.pem\n"
              "genrsa -rand /dev/urandom -out C/privkey.pem 2048\n"
              "req -config L/cfg.d/server.cfg -new -sha256 -key C/privkey.pem -out L/.gen/server.csr\n"
              "x509 -extfile L/cfg.d/server.crt.cfg -days 366 -in L/.gen/server.csr -req -sha256 -out C/cert.pem -CAserial L/.mkcert.serial "
              "-CA C/opal-ca-cert.pem -CAkey C/opal-ca-privkey.pem\n");
}
