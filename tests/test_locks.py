# The four kinds of lock file: when each is held, how long it is waited for, and what is planted in its place.
import errno, json, os, time

import pytest
from conftest import A, CALL, ROW, service

INFO, SERVICES = "/tmp/opalcertificate_info.lock", "/tmp/opal_cert_register_services.lock"
RECOVER, WEB = "/tmp/opal_cert_recover.lock", "/tmp/certificate_p_web.lock"


# By either kind of lock. What its holder changes meanwhile is neither lost nor overlooked.
# fmt: off
@pytest.mark.parametrize("record", [False, True])
@pytest.mark.parametrize("command, lock, shared, left", [
    ("opalcrtregister p", SERVICES, True, {"c": ["p/web"], "list": ["n/new", "p/web"]}),
    ("opalcrtregister p", INFO, False, {"c": [], "n": ["p/web"], "list": ["p/web"]}),
    ("opalcrtregister p", INFO, True, {"c": ["p/web"], "n": ["p/web"], "list": ["p/web"]}),
    ("opalcrtunregister p", SERVICES, True, {"c": [], "list": ["n/new"]}),
    ("opalcrtunregister p", INFO, True, {"c": [], "n": [], "list": []}),
    *[("opalcrtregister p", lock, True, {"c": ["p/web"], "list": ["p/web"]}) for lock in (RECOVER, WEB)],
    ("opalcrt install c --key n/privkey.pem --cert n/cert.pem", RECOVER, True, {"c": [], "list": []}),
])
# fmt: on
def test_waits_for_whoever_holds_the_lock(w, command, lock, shared, left, record):
    w.define("p", "web")
    w.crt("n")
    w.sh("touch c/.mending" if lock == RECOVER else ":")
    w.hold(lock, shared, record)
    child = w.start(command)
    time.sleep(0.2)
    assert child.poll() is None
    w.write(services=[service("new", "n")] if lock == SERVICES else None)
    w.write({"c": {"services": []}, "n": {"services": [service("web")]}} if lock == INFO else None)
    w.sh("rm -f c/.mending")
    os.close(w.locks.pop())
    child.wait(5)
    assert w.books() == left and not (A / "c/cert_info").exists()


DEPLOY = f"{CALL} DeployDefCrt '%s'"
# fmt: off
WAITS = [
    (10, "opalcrtunregister q", f"opalcrtregister.cpp Lock list file [{INFO}] failed"),
    (30, DEPLOY % json.dumps([[service("web", "q")], 3, ""]), f"utils.cpp Lock list file [{INFO}] failed"),
    (30, f"{CALL} CheckAndRecoverCrt '[\"d\"]'", f"utils.cpp Failed to lock file [{RECOVER}]"),
    (60, DEPLOY % json.dumps([[service("web", "p")], 3, ""]), f"utils.cpp Failed to lock [{WEB}]"),
    (60, "opalcrtregister p", f"opalcrtregister.cpp Failed to lock [{SERVICES}]"),
]
# fmt: on


@pytest.mark.slow
def test_is_waited_for_no_longer_than_its_time(w):
    w.write({"c": {"services": []}, "d": {"services": []}})
    w.define("p", "web")
    for path in (INFO, RECOVER, WEB, SERVICES):
        w.hold(path, shared=True)
    begin = time.monotonic()
    for child, (seconds, command, _) in zip([w.start(command) for _, command, _ in WAITS], WAITS):
        child.wait(seconds + 5)
        assert seconds <= time.monotonic() - begin < seconds + 3, command
    assert {line for *_, line in WAITS} <= {*w.log.take()} and w.books() == {"c": [], "d": [], "list": []}


# None when the lock was taken, else the name of the error. Without a wait where there is nothing to wait for.
def lock(w, path, seconds=0):
    begin = time.monotonic()
    taken = w.call("Lock", path, 1, seconds)
    assert time.monotonic() - begin < 1
    return None if taken else errno.errorcode[w.answer["errno"]]


def test_a_planted_lock_file_is_neither_taken_nor_waited_for(w):
    w.sh(f"touch victim open theirs {INFO}; chown opalmail theirs {INFO}; chmod 0 theirs; ln open more")
    w.sh("ln -s victim link; ln -s none dangling; mkfifo fifo; mkdir dir")
    before = w.tree(A, content=True)
    errors = dict(link="ELOOP", dangling="ELOOP", fifo="EINVAL", dir="EISDIR", open="EPERM")
    for name, error in {**errors, "none/x": "ENOENT"}.items():
        assert lock(w, f"{A}/{name}", 9) == error
    assert w.tree(A, content=True) == before
    # Another user's file becomes root's: its owner could rename it while it is locked, and lock the next one.
    assert lock(w, f"{A}/theirs") is None and w.tree(A)["theirs"] == "-rw------- root root"
    w.hold(A / "theirs", shared=True)
    assert lock(w, f"{A}/theirs") == "ETIMEDOUT" and w.answer["state"] == 0x0400
    # With fs.protected_regular the kernel refuses root another user's file in /tmp when O_CREAT is asked for.
    w.run("opalcrtunregister p", inject="openat:delay_enter=0")
    opened = [line for line in (ROW / "strace").read_text().splitlines() if INFO in line]
    assert len(opened) == 1 and "O_CREAT" not in opened[0]


def test_a_lock_file_that_is_removed_before_it_is_locked_guards_nothing(w):
    w.sh("touch /tmp/some.lock")
    w.start("sleep 0.2; rm /tmp/some.lock")
    w.run(f"{CALL} Lock '[\"/tmp/some.lock\", 1, 5]'", inject="flock:delay_enter=400000:when=1")
    assert os.path.exists("/tmp/some.lock")
