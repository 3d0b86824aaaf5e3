# Callers with odd limits, authors of packages who plant things where root will work, and what children are given.
import shlex, time

import pytest
from conftest import CALL, D, P, TOOL, service

LIST, DEPLOY = "Failed to append register services", "Failed to DeployDefCrt for p"
PLAIN = pytest.mark.skipif("sanitize" in str(TOOL), reason="the sanitizers need much memory themselves")


# Whatever becomes of p: the books parse, no foreign file is touched, no key is readable by others.
# fmt: off
@pytest.mark.parametrize("command, out, line", [
    ("prlimit --fsize=0 -- opalcrtregister p", LIST, "Failed to write register services (File too large)"),
    ("prlimit --fsize=450 -- opalcrtregister p", DEPLOY, "Failed to copy [$A/c/cert.pem].[0x0719"),
    ("umask 0777; env --ignore-signal=XFSZ,PIPE,CHLD,TERM opalcrtregister p", "", ""),
    (f"mkdir /tmp/g; cd /tmp/g; rmdir /tmp/g; IFS=p TMPDIR=/none PATH=/none {TOOL}/opalcrtregister p", "", ""),
    pytest.param("prlimit --nofile=4 -- opalcrtregister p", LIST, "Failed to lock [/tmp/", marks=PLAIN),
    ("rm -r $P/p/web; ln -s $A/x $P/p/web; opalcrtregister p", "", ""),
    ("ln -f x/f $P/p/web/cert.pem; ln x/f $P/p/web/more; ln x/f INFO.temp; opalcrtregister p", "", ""),
    ("ln -s $A/x SERVICES.new; cd $P/p; ln -s $A/x web.temp; ln -s $A/x web.bak; opalcrtregister p", "", ""),
    ("mkfifo $P/p/web.temp; opalcrtregister p", DEPLOY, "Failed to clean $P/p/web.temp"),
])
# fmt: on
def test_odd_callers_and_planted_things_harm_nobody_else(w, command, out, line):
    for name, each in (("q", "z"), ("p", "web")):
        w.define(name, each)
        w.run(f"opalcrtregister {name}")
    w.define("p", "web")
    w.sh("rm -f /tmp/*.lock; mkdir x; echo kept > x/f; chmod 0600 x/f")
    said = w.run(command)
    assert (said.status, said.out) == ((1, f"{out}\n") if out else (0, "")) and said.logged(line)
    assert w.books() == {"list": ["q/z", "p/web"], "c": ["q/z", "p/web"]}
    look = "ls x; stat -c %a%s x/f; find $S $P -name '*key*' -perm /77; ls $P/p; stat -c %U $P/p/web/cert.pem"
    assert w.sh(look) == "f\n6005\nweb\nopalweb\n"


# Where memory ends differs from machine to machine, so all limits are tried; with 126 or 127 it did not start.
@PLAIN
def test_a_limit_on_memory_is_a_failure_too(w):
    w.write({"c": {"services": [service("s", "q")] * 5000}})
    ends, limit = {}, 3500
    while ends.get(0, 0) < 2 and (limit := limit + 500) < 60000:
        w.define("p", "web")
        said = w.run(f"prlimit --as={limit * 1024} -- opalcrtregister p")
        ends[said.status] = ends.get(said.status, 0) + 1
        assert said.status != 1 or said.log
        assert len(w.json("INFO")["c"]["services"]) >= 5000
    assert {0, 1} <= {*ends} <= {0, 1, 126, 127}


# -1 means "leave as it is" to chown(2). The entry of "long" does not fit at first, and his group is not his own.
USERS = f"nouid:x:4294967295:1:::\nnogid:x:1:4294967295:::\nlong:x:64103:64104:{'x' * 5000}::\n"


