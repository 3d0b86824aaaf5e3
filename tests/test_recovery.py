# Certificates that have lost files: who mends them, what a mend that fails or is cut off leaves, and who is told.
import fcntl
import re
import time

import pytest
from conftest import A, CALL, P, ROW, service

FAILED = "Failed to DeployDefCrt for p"
REAL = "utils.cpp Path not match, maybe bugs or attacked\nutils.cpp Folder not exits [$A/c]\n"
LACKS = "utils.cpp Lack of necessary files in cert dir [$A/c]"
START = "utils.cpp c is incomplete, start recovering"
BUS = "utils.cpp Failed to send notification for certificate broken"
FILES = ["cert.pem", "fullchain.pem", "opal-ca-cert.pem", "opal-ca-privkey.pem", "privkey.pem"]
MARK, RECOVERY_LOCK = A / "c/.mending", "/tmp/opal_cert_recover.lock"
CHECK = f"""{CALL} CheckAndRecoverCrt '["%s"]' >/dev/null"""
TRACE = """ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 strace -f -qq -y -s 300 -e signal=none
    -e trace=fsync,execve,?rename,?renameat,?renameat2,?unlink,?unlinkat""".replace(
    "\n", ""
)
WHOLE = f"""set -e; cmp cert.pem fullchain.pem; openssl verify -CAfile opal-ca-cert.pem cert.pem
    openssl x509 -in cert.pem -noout -pubkey > {ROW}/key; openssl pkey -in privkey.pem -pubout | cmp - {ROW}/key"""


@pytest.fixture(autouse=True)
def quick_keys(w):
    w.openssl = lambda cases="": w.replace(
        "/usr/bin/openssl",
        f"""case "$*" in {cases} genrsa*) shift 4; exec $REAL ecparam -name prime256v1 -genkey -noout -out $1;; esac
        exec $REAL "$@\"""",
    )
    w.openssl()


def mended(w, cert_id="c"):
    """It is a whole new set that is marked as broken and not as being mended."""
    assert w.json(f"{cert_id}/cert_info") == {"is_broken": True} and not (A / cert_id / ".mending").exists()
    w.sh(f"cd {cert_id}; {WHOLE}")
    return True


def test_mends_what_lacks_a_file_and_leaves_the_complete_alone(w):
    w.sh("""echo '{"is_broken": false, "more": 1}' > c/cert_info; echo kept > c/other""")
    for name in ("cert.pem", "privkey.pem", "fullchain.pem"):
        w.sh(f"rm c/{name}")
        assert w.call("CheckAndRecoverCrt", "c") and w.said.log == [LACKS, START, BUS] and mended(w)
        before = w.sh("cat c/other c/*.pem; ls -l --full-time c .")
        assert w.call("CheckAndRecoverCrt", "c") and not w.said.log
        assert w.sh("cat c/other c/*.pem; ls -l --full-time c .") == before and before.startswith("kept")


@pytest.mark.parametrize(
    "scene, trail",
    [
        ("mv c /usr/opal/x; ln -s /usr/opal/x c", REAL),
        ("rm -r c", REAL),
        ("touch c/.mending", LACKS),
        ("cd c; rm fullchain.pem; ln -s fullchain.pem fullchain.pem", LACKS),
        ("rm c/cert.pem; mkdir -p c/.mending.new/x", LACKS),
        (f"rm c/cert.pem; ln -s {'0' * 256} c/cert.pem", LACKS),
    ],
)
def test_mends_what_is_no_real_folder_or_not_whole(w, scene, trail):
    w.sh(scene)
    assert w.call("CheckAndRecoverCrt", "c") and w.said.logged(trail, START) and mended(w)


def test_files_of_key_types_are_missed_but_not_made(w):
    (A / "c/renew.json").write_text('{"key_types": "RSA/ECC"}')
    w.crt("c", "RSA-")
    w.crt("c", "ECC-")
    for name in ("ECC-cert.pem", "RSA-fullchain.pem", "RSA-privkey.pem"):
        w.sh(f"mv c/{name} c/kept")
        for _ in (1, 2):
            assert w.call("CheckAndRecoverCrt", "c") and w.said.log == [LACKS, START, BUS]
        w.sh(f"mv c/kept c/{name}")
    assert w.call("CheckAndRecoverCrt", "c") and not w.said.log


def test_ids_that_info_does_not_know_are_refused(w):
    w.books(info={"c": {}, "number": 5, "..": {}, "c/": {}, "x/../c": {}, "": {}})
    w.sh("mkdir unlisted; mv c kept; ln -s c c")
    for cert_id in ("unlisted", "number", "", "..", "c/", "x/../c", "none"):
        assert not w.call("CheckAndRecoverCrt", cert_id)
        assert w.said.log == [f"utils.cpp Invalid cert id: [{cert_id}]"]
    assert w.sh("ls unlisted") == "" and not w.call("CheckAndRecoverCrt", "c")


