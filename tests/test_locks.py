# The four kinds of lock file: when each is held, how long it is waited for, and what is planted in its place.
import errno
import fcntl
import json
import os
import shlex
import time

import pytest
from conftest import CALL, ROW, service

INFO, SERVICES = "/tmp/opalcertificate_info.lock", "/tmp/opal_cert_register_services.lock"
RECOVER, WEB = "/tmp/opal_cert_recover.lock", "/tmp/certificate_p_web.lock"


def held(w, program):
    """Who holds what while the program runs for the last time: {("/tmp/x.lock", "FLOCK", "WRITE"), ...}"""
    files = {
        f"{os.major(s.st_dev):02x}:{os.minor(s.st_dev):02x}:{s.st_ino}": path
        for path in (INFO, SERVICES, RECOVER, WEB)
        if os.path.exists(path)
        for s in [os.stat(path)]
    }
    lines = [line.split() for line in w.sh(f"cat $ROW/locks.{program}").splitlines()]
    return {(files[line[-3]], line[1], line[3]) for line in lines if line[-3] in files}


def test_each_step_holds_its_lock_and_no_other_in_both_kinds(w):
    w.sh("rm c/cert.pem")
    for program in ("openssl", "cp", "systemctl", "rm"):  # The last run of each is seen.
        w.replace(f"/usr/bin/{program}", f'cat /proc/locks > /run/row/locks.{program}; exec $REAL "$@"')
    w.define("p", "web")
    w.ok("opalcrtregister p; opalcrtunregister p")
    for program, path in (("openssl", RECOVER), ("cp", WEB), ("systemctl", None), ("rm", INFO)):
        assert held(w, program) == {(path, kind, "WRITE") for kind in ("FLOCK", "OFDLCK") if path}
    assert {what for path, what in w.tree("/tmp").items()} == {"-rw------- root root"}


# By either kind of lock. What its holder changes meanwhile is neither lost nor overlooked.
@pytest.mark.parametrize("record", [False, True])
@pytest.mark.parametrize(
    "command, lock, shared, left",
    [
        ("opalcrtregister p", SERVICES, True, {"c": ["p/web"], "list": ["n/new", "p/web"]}),
        ("opalcrtregister p", INFO, False, {"c": [], "n": ["p/web"], "list": ["p/web"]}),
        ("opalcrtregister p", INFO, True, {"c": ["p/web"], "n": ["p/web"], "list": ["p/web"]}),
        ("opalcrtunregister q web || :", SERVICES, True, {"c": [], "list": ["n/new"]}),
        ("opalcrtunregister p", INFO, True, {"c": [], "n": [], "list": []}),
    ],
)
def test_waits_for_whoever_holds_the_lock(w, command, lock, shared, left, record):
    w.define("p", "web")
    w.sh("mkdir -p $P/p/web" if "unregister p" in command else "")
    holder = w.hold(lock, shared, record)
    child = w.start(command)
    time.sleep(0.25)
    assert child.poll() is None
    if lock == SERVICES:
        w.write(services=[service("new", "n")])
    else:
        w.write({"c": {"services": []}, "n": {"services": [service("web")]}})
        w.crt("n")
    os.close(holder)
    w.locks.remove(holder)
    assert child.wait(5) == 0 and w.books() == left


