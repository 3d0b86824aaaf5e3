# A certificate's way into a service's folder: what is copied, and what is left when a step fails.
import json

import pytest
from conftest import A, P, ROW

SLOW = pytest.mark.slow  # One that never stands still is given up after 30 s.
FAILED = "Failed to DeployDefCrt for p"
CHMOD = "utils.cpp Failed to chmod chown. [$P/p/web.temp/"
PLAIN = ["cert.pem", "privkey.pem", "fullchain.pem"]
NO_CHAIN, ALL = [*PLAIN, "opal-ca-cert.pem"], [*PLAIN, "chain.pem", "opal-ca-cert.pem"]

OLD, BAK, LEFT = "mkdir s; echo old > s/o; ", "mkdir s.bak; echo b > s.bak/b; ", "s.temp/n=new s/o=old"
MANY, MOUNTED = {"multiple_cert": True}, "mount --no-mtab -t tmpfs row "
RM = "rm case $2 in */s) unlink /tmp/w/s/o; "


# What a killed run has left, and real failures of each step. A program is replaced by what follows it.
@pytest.mark.parametrize("scene, program, answer, left, trail", [
    *[(scene, "", True, "s/n=new", "") for scene in (OLD + BAK, BAK, "mkdir t; ln -s t s")],
    ("", "cp exit 1", True, "s/n=new", ""),
    (OLD, "rm kill -9 $$", False, LEFT, "Failed to remove /tmp/w/s.bak [4]"),
    # A part of a backup stays, and is never taken for the old content; nor is one that was there before.
    (OLD + BAK, "cp mkdir $3; echo > $3/b; exit 1", False, "s.bak/b= " + LEFT, "copy /tmp/w/s to /tmp"),
    (OLD + BAK + MOUNTED + "s.temp", "", False, "s/o=old", "move /tmp/w/s.temp to /tmp/w/s [16]"),
    # Where nothing but the backup is left it is the only whole copy.
    (BAK, "cp exit 1", False, "s.temp/n=new s/b=b", "Failed to copy /tmp/w/s to /tmp/w/s.bak [5]"),
    (BAK + MOUNTED + "s.bak", "", False, "s.temp/n=new", "Failed to move /tmp/w/s.bak to /tmp/w/s [16]"),
    (OLD, RM + "exit 1;; esac", False, "s.bak/o=old s.temp/n=new", "Failed to remove /tmp/w/s [5]\n" * 2),
    (OLD, "rm case $2 in */s) $REAL -rf $2.temp;; esac; $REAL $*", False, "s/o=old", "s.temp to /tmp/w/s [2]"),
    # A backup that stays is no failure.
    (OLD, RM + "rmdir $2;; *) [ ! -d $2 ];; esac", True, "s.bak/o=old s/n=new", "remove /tmp/w/s.bak [5]"),
])  # fmt: skip
def test_moves_a_folder_or_leaves_the_old_one(w, scene, program, answer, left, trail):
    w.sh(f"mkdir -p /tmp/w/s.temp; cd /tmp/w; echo new > s.temp/n; {scene}")
    if program:
        w.replace(f"/bin/{program[:2]}", program[3:])
    assert w.call("MoveDirectory", "/tmp/w/s.temp", "/tmp/w/s") == answer
    assert w.said.logged(*trail.splitlines()) and (trail or not w.said.log)
    assert w.sh("cd /tmp/w; find . -type f -printf '%P=' -exec cat {} \\; | sort").split() == left.split()


# The folder of p/web is whole: these files of this certificate, for a user games:60, and no other.
def check(w, files, prefixes=[""], cert_id="c"):
    names = {**dict.fromkeys(("p", "p/web"), "drwxr-xr-x root root"), "p/web/info": "-rw-r--r-- root root"}
    assert w.tree(P) == {**names, **{f"p/web/{name}": "-r-------- games games" for name in files}}
    for name in files:
        assert (P / "p/web" / name).read_bytes() == (A / cert_id / name).read_bytes(), name
    paths = {"cert": "cert.pem", "key": "privkey.pem", "chain": "fullchain.pem"}
    certs = [{key: f"{P}/p/web/{prefix}{name}" for key, name in paths.items()} for prefix in prefixes]
    assert w.json(P / "p/web/info") == {"subscriber": "p", "service": "web", "certs": certs}


