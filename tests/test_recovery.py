# Certificates that lack files: who mends them, what a mend that fails or is cut off leaves, and who is told.
import re

import pytest
from conftest import A, ROW, service

FAILED = "Failed to DeployDefCrt for p"
REAL = "utils.cpp Path not match, maybe bugs or attacked\nutils.cpp Folder not exits [$A/c]\n"
LACKS = "utils.cpp Lack of necessary files in cert dir [$A/c]"
START = "utils.cpp c is incomplete, start recovering"
BUS = "utils.cpp Failed to send notification for certificate broken"
MARK = A / "c/.mending"
WHOLE = f"""set -e; export SSL_CERT_FILE=/dev/null; cmp cert.pem fullchain.pem
openssl verify -CAfile $(ls opal-ca-cert.pem || echo cert.pem) cert.pem
openssl x509 -in cert.pem -noout -pubkey > {ROW}/k; openssl pkey -in privkey.pem -pubout | cmp - {ROW}/k"""


KEY = "stat -c %%a%%U $5 >> /run/row/keys; set -- ecparam -name prime256v1 -genkey -noout -out $5"


# RSA keys and the certificates of all authorities take most of a mend's time. A row's own cases come first.
@pytest.fixture(autouse=True)
def quick(w):
    script = 'export SSL_CERT_FILE=/dev/null; case "$*" in %s genrsa*) {};; esac; exec $REAL "$@"'.format(KEY)
    w.ssl = lambda own="": w.replace("/usr/bin/openssl", script % own)
    w.ssl()


# It is a whole new set, marked as broken and no more as being mended. A key file that stood there is root's own before
# the new key is written into it.
def mended(w, cert_id="c"):
    assert {*(ROW / "keys").read_text().split()} <= {"600root"}
    assert w.json(f"{cert_id}/cert_info") == {"is_broken": True} and not (A / cert_id / ".mending").exists()
    return w.sh(f"cd {cert_id}; {WHOLE}")


@pytest.mark.parametrize("name", ["cert.pem", "privkey.pem", "fullchain.pem", "ECC-privkey.pem"])
def test_mends_what_lacks_a_file_and_leaves_the_complete_alone(w, name):
    (A / "c/renew.json").write_text('{"key_types": "RSA/ECC"}')
    w.crt("c", "RSA-")
    w.crt("c", "ECC-")
    w.sh("""cd c; echo '{"more": 1}' > cert_info; echo kept > 0; chmod 0644 privkey.pem""")
    w.sh(f"cd c; chown opalweb privkey.pem; mv {name} $ROW/lost")
    for _ in range(1 + (name[3] == "-")):  # Those of key types are missed and not made.
        assert w.call("CheckAndRecoverCrt", "c") and w.said.log == [LACKS, START, BUS] and mended(w)
    before = w.sh(f"[ -e c/{name} ] || cp {ROW}/lost c/{name}; cat c/*; ls -l --full-time c .")
    assert w.call("CheckAndRecoverCrt", "c") and not w.said.log
    assert w.sh("cat c/*; ls -l --full-time c .") == before and before.startswith("kept")


@pytest.mark.parametrize("scene, trail", [
    ("mv c /usr/opal/x; ln -s /usr/opal/x c", REAL), ("rm -r c", REAL), ("touch c/.mending", LACKS),
    ("rm c/fullchain.pem; ln -s fullchain.pem c/fullchain.pem", LACKS),
    (f"rm c/cert.pem; ln -s {'0' * 256} c/cert.pem", LACKS),
    ("rm c/cert.pem; mkdir -p c/.mending.new/x", LACKS),  # A mark that cannot be written stops nothing.
], ids=lambda scene: scene[:20])  # fmt: skip
def test_mends_what_is_no_real_folder_or_not_whole(w, scene, trail):
    w.sh(scene)
    assert w.call("CheckAndRecoverCrt", "c") and w.said.logged(trail, START) and mended(w)


def test_ids_that_info_does_not_know_are_refused(w):
    ids = "unlisted", "number", "", "..", "c/", "x/../c", "none"
    w.write(info={"c": {}, **dict.fromkeys(ids[2:6], {}), "number": 5})
    for cert_id in ids:
        assert not w.call("CheckAndRecoverCrt", cert_id)
        assert w.said.log == [f"utils.cpp Invalid cert id: [{cert_id}]"]


# What cannot be looked at is not missing: the key beside it may be good.
@pytest.mark.parametrize("call, path, trail", [
    ("readlink", "/usr", "Failed to get realpath [5]"),
    ("?newfstatat,?stat", f"{A}/c/privkey.pem", LACKS), ("?newfstatat,?stat", MARK, LACKS),
])  # fmt: skip
def test_nothing_is_generated_on_an_error_of_the_disk(w, call, path, trail):
    w.define("p", "web")
    before = w.tree(A / "c", content=True)
    trail = trail, "utils.cpp Failed to recover certificate for [c]"
    w.fails("opalcrtregister p", FAILED, *trail, inject=f"{call}:error=EIO -P {path}")
    assert w.tree(A / "c", content=True) == before