@pytest.mark.slow
def test_is_waited_for_no_longer_than_its_time(w):
    waits, q = [], service("web", "q")
    w.write({"c": {"services": []}, "d": {"services": []}, "e": {"services": [q]}})
    for name in "psu":
        w.define(name, "web")

    def start(seconds, command, line):
        waits.append((time.monotonic(), w.start(command), seconds, line))

    def end(count):  # Those that end first are the first.
        for begin, child, seconds, line in waits[:count]:
            child.wait(seconds + 5)
            assert seconds <= time.monotonic() - begin < seconds + 3, line
        del waits[:count]

    info, *_ = w.hold(INFO, shared=True), w.hold(WEB), w.hold(RECOVER)
    start(10, "opalcrtunregister q", f"opalcrtregister.cpp Lock list file [{INFO}] failed")
    start(30, "opalcrtregister u", f"utils.cpp Lock list file [{INFO}] failed")
    start(30, f"{CALL} CheckAndRecoverCrt '[\"d\"]'", f"utils.cpp Failed to lock file [{RECOVER}]")
    start(60, "opalcrtregister p", f"utils.cpp Failed to lock [{WEB}]")
    time.sleep(1)
    w.hold(SERVICES)
    start(60, "opalcrtregister s", f"opalcrtregister.cpp Failed to lock [{SERVICES}]")
    lines = [each[-1] for each in waits]
    end(3)
    fcntl.flock(info, fcntl.LOCK_EX | fcntl.LOCK_NB)
    start(
        30, f"{CALL} GetServiceCrtId {shlex.quote(json.dumps([q, '']))}", f"utils.cpp Failed to lock [{INFO}]"
    )
    end(3)
    log = w.log.take()
    assert all(line in log for line in (*lines, f"utils.cpp Failed to lock [{INFO}]"))
    assert sorted(w.books()["list"]) == ["p/web", "u/web"] and w.json("INFO")["c"]["services"] == []


def lock(w, path, seconds=0, keep=0):
    """None when the lock was taken, else the name of the error. Without a wait where there is nothing to wait for."""
    begin = time.monotonic()
    taken = w.call("Lock", path, 1, seconds, keep)
    assert keep or time.monotonic() - begin < 1
    return None if taken else errno.errorcode[w.answer["errno"]]


def test_a_planted_lock_file_is_neither_taken_nor_waited_for(w):
    w.sh(
        "cd /tmp; touch victim open theirs; ln -s victim link; ln -s none dangling; mkfifo fifo; mkdir dir; ln open more;"
        "chown opalmail theirs; chmod 0 theirs"
    )
    before = w.tree("/tmp", content=True)
    for name, error in [
        ("link", "ELOOP"),
        ("dangling", "ELOOP"),
        ("fifo", "EINVAL"),
        ("dir", "EISDIR"),
        ("open", "EPERM"),
        ("none/x", "ENOENT"),
    ]:
        assert lock(w, f"/tmp/{name}", 9) == error
    assert w.tree("/tmp", content=True) == before
    # Another user's file becomes root's: its owner could rename it while it is locked, and lock the next one.
    assert lock(w, "/tmp/theirs") is None and w.tree("/tmp")["theirs"] == "-rw------- root root"
    w.hold("/tmp/theirs", shared=True)
    assert lock(w, "/tmp/theirs") == "ETIMEDOUT" and w.answer["state"] == 0x0400
    w.sh(f"chown opalmail {INFO} 2>/dev/null || touch {INFO}; chown opalmail {INFO}")
    # With fs.protected_regular the kernel refuses root another user's file in /tmp when O_CREAT is asked for.
    w.run("opalcrtunregister p", inject="openat:delay_enter=0")
    assert not [
        each
        for each in (ROW / "strace").read_text().splitlines()
        if "info.lock" in each and "O_CREAT" in each
    ]


def test_a_lock_file_that_was_removed_meanwhile_guards_nothing(w):
    holder = w.hold("/tmp/some.lock")
    child = w.start(f"{CALL} Lock '[\"/tmp/some.lock\", 1, 5, 1]'")
    time.sleep(0.2)
    os.unlink("/tmp/some.lock")
    os.close(holder)
    w.locks.clear()
    time.sleep(0.3)
    assert lock(w, "/tmp/some.lock") == "ETIMEDOUT" and child.wait(5) == 0


def test_a_lock_that_cannot_be_released_is_only_logged(w):
    w.sh("rm c/cert.pem")
    w.define("p", "web")
    front, store = "opalcrtregister.cpp Failed to unlock [%s]\n", "utils.cpp Failed to unlock %s\n"
    lines = [front % SERVICES, store % RECOVER, store % INFO, store % WEB, store % INFO]
    w.ok("opalcrtregister p", *lines, inject="flock:error=EIO:when=2+2")
    w.ok("opalcrtunregister p", front % SERVICES, front % INFO, inject="flock:error=EIO:when=3+1")
