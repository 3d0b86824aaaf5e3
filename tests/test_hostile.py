# Callers with odd limits, authors of packages who plant things where root will work, and what children are given.
import errno
import json
import time

import pytest
from conftest import A, CALL, D, P, ROW, TOOL, service

LIST = "Failed to append register services"
DEPLOY = "Failed to DeployDefCrt for p"
PLAIN = pytest.mark.skipif(
    "sanitize" in str(TOOL), reason="the sanitizers need memory and descriptors of their own"
)


@pytest.fixture
def settled(w):
    """Whatever becomes of p: the books parse, no foreign file is touched, no key is readable by others."""
    for name, each in (("q", "z"), ("p", "web")):
        w.define(name, each)
        w.ok(f"opalcrtregister {name}")
    w.define("p", "web")
    w.sh("rm -f /tmp/*.lock; mkdir x; echo kept > x/f; chmod 0600 x/f")
    yield w
    assert w.books() == {"list": ["q/z", "p/web"], "c": ["q/z", "p/web"]}
    look = "cat x/f; stat -c %a x/f; find $S $P -name '*privkey*' -perm /077; ls $P/p; stat -c %U $P/p/web/cert.pem"
    assert w.sh(look) == "kept\n600\nweb\nopalweb\n"


# fmt: off
@pytest.mark.parametrize("command, out, line", [
    ("prlimit --fsize=0 -- opalcrtregister p", LIST, "Failed to write register services (File too large)"),
    ("prlimit --fsize=450 -- opalcrtregister p", DEPLOY, "Failed to copy [$A/c/cert.pem].[0x0719"),
    ("prlimit --fsize=0 -- opalcrtunregister p", "Failed to remove register services", "(File too large)"),
    ("umask 0777; env --ignore-signal=XFSZ,PIPE,CHLD,TERM opalcrtregister p", "", ""),
    (f"mkdir /tmp/g; cd /tmp/g; rmdir /tmp/g; IFS=p OPENSSL_CONF=/none TMPDIR=/none PATH=/none {TOOL}/opalcrtregister p", "", ""),
    ("opalcrtregister p <&- >&- 2>&-", "", ""),
    pytest.param("prlimit --nofile=4 -- opalcrtregister p", LIST, "Failed to lock [/tmp/", marks=PLAIN),
    pytest.param("prlimit --nofile=6 -- opalcrtregister p", DEPLOY, "Broken [$A/INFO].", marks=PLAIN),
])
def test_a_callers_limit_is_a_failure_with_a_line_and_not_a_silent_death(settled, command, out, line):
    (settled.fails if out else settled.ok)(command, *([out] if out else []), line)


@pytest.mark.parametrize("plant, out, line", [
    ("ln -s $A/x $P/p/web.temp; ln -s $A/x $P/p/web.bak", "", ""),
    ("rm -r $P/p/web; ln -s $A/x $P/p/web", "", ""),
    ("rm -r $P/p/web; echo > $P/p/web", "", ""),
    ("ln -f x/f $P/p/web/cert.pem; ln x/f $P/p/web/more", "", ""),
    ("ln -s x/f SERVICES.new; ln -s x/f INFO.new; ln x/f INFO.temp", "", ""),
    ("mkfifo $P/p/web.temp", DEPLOY, "Failed to clean $P/p/web.temp"),
    ("ln -s /etc/passwd /tmp/certificate_p_web.lock", DEPLOY, "Failed to lock [/tmp/certificate_p_web.lock]"),
])
# fmt: on
def test_what_is_planted_where_root_works_is_replaced_and_not_followed(settled, plant, out, line):
    settled.sh(plant)
    (settled.fails if out else settled.ok)("opalcrtregister p", *([out] if out else []), line)


# Where memory ends differs from machine to machine: from where the program starts, all limits up to enough are tried.
@PLAIN
@pytest.mark.parametrize("command", ["opalcrtregister p", "opalcrtchecksum"])
def test_a_limit_on_memory_is_a_failure_too(w, command):
    w.write({"c": {"services": [service("s", "q")] * 5000}})
    ends = []
    for limit in range(4000, 60000, 500):
        w.define("p", "web")
        under = f"prlimit --as={limit * 1024} --"
        if ends or "usage" in w.run(f"{under} opalcrtregister").out:
            said = w.run(f"{under} {command} >$ROW/out")
            ends.append(said.status)
            assert said.status == 0 or (said.status == 1 and said.log), said
            assert len(w.json("INFO")["c"]["services"]) >= 5000
            if ends[-2:] == [0, 0]:
                break
    print(limit, ends)
    assert set(ends) == {0, 1}


def test_a_full_disk_leaves_the_old(w):
    w.tmpfs(A, "size=8k")
    assert not w.call("WriteCrtInfo", {"c": "x" * 9000})
    assert (w.answer["errno"], w.answer["state"], w.tree(A)) == (28, 0x0200, {})


