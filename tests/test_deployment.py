# A certificate's way into a service's folder: what is copied, and what is left when a step fails.
import json
import re

import pytest
from conftest import A, P, ROW, service

TEMP = "$P/p/web.temp"
COPY = f"utils.cpp Failed to copy cert files from $A/c to {TEMP}\n"
CHMOD = f"utils.cpp Failed to chmod chown. [{TEMP}/"
FAILED = "Failed to DeployDefCrt for p"


# What a killed run has left, and real failures of each step. A program is replaced until the move has ended.
OLD = "mkdir s; echo old > s/o; "
MOUNTED = "mount --no-mtab -t tmpfs row "
LEFT = "s.temp/n=new s/o=old"
CP = "Failed to copy /tmp/w/s to /tmp/w/s.bak [5]"
RM = "rm case $2 in */s) unlink /tmp/w/s/o; "


@pytest.mark.parametrize(
    "scene, replaced, answer, left, trail",
    [
        (OLD, None, True, "s/n=new", ""),
        ("", "cp exit 1", True, "s/n=new", ""),
        (OLD + "mkdir s.bak; echo half > s.bak/h", None, True, "s/n=new", ""),
        ("mkdir s.bak; echo old > s.bak/o", None, True, "s/n=new", ""),
        ("mkdir t; ln -s t s", None, True, "s/n=new", ""),
        ("echo file > s", None, True, "s/n=new", ""),
        ("rm -r s.temp; echo file > s.temp", None, False, "s.temp=file", "/tmp/w/s.temp is not a valid directory"),
        (OLD, "rm exit 1", False, LEFT, "Failed to remove /tmp/w/s.bak [5]"),
        # A part of a backup stays, and is never taken for the old content: nor is one that was there before.
        (OLD, "cp mkdir $3; echo half > $3/h; exit 1", False, "s.bak/h=half " + LEFT, CP),
        (OLD + "mkdir s.bak; echo b > s.bak/b", "cp exit 1", False, LEFT, CP),
        (OLD + "mkdir s.bak; echo b > s.bak/b;" + MOUNTED + "s.temp", None, False, "s/o=old", "s.temp to /tmp/w/s [16]"),
        # The backup is the only whole copy where nothing but it is left.
        ("mkdir s.bak; echo old > s.bak/o", "cp exit 1", False, LEFT, CP),
        ("mkdir s.bak;" + MOUNTED + "s.bak", None, False, "s.temp/n=new", "Failed to move /tmp/w/s.bak to /tmp/w/s [16]"),
        (MOUNTED + "s.temp", None, False, "", "Failed to move /tmp/w/s.bak to /tmp/w/s [2]\n"),
        (OLD, RM + "exit 1;; esac", False, "s.bak/o=old s.temp/n=new", "Failed to remove /tmp/w/s [5]\n" * 2),
        # A backup that stays is no failure.
        (OLD, RM + "rmdir $2;; *) [ ! -d $2 ];; esac", True, "s.bak/o=old s/n=new", "Failed to remove /tmp/w/s.bak [5]"),
    ],
)  # fmt: skip
def test_moves_a_folder_or_leaves_the_old_one(w, scene, replaced, answer, left, trail):
    w.sh(f"mkdir -p /tmp/w/s.temp; cd /tmp/w; echo new > s.temp/n; {scene}")
    if replaced:
        w.replace("/bin/" + replaced[:2], replaced[3:])
    assert w.call("MoveDirectory", "/tmp/w/s.temp", "/tmp/w/s") == answer
    assert w.said.logged(*trail.splitlines()) and (trail or not w.said.log)
    assert w.sh("cd /tmp/w; find . -type f -printf '%P=' -exec cat {} \\; | sort").split() == left.split()


def test_a_folder_that_is_there_is_not_moved(w):
    assert w.call("MoveDirectory", str(A), str(A)) and (A / "INFO").exists()
    assert w.said.log == ["dir_utils.cpp skip move directory, due to source equals to destination [$A]"]


PLAIN = ["cert.pem", "privkey.pem", "fullchain.pem"]
ALL = [*PLAIN, "chain.pem", "opal-ca-cert.pem"]


def check(w, files, prefixes, cert_id="c"):
    """The folder of p/web is whole: these files and nothing else, from this certificate."""
    owned = {f"p/web/{name}": "-r-------- games 60" for name in files}
    folders = {name: "drwxr-xr-x root root" for name in ("p", "p/web")}
    assert w.tree(P) == {**folders, **owned, "p/web/info": "-rw-r--r-- root root"}
    for name in files:
        assert (P / "p/web" / name).read_bytes() == (A / cert_id / name).read_bytes(), name
    names = {"cert": "cert.pem", "key": "privkey.pem", "chain": "fullchain.pem"}
    certs = [{key: f"{P}/p/web/{prefix}{name}" for key, name in names.items()} for prefix in prefixes]
    info = json.loads((P / "p/web/info").read_text())
    assert info == {"subscriber": "p", "service": "web", "certs": certs}