@pytest.mark.parametrize("multiple, renew, prefixes", [
    ({}, "RSA", ""), ({"multiple_cert": False}, "RSA", ""), (MANY, "", ""),
    (MANY, "RSA", "RSA-"), (MANY, "ECC/RSA", "ECC- RSA-"), (MANY, "RSA/RSA", "RSA- RSA-"),
    (MANY, "RSA/", "RSA-"), (MANY, " ECC\t/\n RSA\v", "ECC- RSA-"), (MANY, "DSA/ECC", "ECC-"),
    *[(MANY, text, "RSA- ECC-") for text in ("rsa", "/", "E CC/", 5)],
])  # fmt: skip
def test_gives_what_the_mode_asks_for(w, multiple, renew, prefixes):
    w.crt("c", "RSA-")
    w.crt("c", "ECC-")
    (A / "c/renew.json").write_text(json.dumps({"key_types": renew}))
    w.sh("cd c; echo 1 > chain.pem; echo 2 > opal-ca-cert.pem; mkdir -p $P/p/web.temp/x $P/p/web/y")
    w.define("p", {"service": "web", "display_name": "d", **multiple}, owner="games")
    w.ok("umask 0777; opalcrtregister p")
    prefixes = prefixes.split() or [""]
    check(w, [prefix + name for prefix in prefixes for name in PLAIN] if prefixes[0] else ALL, prefixes)


@pytest.mark.parametrize("scene, cp, trail", [
    ("ln -sf /dev/null c/fullchain.pem", "", "Failed to copy [$A/c/fullchain.pem].[0x"),
    ("mkfifo c/chain.pem", "", "Failed to copy [$A/c/chain.pem].[0x"),
    ("", "exit 1", "Failed to copy [$A/c/cert.pem].[0x0601 "),
    # A copy that was not made, or is none, is never published.
    ("", 'case $2 in *[!v]key.pem|*[!y].pem) exec $REAL "$@"; esac', CHMOD + "privkey.pem]"),
    *[("", f"{make} $3", CHMOD + "cert.pem]") for make in ("head -c 99 $2 >", "ln -s /etc/passwd", "mkfifo")],
    ("", 'mkdir -p ${3%/*}/info.new/x; exec $REAL "$@"', "write info to service certificate folder [21]"),
    pytest.param("", f'touch {A}/c/cert.pem; exec $REAL "$@"', "Failed to copy cert files from", marks=SLOW),
])  # fmt: skip
def test_the_old_folder_stays_when_a_step_fails(w, scene, cp, trail):
    w.define("p", "web", owner="games")
    w.sh(f"mkdir -p $P/p/web; echo old > $P/p/web/file; {scene}")
    w.replace("/bin/cp", cp or 'exec $REAL "$@"')
    copies = ["utils.cpp Failed to copy cert files from $A/c to $P/p/web.temp\n"] * (".pem" in trail)
    w.fails("opalcrtregister p", FAILED, trail, *copies, "Failed to set cert [c] for [{")
    assert w.sh("cat $P/p/web/*; ls $P/p; stat -c %a /etc/passwd") == "old\nweb\n644\n"


# What another process does to the certificate between two copies. Half of each must not be published.
@pytest.mark.parametrize("after, between, files", [
    ("privkey", "for i in $B/*; do cat $i > $C/${i##*/}; done", ALL),
    ("opal-*", "for i in $B/*; do $REAL $i $C/new; mv $C/new $C/${i##*/}; done; rm $C/chain.pem", NO_CHAIN),
    ("cert", "touch $C/.mending; (sleep 0.2; $REAL $B/* $C; rm $C/.mending) &", ALL),
    ("cert", "touch $C/.mending; rm $C/*key.pem; (sleep 0.2; $REAL $B/* $C; rm $C/.mending) &", ALL),
])  # fmt: skip
def test_a_certificate_that_changes_while_it_is_copied_is_copied_again(w, after, between, files):
    w.crt("b")
    w.sh("for i in c b; do echo $i | tee $i/chain.pem > $i/opal-ca-cert.pem; done; chmod 0666 */*.pem")
    once = f"mkdir {ROW}/once && {{ C={A}/c B={A}/b; {between}\n}}"
    look = f"stat -c %a $3 >> {ROW}/modes"
    w.replace("/bin/cp", f'$REAL "$@"; {look}; case $2 in */{after}.pem) {once};; esac; exit 0')
    w.define("p", "web", owner="games")
    w.ok("opalcrtregister p")
    check(w, files, cert_id="b")
    assert set((ROW / "modes").read_text().split()) == {"600"}  # A key can be read by others at no moment.


# When the new folder may not be on the disk, the backup is what is sure to be.
def test_the_backup_stays_until_the_new_folder_is_on_the_disk(w):
    w.sh("mkdir -p $P/p/web; touch $P/p/web/old")
    w.define("p", "web")
    trail = "Failed to move $P/p/web.temp to $P/p/web [5]", "Failed to set cert [c] for [{"
    w.fails("opalcrtregister p", FAILED, *trail, inject=f"fsync:error=EIO:when=3 -P {P}/p")
    assert w.sh("ls $P/p; ls $P/p/web.bak") == "web\nweb.bak\nold\n"
    w.define("p", "web")  # A child whose end is not known may have failed, too.
    w.fails("opalcrtregister p", FAILED, "cert.pem].[0x0501 ", inject="wait4:error=ECHILD:when=1")