# What cannot be looked at is not missing: the key beside it may be good.
@pytest.mark.parametrize(
    "call, path, trail",
    [
        ("readlink", "/usr", "Failed to get realpath [5]"),
        *[("newfstatat,stat", f"{A}/{name}", LACKS) for name in ("c/privkey.pem", "c/.mending")],
    ],
)
def test_nothing_is_generated_on_an_error_of_the_disk(w, call, path, trail):
    w.define("p", "web")
    before = w.tree(A / "c", content=True)
    inject = ",".join(f"?{each}" for each in call.split(",")) + f":error=EIO -P {path}"
    w.fails("opalcrtregister p", FAILED, trail, "Failed to recover certificate for [c]", inject=inject)
    assert w.tree(A / "c", content=True) == before


# Each program that a mend runs fails once. Nothing is removed; what then looks whole keeps its mark.
END = "utils.cpp Failed to generate default certificate to recover for [c]\n"
CA = "mkcert.cpp Generate CA key & crt failed\n" + END
SET = "mkcert.cpp Failed to generate cert set\n" + END


@pytest.mark.parametrize(
    "case, action, trail",
    [
        ("*", "exit 1", "Error when execute\nmkcert.cpp genCAKey() failed\n" + CA),
        ("req*ca.cfg*", "exit 1", "Create CSR failed, command\nmkcert.cpp genCACsr() failed\n" + CA),
        ("*-signkey*", "exit 1", "Error when execute\nmkcert.cpp genCACrt() failed\n" + CA),
        ("*-signkey*", f"exec cp {ROW}/other ${{11}}", "mkcert.cpp Root certificate and key is not matching\n" + CA),
        ("*c/privkey.pem*2048*", "exit 1", "Error when execute\nmkcert.cpp Failed to generate key\n" + SET),
        ("*server.cfg*", "exit 1", "Create CSR failed, command\nmkcert.cpp Failed to generate csr\n" + SET),
        ("*CAserial*", "exit 1", "Error when execute\nmkcert.cpp Failed to generate cert\n" + SET),
        ("*CAserial*", f"exec cp {ROW}/other ${{11}}", "mkcert.cpp cert and key is not matching.\n" + SET),
        ("/bin/cp", ": > $3; exit 1", "mkcert.cpp Failed to copy crt to chain crt.\n" + SET),
        ("/bin/mkdir", "exit 1", "mkcert.cpp Failed to mkdir -p [$A/c] (5)\n"),
    ],
)  # fmt: skip
def test_a_failed_mend_removes_nothing_and_is_made_again(w, case, action, trail):
    w.sh(f"cp c/cert.pem {ROW}/other; cd c; echo old | tee privkey.pem opal-ca-cert.pem > fullchain.pem")
    w.define("p", "web")
    (A / "c/cert.pem").rename(A / "c/kept")
    for scene in ("true", "mv c/kept c/cert.pem; touch c/.mending"):
        w.sh(scene)
        before = set(w.tree(A / "c"))
        w.replace(case, action) if case[0] == "/" else w.openssl(f"{case}) {action};;")
        w.fails("opalcrtregister p", FAILED, START, trail, "Failed to recover certificate for [c]")
        assert before - {".mending"} <= set(w.tree(A / "c"))
        assert MARK.exists() == (A / "c/cert.pem").exists()
        w.define("p", "web")
    w.openssl()
    w.replace(case, 'exec $REAL "$@"') if case[0] == "/" else None
    w.ok("opalcrtregister p", START, BUS)
    mended(w)


def test_a_certificate_whose_cert_info_cannot_be_written_is_complete(w):
    w.sh("rm c/cert.pem; mkdir -p c/cert_info.new/x")
    assert not w.call("CheckAndRecoverCrt", "c")
    assert w.said.logged(
        "utils.cpp Failed to write cert info [21]\nutils.cpp Failed to recover certificate for [c]"
    )
    assert not MARK.exists() and w.call("CheckAndRecoverCrt", "c") and not w.said.log


def test_a_mend_that_was_killed_is_made_again_by_the_registration_that_needs_it(w):
    w.crt("x")
    w.books(info={"c": {"services": []}, "x": {"services": [service("web")]}})
    w.replace("/bin/cp", "kill -9 $PPID")
    w.sh(f"rm x/cert.pem; {CHECK % 'x'}; [ $? = 137 ]; ls x/*.pem x/.mending")
    w.replace("/bin/cp", 'exec $REAL "$@"')
    w.define("p", "web")
    w.ok("opalcrtregister p", "utils.cpp x is incomplete, start recovering", BUS)
    mended(w, "x")
    assert (P / "p/web/cert.pem").read_bytes() == (A / "x/cert.pem").read_bytes() and not (
        A / "c/cert_info"
    ).exists()