@pytest.mark.parametrize(
    "multiple, renew, prefixes",
    [
        (None, "RSA", None),
        (False, "RSA", None),
        (True, "", None),
        (True, "RSA", ["RSA-"]),
        (True, "ECC/RSA", ["ECC-", "RSA-"]),
        (True, "RSA/RSA", ["RSA-", "RSA-"]),
    ],
)
def test_gives_what_the_mode_asks_for(w, multiple, renew, prefixes):
    w.crt("c", "RSA-")
    w.crt("c", "ECC-")
    (A / "c/renew.json").write_text(json.dumps({"key_types": renew}))
    w.sh(
        "echo 1 > c/chain.pem; echo 2 > c/opal-ca-cert.pem; mkdir -p $P/p/web.temp/x $P/p/web; touch $P/p/web/y"
    )
    web = {"service": "web", "display_name": "d", "multiple_cert": multiple}
    w.define("p", {name: value for name, value in web.items() if value is not None}, owner="games")
    w.ok("opalcrtregister p")
    prefixed = [prefix + name for prefix in prefixes or [] for name in PLAIN]
    check(w, prefixed or ALL, prefixes or [""])


def test_several_key_pairs_need_key_types(w):
    assert not w.call("DeployMultipleCrt", "c", service("web"))
    assert w.said.log == ["utils.cpp Empty key types, Failed to setup multiple mode"] and not w.tree(P)


def test_parses_key_types(w):
    both = "RSA ECC"
    texts = {"": "", "RSA/": "RSA", "ECC/RSA": "ECC RSA", " RSA\t/\n ECC\v": both, "rsa": both}
    texts.update({"/": both, "E CC/": both, "DSA/ECC": "ECC", "RSA/RSA": "RSA RSA"})
    for renew, types in [
        *((json.dumps({"key_types": text}), texts[text]) for text in texts),
        ("[]", ""),
        ("{", ""),
    ]:
        (A / "c/renew.json").write_text(renew)
        assert w.call("GetCrtKeyTypes", "c") == types.split(), renew


@pytest.mark.parametrize(
    "scene, cp, trail",
    [
        ("sed -i s/games/nobody-knows/ $D/p.cfg", "", "utils.cpp Failed to OPALUserGetUGID [nobody-knows].[0x2A00 "),
        ("mkdir /tmp/certificate_p_web.lock", "", "utils.cpp Failed to lock [/tmp/certificate_p_web.lock]"),
        ("touch $P/p/web.temp", "", f"Failed to create {TEMP}\nutils.cpp Failed to clean {TEMP}\n"),
        ("mkdir $P/p/web.bak;" + MOUNTED + "$P/p/web.bak", "", f"Failed to move {TEMP} to $P/p/web\n"),
        ("rm c/fullchain.pem; mkdir c/fullchain.pem", "", "Failed to copy [$A/c/fullchain.pem].[0x"),
        ("mkfifo c/chain.pem", "", "Failed to copy [$A/c/chain.pem].[0x"),
        ("", "exit 1", f"Failed to copy [$A/c/cert.pem].[0x0601 "),
        # A copy that was not made, or is none, is never published.
        ("", 'case $2 in */privkey.pem);; *) exec $REAL "$@";; esac', CHMOD + "privkey.pem]"),
        ("", 'case $2 in */fullchain.pem) head -c 99 $2 > $3;; *) exec $REAL "$@";; esac', CHMOD + "fullchain.pem]"),
        ("", "ln -s /etc/passwd $3", CHMOD + "cert.pem]"),
        ("", "mkfifo $3", CHMOD + "cert.pem]"),
        ("", 'mkdir -p ${3%/*}/info.new/x; exec $REAL "$@"', "Failed to write info to service certificate folder [21]"),
    ],
)  # fmt: skip
def test_the_old_folder_stays_when_a_step_fails(w, scene, cp, trail):
    w.define("p", "web", owner="games")
    w.sh(f"mkdir -p $P/p/web; echo old > $P/p/web/file; {scene}")
    if cp:
        w.replace("/bin/cp", cp)
    w.fails("opalcrtregister p", FAILED, trail, "Failed to set cert [c] for [{", timeout=10)
    left = w.sh("cat $P/p/web/*; ls $P/p; stat -c %a /etc/passwd")
    assert left == "old\nweb\n" + "web.bak\n" * ("web.bak" in scene) + "644\n"
    assert ("Failed to copy cert files" in "".join(w.story[-2].log)) == (
        COPY in "\n".join([*w.story[-2].log, ""])
    )