@pytest.mark.parametrize("owner", ["nouid", "nogid", "opalweb\0x", "nobody-knows", "long"])
def test_files_are_the_owners_and_his_groups_and_folders_are_roots(w, owner):
    w.sh(f"(cat /etc/passwd; echo '{USERS}') > $ROW/passwd; mount --bind $ROW/passwd /etc/passwd")
    w.sh("chgrp opalmail $P; chmod 2775 $P")  # It hands its group down.
    w.define("p", "web", owner=owner)
    if owner == "long":
        w.ok("opalcrtregister p")
    else:
        w.fails("opalcrtregister p", DEPLOY, "Failed to OPALUserGetUGID [", "].[0x2A00")
    right = {"drwxr-xr-x root root", "-rw-r--r-- root root", "-r-------- long 64104"}
    assert {*w.tree(P).values()} == (right if owner == "long" else set())


# Nobody would mend the mode of a folder that a cut-off run has left.
def test_a_folder_that_cannot_be_made_whole_is_not_made(w):
    w.define("p", "web")
    w.fails("opalcrtregister p", DEPLOY, "Failed to create", inject=f"fchown:error=EPERM -P {P}/p")
    assert not w.tree(P)


PROBE = r"""(cd /proc/$$; tr '\0' '\n' <environ; cd fd; echo $(readlink 0 1 2) $(ls | grep -vxE '10|255')
    umask; readlink /proc/$$/cwd; grep 'Sig[BI]' /proc/self/status; ulimit -t) > /run/row/seen.${0##*/}"""
SEEN = """PATH=/usr/sbin:/usr/bin:/sbin:/bin\nHOME=/root\nLC_ALL=C\n/dev/null /dev/null /dev/null 0 1 2\n%s\n/
SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n%s\n"""
HOOK = f"""{CALL} ReloadService '[{{"subscriber": "p", "service": "web", "isPkg": true}}]'"""


# Also where the kernel refuses close_range(2). A program has 30 s of processor time, a hook as much as it wants.
@pytest.mark.parametrize("inject", [None, "close_range:error=EPERM -f"])
def test_children_get_nothing_of_the_caller(w, inject):
    w.replace("/bin/cp", f'{PROBE}; exec $REAL "$@"')
    w.sh(f"cat > $D/p <<'END'\n#!/bin/bash\n{PROBE}\nEND\nchmod 0755 $D/p")
    w.define("p", "web")
    caller = "umask 0777; exec 5<. 7>$ROW/x; cd /usr; exec env --ignore-signal=HUP --block-signal=TERM"
    for command, name, *seen in (("opalcrtregister p", "cp", "0077", "30"), (HOOK, "p", "0022", "unlimited")):
        w.run(f"sh -c {shlex.quote(f'{caller} {command}')}", inject=inject)
        assert w.sh(f"cat $ROW/seen.{name}") == SEEN % tuple(seen)


def test_children_die_with_the_tool_and_a_hook_does_not(w):
    w.replace("/bin/cp", "echo $$ > /run/row/pid; exec sleep 60")
    w.sh("cat $ROW/stand.cp > $D/p; chmod 0755 $D/p")
    w.define("p", "web")
    for command, left in (("opalcrtregister p", ""), (HOOK, "sleep\x0060\0")):
        tool = w.start(f"exec {command}")
        child = w.sh("until [ -s $ROW/pid ]; do sleep 0.01; done; cat $ROW/pid; rm $ROW/pid").strip()
        tool.kill()
        time.sleep(0.1)
        assert w.sh(f"cat /proc/{child}/cmdline 2>/dev/null || :") == left
    # One that hangs is stopped in the end, with what it has started.
    (D / "p").write_text("#!/bin/sh\nsleep 60 &\necho $! > /run/row/pid; wait\n")
    assert w.run(HOOK, inject="?poll,?ppoll:retval=0:delay_enter=300000", timeout=20).status == 0
    assert w.sh("sleep 0.1; cat /proc/$(cat $ROW/pid)/cmdline 2>/dev/null || :") == ""


# Without its streams no file or socket of ours may become one of them: what is printed would be written into it.
def test_a_closed_stream_is_no_file_of_ours(w):
    w.fails("opalcrtregister none >&-", "", "Failed to get none.cfg")