def test_who_meets_a_mend_waits_for_it(w):
    before = w.sh("cat c/*")
    lock = w.hold(RECOVERY_LOCK)
    MARK.touch()
    w.define("p", "web")
    child = w.start("opalcrtregister p")
    time.sleep(0.3)
    assert child.poll() is None
    MARK.unlink()
    fcntl.flock(lock, fcntl.LOCK_UN)
    assert child.communicate()[0] == b"" and child.returncode == 0
    assert START not in w.log.take() and w.sh("cat c/*") == before


# All four find it at once, and then each copies while another mends.
def test_many_at_once_mend_once_for_each_that_found_it_and_nobody_fails(w):
    w.sh("rm c/fullchain.pem")
    lock = w.hold(RECOVERY_LOCK)
    for name in "pqrs":
        w.define(name, "web", "mail")
    children = [w.start(f"opalcrtregister {name}") for name in "pqrs"]
    time.sleep(0.3)
    fcntl.flock(lock, fcntl.LOCK_UN)
    assert [(child.communicate()[0], child.returncode) for child in children] == [(b"", 0)] * 4
    assert 1 <= w.log.take().count(START) <= 4 and mended(w)
    w.sh(f"for i in $P/*/*/; do cd $i; {WHOLE}; done")


# What openssl and cp write is the certificate's own: nothing else changes, and no key is readable on the way.
@pytest.mark.parametrize("link", ["ln -s", "ln"])
def test_a_link_is_replaced_and_what_it_leads_to_stays(w, link):
    w.sh(
        f"mkdir /usr/opal/x; cd c; rm *; for i in {' '.join(FILES)}; do echo $i > /usr/opal/x/$i; {link} /usr/opal/x/$i; done"
    )
    MARK.touch()
    before = w.tree("/usr/opal/x", content=True)
    assert w.call("CheckAndRecoverCrt", "c") and mended(w)
    assert w.tree("/usr/opal/x", content=True) == before
    assert set(w.sh("stat -c '%F %h %a' c/*.pem").splitlines()) == {"regular file 1 400"}


def test_a_key_that_stands_there_is_roots_before_it_is_written(w):
    w.sh("rm c/cert.pem; chmod 0644 c/privkey.pem; chown opalweb:opalweb c/privkey.pem")
    w.openssl(
        f"genrsa*c/privkey.pem*) stat -c '%a %U' $5 > {ROW}/seen; exec $REAL ecparam -name prime256v1 -genkey -noout -out $5;;"
    )
    assert w.call("CheckAndRecoverCrt", "c") and (ROW / "seen").read_text() == "600 root\n"


def test_syncs_the_set_before_its_mark_goes(w):
    w.sh("rm c/privkey.pem")
    w.sh(f"{TRACE} -o {ROW}/trace {CHECK % 'c'}")
    pattern = r'fsync\(.*/(c|c/.*|\.mkcert\.serial\S*)>|unlink\w*\(.*/(\.mending)"|"(genrsa|emit)",|rename.*, .*"(/.*)"'
    found = [next(filter(None, each)) for each in re.findall(pattern, (ROW / "trace").read_text())]
    words = " ".join(each.removeprefix("c/") for each in found).replace(f"{A}/c", "")
    made = "opal-ca-privkey.pem opal-ca-cert.pem privkey.pem cert.pem fullchain.pem .mkcert.serial c"
    serial = ".mkcert.serial.new /usr/opal/etc/ssl/.mkcert.serial"
    marked, told = ".mending.new /.mending c", "cert_info.new /cert_info c emit"
    assert words == f"{marked} genrsa genrsa {serial} {made} {told} .mending c"


# The listener is the system bus's own; the signal is what an administrator would see.
def test_tells_the_system_bus(w):
    heard, match = ROW / "heard", "type='signal',interface='org.opal.Notification'"
    w.sh("mkdir -p /run/dbus; dbus-daemon --system --fork --nopidfile --nosyslog")
    w.start(f'exec busctl --system monitor --match="{match}" > {heard} 2>&1')
    w.sh(f"for i in $(seq 200); do grep -q Ready {heard} && exit; "
         "busctl --system emit / org.opal.Notification Ready; sleep 0.02; done; exit 1")  # fmt: skip
    w.sh("rm c/cert.pem")
    assert w.call("CheckAndRecoverCrt", "c") and w.said.log == [LACKS, START]
    w.sh(f"for i in $(seq 200); do grep -q certificate_broken {heard} && exit; sleep 0.02; done; exit 1")
    text = heard.read_text()
    assert re.search(r"Path=/org/opal/Notification +Interface=org.opal.Notification +Member=Event", text)
    assert text.count('STRING "certificate_broken"') == 1