# What another process does to the certificate between two copies. Half of each must not be published, and nobody fails.
@pytest.mark.parametrize(
    "between, files",
    [
        ("for i in $B/*; do cat $i > $C/${i##*/}; done", ALL),
        ("for i in $B/*; do $REAL $i $C/new; mv $C/new $C/${i##*/}; done", ALL),
        (
            "touch $C/.mending; rm $C/*chain.pem; (sleep 0.2; $REAL $B/[!c]* $B/cert.pem $C; rm $C/.mending) &",
            [*PLAIN, "opal-ca-cert.pem"],
        ),
        ("touch $C/.mending; (sleep 0.2; $REAL $B/* $C; rm $C/.mending) &", ALL),
    ],
)
def test_a_certificate_that_changes_while_it_is_copied_is_copied_again(w, between, files):
    w.crt("b")
    w.sh("for i in c b; do echo $i | tee $i/chain.pem > $i/opal-ca-cert.pem; done")
    script = f'$REAL "$@"; C={A}/c B={A}/b; [ $2 = $C/privkey.pem ] && mkdir {ROW}/once && {{ {between}\n}}; exit 0'
    w.replace("/bin/cp", script)
    w.define("p", "web", owner="games")
    w.ok("opalcrtregister p")
    check(w, files, [""], "b")


@pytest.mark.slow
def test_a_certificate_that_never_stands_still_is_given_up(w):
    w.replace("/bin/cp", f'touch {A}/c/cert.pem; exec $REAL "$@"')
    w.define("p", "web")
    w.fails("opalcrtregister p", FAILED, COPY)
    assert w.tree(P) == {"p": "drwxr-xr-x root root"}


def test_a_copied_key_is_at_no_moment_readable_for_others(w):
    w.replace("/bin/cp", f'$REAL "$@"; status=$?; stat -c %a $3 >> {ROW}/modes; exit $status')
    w.define("p", "web")
    w.ok("chmod 0666 c/*; umask 0; opalcrtregister p")
    assert set((ROW / "modes").read_text().split()) == {"600"}


# What must be on the disk before what: the order of the calls is all that can be seen of it here.
def test_syncs_before_it_removes_or_renames(w):
    w.sh("touch c/chain.pem c/opal-ca-cert.pem")
    w.define("p", "web")
    w.ok("opalcrtregister p")
    w.define("p", "web")
    w.ok(f"ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 strace -f -qq -y -s 300 -o {ROW}/trace "
         "-e signal=none -e trace=fsync,rename,execve opalcrtregister p")  # fmt: skip
    words = {
        r"fsync\(\d+<.*/web\.temp/([a-z-]+)": r"sync \1", r"fsync\(\d+<.*/web\.temp>": "sync staging",
        r"fsync\(\d+<.*/web\.bak": "sync backup", r"fsync\(\d+<.*certificate/p>": "sync parent",
        r"execve.*-arp": "back up", r'execve.*"-rf", ".*/(web[.a-z]*)"': r"remove \1", r"rename\(.*web\.temp\"": "swap",
    }  # fmt: skip
    seen, syncs, backup = [], 0, 0
    for line in (ROW / "trace").read_text().splitlines():
        for pattern, word in words.items():
            if found := re.search(pattern, line):
                word, syncs = found.expand(word), syncs + ("fsync" in line)
                backup += word == "sync backup"
                last = syncs if word == "sync parent" else 0
                seen += [word] if seen[-1:] != [word] else []
                break
    files = ["cert", "privkey", "fullchain", "chain", "opal-ca-cert", "info"]
    assert seen == [
        "sync parent", *(f"sync {name}" for name in files), "sync staging", "remove web.bak", "back up", "sync backup",
        "sync parent", "remove web", "swap", "sync parent", "remove web.bak",
    ] and backup == 7  # fmt: skip


# When the new folder may not be on the disk, the backup is what is sure to be.
def test_the_backup_stays_until_the_new_folder_is_on_the_disk(w):
    for command, left in (("", "web"), ("fail", "web web.bak"), ("", "web")):
        w.define("p", "web")
        if command:
            w.fails("opalcrtregister p", FAILED, "Failed to move $P/p/web.temp to $P/p/web [5]",
                    inject=f"fsync:error=EIO:when=3 -P {P}/p")  # fmt: skip
        else:
            w.ok("opalcrtregister p")
        assert w.sh("ls $P/p").split() == left.split()
