// Callers with odd limits, and authors of packages who plant things where root will work.
#include "sandbox.h"

using namespace opalcrt;

using Hostile = Sandbox;

// Whatever happens: the books parse, nobody else's entry and no foreign file is touched, no key is readable by others.
const std::string kBefore = R"(restore; rm -rf $P/p $P/q x /tmp/*.lock; empty
    define q z; opalcrtregister q; define p web; opalcrtregister p; mkdir x; echo kept > x/f; chmod 0600 x/f; define p web; )";
const std::string kLook = R"(books; echo; cat x/f; stat -c %a x/f; find $S $P -name '*privkey*' -perm /077; ls $P/p)";
const std::string kSame = "list: q/z p/web info: c: q/z p/web \nkept\n600\n";

TEST_F(Hostile, ACallersLimitIsAFailureWithALineAndNotASilentDeath)
{
    const std::string list = "Failed to append register services\n1", deploy = "Failed to DeployDefCrt for p\n1";
    Check({{"u() { prlimit --fsize=0 -- opalcrtregister p; }", list, {"Failed to write register services (File too large)"}, kSame + "web\n"},
           {"u() { prlimit --fsize=450 -- opalcrtregister p; }", deploy, {"Failed to copy [$A/c/cert.pem].[0x0719"}, kSame + "web\n"},
           {"u() { prlimit --fsize=0 -- opalcrtunregister p; }", "Failed to remove register services\n1", {"Failed to write register services (File too large)"}, kSame + "web\n"},
           {"u() { (umask 0777; trap '' XFSZ PIPE CHLD TERM; opalcrtregister p); }", "0", {}, kSame + "web\n"},
           {"u() { (mkdir /tmp/g; cd /tmp/g; rmdir /tmp/g; IFS=p OPENSSL_CONF=/none TMPDIR=/none opalcrtregister p); }", "0", {}, kSame + "web\n"}},
          kBefore, "u", kLook);
}

#ifndef __SANITIZE_ADDRESS__  // The sanitizers need descriptors of their own.
TEST_F(Hostile, ALimitOnDescriptorsIsAFailureToo)
{
    const std::string u = "u() { (exec 3<&- 4<&- 5<&- 6<&- 7<&-; prlimit --nofile=";
    Check({{u + "4 -- opalcrtregister p); }", "Failed to append register services\n1", {"Failed to lock [/tmp/"}, kSame + "web\n"},
           {u + "6 -- opalcrtregister p); }", "Failed to DeployDefCrt for p\n1", {"Broken [$A/INFO]."}, kSame + "web\n"}},
          kBefore, "u", kLook);
}

// Where memory ends differs from machine to machine, so all limits up to enough are tried.
TEST_F(Hostile, ALimitOnMemoryIsAFailureToo)
{
    const std::string many = R"(define p web; jq -n '{c: {services: [range(5000) | {display_name: "d", isPkg: true, owner: "o", service: "s",
        subscriber: "q"}]}}' > INFO; crt c; for k in $(seq 8000 500 28000); do define p web; prlimit --as=$((k * 1024)) -- )";
    const std::string seen = "; echo $?; done | grep -v '^Failed to' | sort -u; jq '.c.services | length >= 5000' INFO";
    Expect(many + "opalcrtregister p" + seen, "0\n1\ntrue\n0", {"Broken [$A/INFO].", "Failed to finish (std::bad_alloc)"});
    Expect(many + "opalcrtchecksum >/dev/null" + seen, "0\n1\ntrue\n0", {"Open $A/INFO failed.", "Failed to finish (std::bad_alloc)"});
}
#endif

TEST_F(Hostile, WhatIsPlantedWhereRootWorksIsReplacedAndNotFollowed)
{
    const std::string owned = "opalweb\n";
    Check({{"ln -s $A/x $P/p/web.temp; ln -s $A/x $P/p/web.bak", "0", {}, kSame + "web\n" + owned},
           {"rm -r $P/p/web; ln -s $A/x $P/p/web", "0", {}, kSame + "web\n" + owned},
           {"rm -r $P/p/web; echo > $P/p/web", "0", {}, kSame + "web\n" + owned},
           {"ln -f x/f $P/p/web/cert.pem; ln x/f $P/p/web/more", "0", {}, kSame + "web\n" + owned},
           {"mkfifo $P/p/web.temp", "Failed to DeployDefCrt for p\n1", {"Failed to clean $P/p/web.temp"}, kSame + "web\n" + owned},
           {"ln -s /etc/passwd /tmp/certificate_p_web.lock", "Failed to DeployDefCrt for p\n1",
            {"Failed to lock [/tmp/certificate_p_web.lock]"}, kSame + "web\n" + owned}},
          kBefore + "rm -f /tmp/*.lock; ", "opalcrtregister p", kLook + "; stat -c %U $P/p/web/cert.pem");
}