# An owner whose long entry does not fit at first, and whose group is not his own; in folders that hand down their group.
def test_files_are_the_owners_and_his_groups_and_folders_are_roots(w):
    w.sh(
        f"echo 'long:x:64103:64104:{'x' * 5000}::' | cat /etc/passwd - > $ROW/passwd; mount --bind $ROW/passwd /etc/passwd"
    )
    assert w.call("OPALUserGetUGID", "long") == 0 and [w.answer["uid"], w.answer["gid"]] == [64103, 64104]
    w.sh("chgrp opalmail $P; chmod 2775 $P")
    w.define("p", "web", owner="long")
    w.ok("opalcrtregister p")
    tree = w.tree(P)
    assert (
        tree.pop("p") == tree.pop("p/web") == "drwxr-xr-x root root"
        and tree.pop("p/web/info") == "-rw-r--r-- root root"
    )
    assert set(tree.values()) == {"-r-------- long 64104"}


# -1 means "leave as it is" to chown(2).
@pytest.mark.parametrize("owner", ["nouid", "nogid", "opalweb\0x", "nobody-knows"])
def test_an_unknown_owner_gets_nothing(w, owner):
    w.sh(
        "(cat /etc/passwd; echo nouid:x:4294967295:1:::; echo nogid:x:1:4294967295:::) > $ROW/passwd; mount --bind $ROW/passwd /etc/passwd"
    )
    w.define("p", "web", owner=owner)
    w.fails("opalcrtregister p", DEPLOY, "Failed to OPALUserGetUGID [", "].[0x2A00")
    assert not w.tree(P)


PROBE = r"""(tr '\0' '\n' < /proc/$$/environ; cd /proc/$$/fd; echo $(readlink 0 1 2) $(ls | grep -vx 10); umask
    readlink /proc/$$/cwd; grep -E 'Sig(Blk|Ign)' /proc/self/status; ulimit -t) > /run/row/seen.${0##*/}"""
ENVIRONMENT = "PATH=/usr/sbin:/usr/bin:/sbin:/bin\nHOME=/root\nLC_ALL=C\n"
REST = "/\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"
NULLS = "/dev/null /dev/null /dev/null 0 1 2\n"


# Also where the kernel refuses close_range(2). A program has 30 s of processor time, a hook as much as it wants.
@pytest.mark.parametrize("inject", [None, "close_range:error=EPERM -f"])
def test_children_get_nothing_of_the_caller(w, inject):
    w.replace("/bin/cp", f'{PROBE}; exec $REAL "$@"')
    (D / "p").write_text(f"#!/bin/sh\n{PROBE}\n")
    (D / "p").chmod(0o755)
    w.define("p", "web")
    caller = "umask 0777; exec 5</etc/passwd 7>$ROW/x; cd /usr; export X=1 LD_X=1; "
    w.sh(
        f"{caller} env --ignore-signal=HUP,CHLD --block-signal=TERM opalcrtregister p"
    ) if not inject else w.ok("sh -c 'exec 5</etc/passwd; opalcrtregister p'", inject=inject)
    assert w.sh("cat $ROW/seen.cp") == f"{ENVIRONMENT}{NULLS}0077\n{REST}30\n"
    w.sh(f"""{caller} {CALL} ReloadService '[{{"subscriber": "p", "service": "web", "isPkg": true}}]'""")
    assert w.sh("cat $ROW/seen.p") == f"{ENVIRONMENT}{NULLS}0022\n{REST}unlimited\n"


def test_the_endings_of_children_are_told_apart(w):
    w.sh(
        "echo exit 0 > /tmp/script; chmod 0755 /tmp/script"
    )  # No interpreter line: the kernel does not start it.
    endings = [
        ("/bin/sh", "exit 0", 0, 0),
        ("/bin/sh", "exit 3", 0x0603, errno.EIO),
        ("/bin/sh", "kill -9 $$", 0x0709, errno.EINTR),
        ("/bin/nothing", "", 0x0500, errno.ENOENT),
        ("/etc/passwd", "", 0x0500, errno.EACCES),
        ("/tmp/script", "", 0x0500, errno.ENOEXEC),
    ]
    for program, command, state, error in endings:
        answer = w.call("YLIBCExec", program, "-c", command, None, None)
        assert (answer < 0, w.answer["state"], w.answer["errno"] if state else 0) == (
            state != 0,
            state,
            error,
        )
    lost = json.loads(w.sh(f"env --ignore-signal=CHLD {CALL} YLIBCExec '[\"/bin/true\"]'"))
    assert (lost["answer"], lost["state"]) == (-1, 0x0501)


def test_children_die_with_the_tool_and_a_hook_does_not(w):
    w.replace("/bin/cp", "echo $$ > /run/row/pid; exec sleep 60")
    (D / "p").write_text("#!/bin/sh\necho $$ > /run/row/pid; exec sleep 60\n")
    (D / "p").chmod(0o755)
    w.define("p", "web")
    hook = f"""exec {CALL} ReloadService '[{{"subscriber": "p", "service": "web", "isPkg": true}}]'"""
    for command, lives in (("exec opalcrtregister p", False), (hook, True)):
        tool = w.start(command)
        child = w.sh("until [ -s $ROW/pid ]; do sleep 0.01; done; cat $ROW/pid; rm $ROW/pid").strip()
        tool.kill()
        tool.wait()
        time.sleep(0.1)
        assert w.sh(f"cat /proc/{child}/cmdline 2>/dev/null || :") == ("sleep\x0060\0" if lives else "")


# Without its streams no file of ours may become one of them: what is printed would be written into it.
def test_a_closed_stream_is_no_file_of_ours(w):
    said = w.run("opalcrtunregister p </etc/passwd >&-")
    assert said.status == 1 and w.sh("cat /tmp/*.lock") == ""