RUN, ASK, MATCH = "Error when execute", "Create CSR failed, command", "and key is not matching"
CA, SET = "Generate CA key & crt failed", "Failed to generate cert set"
FAILS = [
    ("*", RUN, "genCAKey() failed", CA), ("req*ca.cfg*", ASK, "genCACsr() failed", CA),
    ("*-signkey*", RUN, "genCACrt() failed", CA), ("*-signkey*", f"Root certificate {MATCH}", CA),
    ("*c/privkey.pem*2048*", RUN, "Failed to generate key", SET), ("*CAserial*", f"cert {MATCH}.", SET),
    ("*server.cfg*", ASK, "Failed to generate csr", SET), ("*CAserial*", RUN, "Failed to generate cert", SET),
    ("/bin/cp", "Failed to copy crt to chain crt.", SET), ("/bin/mkdir", "Failed to mkdir -p [$A/c] (5)"),
]  # fmt: skip


# Each program that a mend runs fails. Nothing is removed, and what then looks whole keeps its mark.
@pytest.mark.parametrize("scene, fail", [
    ("touch c/.mending", FAILS[0]), *(("rm c/cert.pem", fail) for fail in FAILS),
    ("rm c/cert.pem c/privkey.pem; mkfifo c/privkey.pem", (":", RUN, "Failed to generate key", SET)),
])  # fmt: skip
def test_a_failed_mend_removes_nothing(w, scene, fail):
    program, *trail = fail
    w.sh(f"cp c/cert.pem other; {scene}; echo old | tee c/opal-ca-cert.pem > c/opal-ca-privkey.pem")
    before = set(w.tree(A / "c")) - {".mending"}
    action = f"cp {A}/other ${{11}}" if MATCH in trail[0] else "exit 1"
    w.replace(program, action) if program[0] == "/" else w.ssl(f"{program}) {action}; exit;;")
    w.define("p", "web")
    lines = [START, *(f"mkcert.cpp {each}\n" for each in trail), "Failed to generate default certificate to"]
    w.fails("opalcrtregister p", FAILED, *lines, "utils.cpp Failed to recover certificate", timeout=20)
    assert before <= set(w.tree(A / "c")) and MARK.exists() == (A / "c/cert.pem").exists()


def test_a_certificate_whose_cert_info_cannot_be_written_is_complete(w):
    w.sh("rm c/cert.pem; mkdir -p c/cert_info.new/x")
    assert not w.call("CheckAndRecoverCrt", "c") and w.said.logged("Failed to write cert info [21]")
    assert w.call("CheckAndRecoverCrt", "c") and not w.said.log and not MARK.exists()


def test_a_registration_mends_the_certificate_that_it_needs(w):
    w.crt("x")
    w.write(info={"c": {"services": []}, "x": {"services": [service("web")]}})
    w.define("p", "web")
    w.sh("touch x/.mending")
    w.ok("opalcrtregister p; cmp x/cert.pem $P/p/web/cert.pem", "x is incomplete, start recovering", BUS)
    assert mended(w, "x") and not (A / "c/cert_info").exists()


# What openssl and cp write is the certificate's own: nothing else changes, and no key is readable on the way.
@pytest.mark.parametrize("link", ["ln -s", "ln"])
def test_a_link_is_replaced_and_what_it_leads_to_stays(w, link):
    names = "cert.pem fullchain.pem opal-ca-cert.pem opal-ca-privkey.pem privkey.pem cert_info"
    w.sh(f"cd c; rm *; for i in {names}; do echo $i > /usr/opal/$i; {link} /usr/opal/$i; done")
    MARK.touch()
    look = "cd /usr/opal; cat *.pem cert_info; stat -c %a%U *.pem cert_info"
    before = w.sh(look)
    assert w.call("CheckAndRecoverCrt", "c") and mended(w) and w.sh(look) == before
    assert set(w.sh("stat -c '%F %h %a' c/*.pem").splitlines()) == {"regular file 1 400"}


# What must be on the disk before what: the order of the calls is all that can be seen of it here.
def test_syncs_before_it_removes_or_renames(w):
    w.sh("rm c/privkey.pem; touch c/chain.pem; mkdir -p $P/p/web; touch $P/p/web/1")
    w.define("p", "web")
    calls = "fsync,execve,?rename,?renameat,?renameat2,?unlink,?unlinkat"
    strace = f"strace -f -qq -y -s 300 -e signal=none -e trace={calls} -o {ROW}/trace"
    w.ok(f"ASAN_OPTIONS=$ASAN_OPTIONS:detect_leaks=0 {strace} opalcrtregister p")
    syncs = r"fsync\(.*/(c|c/.*|\.mkcert\.serial\S*|p|p/web\S*)>"
    names = r'unlink\w*\(.*/(\.mending)"|rename.*, .*"\S*/c(/.*)"|(rename)\w*\(.*/web\.temp", '
    found = rf'{syncs}|{names}|"(genrsa|emit|-arp)",|-rf", "\S*p/(\S*)"'
    found = [next(filter(None, each)) for each in re.findall(found, (ROW / "trace").read_text())]
    made = "opal-ca-privkey.pem opal-ca-cert.pem privkey.pem cert.pem fullchain.pem .mkcert.serial c"
    told = "cert_info.new /cert_info c emit"
    mend = f".mending.new /.mending c genrsa genrsa .mkcert.serial.new {made} {told} .mending c"
    copies = "cert.pem privkey.pem fullchain.pem chain.pem opal-ca-cert.pem info.new".replace(" ", " temp/")
    deployment = f"p temp/{copies} temp web.bak -arp bak/1 bak p web rename p web.bak"
    seen = " ".join(each.removeprefix("c/").removeprefix("p/web.") for each in found)
    assert seen == f"{mend} {deployment}"
