# The four kinds of lock file: when each is held, how long it is waited for, and what is planted in its place.
import errno, fcntl, json, os, shlex, time

import pytest
from conftest import CALL, ROW, service

INFO, SERVICES = "/tmp/opalcertificate_info.lock", "/tmp/opal_cert_register_services.lock"
RECOVER, WEB = "/tmp/opal_cert_recover.lock", "/tmp/certificate_p_web.lock"


def test_each_step_holds_its_lock_and_no_other_in_both_kinds(w):
    w.sh("rm c/cert.pem")
    for program in ("openssl", "cp", "systemctl", "rm"):  # The last run of each is seen.
        w.replace(f"/usr/bin/{program}", f'cat /proc/locks > /run/row/locks.{program}; exec $REAL "$@"')
    w.define("p", "web")
    w.ok("opalcrtregister p; opalcrtunregister p")
    inodes = {str(os.stat(path).st_ino): path for path in (INFO, SERVICES, RECOVER, WEB)}
    for program, path in (("openssl", RECOVER), ("cp", WEB), ("systemctl", None), ("rm", INFO)):
        lines = [line.split() for line in w.sh(f"cat $ROW/locks.{program}").splitlines()]
        held = [(line[1], line[3], inodes.get(line[-3].split(":")[2])) for line in lines]
        wanted = [(kind, "WRITE", path) for kind in ("FLOCK", "OFDLCK") if path]
        assert sorted(each for each in held if each[2]) == wanted
    assert {*w.tree("/tmp").values()} == {"-rw------- root root"}


# By either kind of lock. What its holder changes meanwhile is neither lost nor overlooked.
# fmt: off
@pytest.mark.parametrize("record", [False, True])
@pytest.mark.parametrize("command, lock, shared, left", [
    ("opalcrtregister p", SERVICES, True, {"c": ["p/web"], "list": ["n/new", "p/web"]}),
    ("opalcrtregister p", INFO, False, {"c": [], "n": ["p/web"], "list": ["p/web"]}),
    ("opalcrtregister p", INFO, True, {"c": ["p/web"], "n": ["p/web"], "list": ["p/web"]}),
    ("opalcrtunregister p", SERVICES, True, {"c": [], "list": ["n/new"]}),
    ("opalcrtunregister p", INFO, True, {"c": [], "n": [], "list": []}),
])
# fmt: on
def test_waits_for_whoever_holds_the_lock(w, command, lock, shared, left, record):
    w.define("p", "web")
    w.crt("n")
    holder = w.hold(lock, shared, record)
    child = w.start(command)
    time.sleep(0.2)
    assert child.poll() is None
    w.write(services=[service("new", "n")] if lock == SERVICES else None)
    w.write({"c": {"services": []}, "n": {"services": [service("web")]}} if lock == INFO else None)
    os.close(w.locks.pop())
    child.wait(5)
    assert holder and w.books() == left


@pytest.mark.slow
def test_is_waited_for_no_longer_than_its_time(w):
    waits, lines, q = [], [], service("web", "q")
    w.write({"c": {"services": []}, "d": {"services": []}, "e": {"services": [q]}})
    for name in "psu":
        w.define(name, "web")

    def start(seconds, command, line):
        lines.append(line)
        waits.append((time.monotonic(), seconds, w.start(command)))

    def end(count):  # Those that end first are the first.
        for begin, seconds, child in waits[:count]:
            child.wait(seconds + 5)
            assert seconds <= time.monotonic() - begin < seconds + 3, child.args
        del waits[:count]

    info, *_ = w.hold(INFO, shared=True), w.hold(WEB), w.hold(RECOVER)
    start(10, "opalcrtunregister q", f"opalcrtregister.cpp Lock list file [{INFO}] failed")
    start(30, "opalcrtregister u", f"utils.cpp Lock list file [{INFO}] failed")
    start(30, f"{CALL} CheckAndRecoverCrt '[\"d\"]'", f"utils.cpp Failed to lock file [{RECOVER}]")
    start(60, "opalcrtregister p", f"utils.cpp Failed to lock [{WEB}]")
    time.sleep(1)
    w.hold(SERVICES)
    start(60, "opalcrtregister s", f"opalcrtregister.cpp Failed to lock [{SERVICES}]")
    end(3)
    fcntl.flock(info, fcntl.LOCK_EX | fcntl.LOCK_NB)
    look = f"{CALL} GetServiceCrtId {shlex.quote(json.dumps([q, '']))}"
    start(30, look, f"utils.cpp Failed to lock [{INFO}]")
    end(3)
    assert {*lines} <= {*w.log.take()} and not w.json("INFO")["c"]["services"]


# None when the lock was taken, else the name of the error. Without a wait where there is nothing to wait for.
def lock(w, path, seconds=0):
    begin = time.monotonic()
    taken = w.call("Lock", path, 1, seconds, 0)
    assert time.monotonic() - begin < 1
    return None if taken else errno.errorcode[w.answer["errno"]]


def test_a_planted_lock_file_is_neither_taken_nor_waited_for(w):
    w.sh(f"cd /tmp; touch victim open theirs {INFO}; ln -s victim link; ln -s none dangling; ln open more")
    w.sh(f"cd /tmp; mkfifo fifo; mkdir dir; chown opalmail theirs {INFO}; chmod 0 theirs")
    before = w.tree("/tmp", content=True)
    for each in "link:ELOOP dangling:ELOOP fifo:EINVAL dir:EISDIR open:EPERM none/x:ENOENT".split():
        name, error = each.split(":")
        assert lock(w, f"/tmp/{name}", 9) == error
    assert w.tree("/tmp", content=True) == before
    # Another user's file becomes root's: its owner could rename it while it is locked, and lock the next one.
    assert lock(w, "/tmp/theirs") is None and w.tree("/tmp")["theirs"] == "-rw------- root root"
    w.hold("/tmp/theirs", shared=True)
    assert lock(w, "/tmp/theirs") == "ETIMEDOUT" and w.answer["state"] == 0x0400
    # With fs.protected_regular the kernel refuses root another user's file in /tmp when O_CREAT is asked for.
    w.run("opalcrtunregister p", inject="openat:delay_enter=0")
    opened = [line for line in (ROW / "strace").read_text().splitlines() if INFO in line]
    assert len(opened) == 1 and "O_CREAT" not in opened[0]


def test_a_lock_file_that_was_removed_meanwhile_guards_nothing(w):
    w.hold("/tmp/some.lock")
    w.start(f"{CALL} Lock '[\"/tmp/some.lock\", 1, 5, 1]'")
    time.sleep(0.2)
    os.unlink("/tmp/some.lock")
    os.close(w.locks.pop())
    time.sleep(0.2)
    assert lock(w, "/tmp/some.lock") == "ETIMEDOUT"


def test_a_lock_that_cannot_be_released_is_only_logged(w):
    w.sh("rm c/cert.pem")
    w.define("p", "web")
    front, store = "opalcrtregister.cpp Failed to unlock [%s]\n", "utils.cpp Failed to unlock %s\n"
    lines = [front % SERVICES, store % RECOVER, store % INFO, store % WEB, store % INFO]
    w.ok("opalcrtregister p", *lines, inject="flock:error=EIO:when=2+2")
    w.ok("opalcrtunregister p", front % SERVICES, front % INFO, inject="flock:error=EIO:when=3+1")
