# The administrator's command: what status finds, what install refuses and takes, and the other verbs.
import functools, json, os, re, subprocess, tempfile
from pathlib import Path

import pytest
from conftest import A, D, P, ROW, S

# A root, a CA below it (mid), and what they sign, as NAME.pem and NAME.key: name, issuer, first and last day, kind.
MAKE = r"""
printf '[d]\ndatabase=index\npolicy=p\nrand_serial=yes\ncopy_extensions=copy\n[p]\ncommonName=supplied\n' >cfg
: >index; day() { date -u -d "$1 days" +%Y%m%d%H%M%SZ; }
make() { sign="-cert $2.pem -keyfile $2.key"; [ $1 != $2 ] || sign="-selfsign -keyfile $1.key"
    openssl req -new -newkey ${6-ec -pkeyopt ec_paramgen_curve:P-256} -nodes -keyout $1.key -subj /CN=$1 \
        -out csr -addext subjectAltName=DNS:kestrel -addext basicConstraints=critical,CA:${5-false}
    openssl ca -batch -notext -config cfg -name d -md sha256 -outdir . $sign \
        -startdate $(day $3) -enddate $(day $4) -in csr -out $1.pem; }
make root root -9 999 true; make mid root -9 999 true; make good root -9 99; make leaf mid -9 99
make rsa mid -9 99 false rsa:2048; make ended root -9 -1; make future root 1 99; make soon root -9 9
openssl pkey -aes128 -passout pass:x -in leaf.key -out locked.key; openssl genpkey -algorithm ed25519 -out ed.key
head -c 300 leaf.pem >cut; truncate -s 1048577 big; cat leaf.key good.key >two
printf %s "$(cat leaf.pem)" >bare; cat root.pem leaf.key leaf.pem mid.pem | sed 's/$/\r/' >all"""
PUT = """put() { for f in cert fullchain; do cat $ROW/$1.pem >${2-c}/$f.pem; done
    cat $ROW/$1.key >${2-c}/privkey.pem; }
edit() { jq -c "$2" $1 >$ROW/book; cat $ROW/book >$1; }\n"""
DONE = "p/web: has c; its hook ended with 0\np/mail: has c; its hook ended with 0\n"


@functools.cache  # once for each worker
def certificates():
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["sh", "-ec", MAKE], cwd=folder, check=True, capture_output=True)
        return {path.name: path.read_bytes() for path in Path(folder).iterdir()}


# A healthy store: the self-made certificate c has two services of p, whose hook ends with what $ROW/end says.
@pytest.fixture
def store(w):
    for name, content in certificates().items():
        (ROW / name).write_bytes(content)
    w.sh(f"{PUT} put good; cp $ROW/root.pem c/opal-ca-cert.pem; echo 0 >$ROW/end")
    w.define("p", {"service": "web", "display_name": "The web", "multiple_cert": True}, "mail")
    w.sh("opalcrtregister p")
    w.replace("/usr/bin/systemctl", "echo $* >>/run/row/ran")
    (D / "p").write_text("#!/bin/sh\necho hook $1 >>/run/row/ran; exit $(cat /run/row/end)\n")
    (D / "p").chmod(0o755)
    return w


# Everything that a look could change, but the time of the last look; and what an administrator cares about.
def every_bit():
    paths = [path for top in (S, P, D, "/tmp") for path in (Path(top), *Path(top).rglob("*"))]
    looks = {str(path): path.lstat() for path in paths}
    return {path: (*look[:7], look.st_mtime_ns, look.st_ctime_ns) for path, look in looks.items()}


def stores(w):
    return [w.tree(top, content=True) for top in (S, P)]


def codes(report):
    found = re.findall('"code": "([^"]*)", "severity": "([^"]*)"', json.dumps(report))
    return sorted((severity, code) for code, severity in found)


def status(w, arguments=""):
    before, command = every_bit(), f"opalcrt status {arguments}"
    said = w.run(f"{command} >$ROW/text & {command} --json; s=$?; wait $!; exit $s")
    assert every_bit() == before and not said.log and said.out.count("\n") == 1
    assert said.out.startswith('{"format":1,"')
    return said.status, json.loads(said.out), (ROW / "text").read_text()


def test_status_tells_what_there_is(store):
    store.sh("mkdir .n.new $P/p/api.temp")  # as a run makes them that is under way
    ended, report, text = status(store)
    (crt,) = report.pop("certificates")
    assert ended == 0 and report == {"format": 1, "worst": "ok", "findings": []}
    assert 98.9 * 86400 < crt.pop("seconds_left") <= 99 * 86400
    look = """x509() { openssl x509 -in c/cert.pem "$@"; }
        for day in start end; do date -u -d "$(x509 -noout -${day}date | cut -d= -f2)" +%FT%TZ; done
        x509 -outform DER | sha256sum | cut -c-64"""
    assert [crt.pop(name) for name in ("not_before", "not_after", "sha256")] == store.sh(look).split()
    same = {"subscriber": "p", "state": "current", "findings": []}
    services = [{**same, "service": name, "folder": f"{P}/p/{name}"} for name in ("web", "mail")]
    names = dict(id="c", default=True, self_made=True, subject="CN=good", names=["kestrel"], findings=[])
    assert crt == {**names, "services": services}
    head = "ok: 1 certificates, 2 services\nc: default, self-made, CN=good, for kestrel, ends 2"
    left = f" days left\n  p/web: current, {P}/p/web\n  p/mail: current, {P}/p/mail\n"
    assert text.startswith(head) and text.endswith((f", 98{left}", f", 99{left}"))
    assert status(store, "--days 100 c")[0] == 1 and status(store, "c")[0] == 0


# fmt: off
WARNINGS = """expires-soon old-copy mended mend-unfinished listed-twice not-in-services not-in-info orphan-folder
    mended-for-ever""".split()
CRT_FAULTS = [  # In the folder of a certificate that no service has
    ("put ended .", "expired"), ("put future .", "not-yet-valid"), ("put soon .", "expires-soon"),
    ("rm privkey.pem", "incomplete"), ("rm -r $PWD", "incomplete"), ("echo x >cert.pem", "unreadable"),
    ("rm cert.pem; mkfifo cert.pem", "unreadable"), ("cat $ROW/locked.key >privkey.pem", "unreadable"),
    ('printf %s "$(cat cert.pem)" | cat - $ROW/root.pem >fullchain.pem', "unreadable"),
    ("cat $ROW/leaf.key >privkey.pem", "key-mismatch"), ("cat $ROW/leaf.pem >fullchain.pem", "chain-mismatch"),
    ("echo '{\"is_broken\": true}' >cert_info; touch .mending", "mended mend-unfinished"),
    ("mv $PWD $S/real; ln -s $S/real $PWD", "mended-for-ever"),
    ("echo '{\"key_types\": \"ECC\"}' >renew.json", "mended-for-ever"),
]
FAULTS = [  # The services' copies are old where the archive's folder was changed.
    ("rm -r c", "default-unusable incomplete old-copy old-copy"),
    ("rm DEFAULT; mkdir .c.new $P/p/old", "default-unusable orphan-folder orphan-folder"),
    ("echo z >DEFAULT; rm SERVICES", "book-broken default-unusable"),
    ("rm -r $P/p/web; chown opalmail $P/p/mail/privkey.pem", "copy-exposed copy-missing"),
    ("cat $ROW/leaf.key >$P/p/web/privkey.pem; rm $P/p/mail/privkey.pem", "copy-mismatch copy-missing old-copy"),
    ("put ended $P/p/web; put leaf $P/p/mail; chmod 440 $P/p/*/privkey.pem",
     "copy-exposed copy-exposed expired old-copy old-copy"),
    ("echo { >INFO", "book-broken default-unusable" + " not-in-info" * 2 + " orphan-folder" * 3),
    ("cp -a c d; edit INFO '.d.services = [.c.services[0]]'", "listed-twice listed-twice"),
    ("edit SERVICES '.[:1] + [.[0] | .service = \"x\"]'", "not-in-info not-in-services"),
    ("edit INFO '.c.services += [5] | .d = 5'; edit SERVICES '. + [6]'; sed -i 's/\"d\"/\"\\xff\\x1b[\"/' INFO",
     "book-broken book-broken book-broken"),
]
# fmt: on


def expected(found):
    return sorted(("warning" if code in WARNINGS else "critical", code) for code in found.split())


def test_status_finds_what_is_wrong_with_a_certificate(store):
    for at, (fault, _) in enumerate(CRT_FAULTS):
        store.sh(f"{PUT} mkdir n{at}; put good n{at}; edit INFO '.n{at}.services = []'; cd n{at}; {fault}")
    ended, report, _ = status(store)
    found = {crt["id"]: codes(crt) for crt in report.pop("certificates")}
    assert found == {"c": []} | {f"n{at}": expected(right) for at, (_, right) in enumerate(CRT_FAULTS)}
    assert ended == 2 and report == {"format": 1, "worst": "critical", "findings": []}


@pytest.mark.parametrize("fault, found", FAULTS)
def test_status_finds(store, fault, found):
    # What is younger may belong to a registration under way.
    store.sh(f"{PUT} set -e; {fault}; find $A $P/p -maxdepth 1 -exec touch -hd '9 minutes ago' {{}} +")
    ended, report, text = status(store)
    right = expected(found)
    assert codes(report) == right and ended == (2 if right[0][0] == "critical" else 1)
    assert report["worst"] == right[0][0] == text.split(":")[0] and "\x1b" not in text
    assert all(f"{severity} {code}: " in text for severity, code in right)


# fmt: off
AS_WEB = "setpriv --reuid=opalweb --clear-groups opalcrt"
@pytest.mark.parametrize("command, ended, out", [
    *[(f"opalcrt status '{id}'", 3, f'opalcrt: $A/INFO lists no certificate "{id}"\n') for id in ("x", "")],
    ("rm INFO; opalcrt status", 3, "opalcrt: cannot read $A/INFO: No such file or directory\n"),
    (f"{AS_WEB} status", 3, "opalcrt: only root can read the keys\n"), ("opalcrt status >/dev/full", 3, ""),
    (f"{AS_WEB} default c", 1, "opalcrt: only root can do this\n"), ("opalcrt default", 0, "c\n"),
    ("opalcrt 2>$ROW/help; s=$?; opalcrt --help | cmp - $ROW/help; grep -c '^  [a-z]' $ROW/help; exit $s", 64, "7\n"),
    *[(f"opalcrt {verb} ''", 1, 'opalcrt: there is no certificate "" in INFO; opalcrt status lists them\n')
      for verb in ("default", "deploy", "renew")],
    *[(f"opalcrt {usage} >/dev/null 2>&1", 64, "") for usage in (
        "nothing", "status --days -1", "install c --key x --cert x --cert y", "assign c", "deploy c d")],
])
# fmt: on
def test_the_command_line(store, command, ended, out):
    said = store.run(command)
    assert (said.status, said.out.replace(str(A), "$A")) == (ended, out)


# fmt: off
LEAF = "--key leaf.key --cert leaf.pem --chain mid.pem"
SCENES = {"folder-exists": "mkdir d", "id-too-long": "echo 0123456789abcdef >DEFAULT", "book-broken": "echo >INFO"}
@pytest.mark.parametrize("arguments, wrong", [
    ("c --key leaf.pem --cert leaf.key --key two --cert cut --chain no --chain big --chain /dev/null",
     "no-pem no-pem no-pem no-pem unreadable unreadable unreadable"),
    ("c --key locked.key --cert leaf.pem --key ed.key --cert leaf.pem", "key-encrypted key-type"),
    ("c --key leaf.key --cert leaf.pem --key good.key --cert good.pem", "key-type"),
    ("c --key good.key --cert leaf.pem --chain mid.pem", "key-mismatch"), (f"c {LEAF}", "book-broken"),
    ("x --key ended.key --cert ended.pem --chain leaf.pem", "chain-broken expired no-such-id"),
    (f"c --new {LEAF}", "in-info"), (f"d --new {LEAF}", "folder-exists"),
    (f"0123456789abcdef {LEAF}", "id-too-long no-such-id"),
    *[(f"'{id}' --new {LEAF}", "bad-id")
      for id in ("../c", "a/b", ".x", "", "INFO", "DEFAULT.new", "a\nb", "0" * 251)],
])
# fmt: on
def test_install_refuses(store, arguments, wrong):
    store.sh(SCENES.get(wrong.split()[0], ""))
    before, install = stores(store), f"opalcrt install {arguments}"
    said = store.run(f"cd $ROW; {install} --check 2>first; {install} --json 2>lines")
    critical = [each for each in json.loads(said.out)["findings"] if each["severity"] == "critical"]
    assert said.status == 1 and sorted(each["code"] for each in critical) == wrong.split()
    lines = (ROW / "lines").read_text()
    assert all(f": {each['text']}\n".replace("a\nb", "a?b") in lines for each in critical)
    assert lines == (ROW / "first").read_text() and stores(store) == before


# fmt: off
TWO = "--key rsa.key --cert rsa.pem --chain mid.pem --key leaf.key --cert bare"
@pytest.mark.parametrize("files, used, chain, warnings", [
    (LEAF, {"": "leaf"}, ["mid"], "chain-unknown"), ("--key all --cert all", {"": "leaf"}, ["mid", "root"], ""),
    (TWO, {"": "rsa", "RSA-": "rsa", "ECC-": "leaf"}, ["mid"], "chain-unknown chain-unknown"),
    ("--key soon.key --cert soon.pem", {"": "soon"}, [], "chain-unknown expires-soon"),
])
# fmt: on
def test_install_takes(store, files, used, chain, warnings):
    store.crt("c")  # whose name is c
    before, made = every_bit(), certificates()
    said = store.run(
        f"cd $ROW; opalcrt install c {files} --check >text; opalcrt install c {files} --check --json"
    )
    report = json.loads(said.out)
    assert codes(report) == [("warning", code) for code in (warnings + " name-lost").split()]
    assert report["result"] == "can-be-installed" and (ROW / "text").read_text().endswith(
        "c: can be installed\n"
    )
    assert every_bit() == before
    said = store.run(f"cd $ROW; opalcrt install c {files}; cat ran; ls -d $A/.c* 2>&-")
    assert said.out.split("archive\n")[1] == f"{DONE}c: done\nhook web\nhook mail\nreload opalrelayd\n"
    signers = b"".join(made[f"{name}.pem"] for name in chain)
    own = [*filter(None, used)] or [""]  # of a service that can use two key types
    for folder, prefixes in ((A / "c", used), (P / "p/web", own), (P / "p/mail", [""])):
        for prefix in prefixes:
            crt, key = made[f"{used[prefix]}.pem"], made[f"{used[prefix]}.key"]
            names = [f"{prefix}{name}.pem" for name in ("cert", "fullchain", "privkey")]
            assert [(folder / name).read_bytes() for name in names] == [crt, crt + signers, key]
    tree = {path: what for path, what in store.tree(A).items() if path.startswith("c")}
    assert tree.pop("c") == "drwx------ root root" and {*tree.values()} == {"-r-------- root root"}
    assert len(tree) == 3 * len(used) + bool(chain) + (files == TWO)
    assert status(store)[0] == ("expires-soon" in warnings)


def test_install_makes_a_new_certificate_and_ends_what_was_cut_off(store):
    for scene in ("", f"{PUT} edit $A/INFO 'del(.n)'; mkdir $A/.n.new"):
        store.sh(f"cd $ROW; {scene}\nopalcrt install n --new {LEAF}; cmp $A/n/cert.pem leaf.pem")
        assert store.json("INFO")["n"] == {"services": []} and store.books()["c"] == store.books()["list"]
        assert sorted(os.listdir(A)) == ["DEFAULT", "INFO", "SERVICES", "c", "n"]


# fmt: off
def test_folders_are_exchanged_in_one_step_that_a_power_cut_does_not_tear(store):
    before = stores(store)
    # The certificate's three files are synced by the third to the fifth, before the folder that holds them.
    for inject, ended, told in (("renameat2:error=EINVAL", 1, "exchanges no folders in one step"),
                                ("fsync:error=EIO:when=6", 1, f"cannot replace {A}/c"),
                                ("fsync:error=EIO:when=7", 3, "cannot sync the archive")):
        said = store.run("opalcrt install c --key $ROW/leaf.key --cert $ROW/leaf.pem", inject=inject)
        assert said.status == ended and told in said.out and (stores(store) == before) == (ended == 1)
# fmt: on


@pytest.mark.parametrize("verb", [f"install c {LEAF}", "deploy c", "assign c p", "renew --days 400"])
def test_a_failed_roll_out_is_told(store, verb):
    said = store.run(f"cd $ROW; echo 7 >end; opalcrt {verb} --json")
    same = {"certificate": "c", "subscriber": "p", "result": "hook-failed", "hook_status": 7}
    services = [{**same, "service": each} for each in ("web", "mail")]
    report = {"format": 1, "id": "c", "result": "partly-done", "services": services}
    assert {**json.loads(said.out), **report} == json.loads(said.out)
    owner = "edit $A/INFO '.c.services[0].owner = \"nobody-knows\"'"
    again = store.run(f"cd $ROW; {PUT} {owner}; echo 0 >end; opalcrt {verb}")
    assert said.status == again.status == 3 and "p/web: failed;" in again.out
    assert DONE.split("\n")[1] in again.out


def test_deploy_copies_again_what_info_lists(store):
    store.sh(f"{PUT} put leaf $P/p/web; rm -r $P/p/mail; mkdir d; put leaf d; chmod 0640 $P/p/web/*")
    store.sh(f"{PUT} edit INFO '.d.services = [.c.services[1]]'; cp INFO SERVICES $ROW")
    text = status(store, "c")[2]
    assert "p/web: copy-exposed, " in text and "p/mail: copy-missing, " in text
    store.ok("opalcrt deploy d; ls $P/p", out="d: done\nweb\n")  # c lists mail first.
    store.ok("opalcrt deploy; cmp INFO $ROW/INFO; cmp c/cert.pem $P/p/mail/cert.pem", out=f"{DONE}done\n")
    store.sh(f"{PUT} edit INFO '.d.services[0].service = \"x\"'; rm d/cert.pem; : >$ROW/ran")
    assert status(store, "c")[2].count(": current, ") == 2
    before, ran = stores(store), "hook web\nhook mail\nreload opalrelayd\n"
    for command, ended, wanted in [("deploy x", 1, ""), ("deploy d", 1, ""), ("deploy", 3, ran)]:
        assert store.run(f"opalcrt {command}").status == ended and (ROW / "ran").read_text() == wanted
    assert stores(store) == before


def test_assign_gives_listed_services_another_certificate(store):
    store.sh(f"{PUT} mkdir d x e; put leaf d; put rsa x; put leaf e; rm e/fullchain.pem")
    store.sh(f"{PUT} edit INFO '.x.services = [.c.services[0]] | .d.services = [] | .e.services = []'")
    before = stores(store)
    for wrong in ("nobody p", "d q", "d p api", "../c p", "'' p", "e p"):
        assert store.run(f"opalcrt assign {wrong}").status == 1 and stores(store) == before
    store.sh("opalcrt assign d p web; cmp d/cert.pem $P/p/web/cert.pem; cmp c/cert.pem $P/p/mail/cert.pem")
    assert (ROW / "ran").read_text() == "hook web\nreload opalrelayd\n"
    assert store.books() == {"list": ["p/web", "p/mail"], "c": ["p/mail"], "d": ["p/web"], "x": [], "e": []}
    store.sh("opalcrt assign x p")
    assert store.books()["x"] == ["p/mail", "p/web"] and status(store, "x")[0] == 0


def test_default_is_what_a_registration_can_use(store):
    store.sh(f"{PUT} mkdir n x 0123456789abcdef; put leaf n; put leaf 0123456789abcdef")
    store.sh(f"{PUT} edit INFO '.n.services = [] | .x.services = [] | .[\"0123456789abcdef\"].services = []'")
    for wrong in ("x", "z", "0123456789abcdef"):
        assert store.run(f"opalcrt default {wrong}").status == 1 and (A / "DEFAULT").read_text() == "c\n"
    store.define("q", "api")
    store.sh("opalcrt default n; opalcrtregister q; cmp n/cert.pem $P/q/api/cert.pem")
    assert store.sh("cat DEFAULT; stat -c %a DEFAULT; opalcrt default") == "n\n644\nn\n"


# fmt: off
RESULTS = {"due": "c: due\n", "not-due": "c: not due\n", "not-self-made": "c: left alone, it is not self-made\n"}
@pytest.mark.parametrize("scene, arguments, ended, text", [
    ("", "", 0, "not-due"),
    ("put soon", "--check", 1, "due"), ("rm c/cert.pem", "", 1, "opalcrt: the certificate c"),
    ("", "c --days 100 --check", 1, "due"), ("rm c/opal-ca-cert.pem", "--days 400", 0, "not-self-made"),
    ("", "--name nas --check", 1, "due"), ("put leaf", "--days 400", 0, "not-self-made"),
    ("", "--name " + "a." * 32 + "b", 1, "opalcrt: the first"),
    *[("", f"--name ok --name '{name}'", 1, f'opalcrt: "{name}" is neither') for name in ("a b", "a;b", "-a", "a/b")],
])
# fmt: on
def test_renew_leaves_alone(store, scene, arguments, ended, text):
    store.sh(f"{PUT} {scene}")
    before, said = stores(store), store.run(f"opalcrt renew {arguments}")
    assert said.status == ended and said.out.startswith(RESULTS.get(text, text)) and stores(store) == before
    said = store.run(f"opalcrt renew {arguments} --json 2>&-")
    assert (said.status, json.loads(said.out)["result"]) == (ended, text if text in RESULTS else "refused")


@pytest.mark.slow
@pytest.mark.parametrize("scene, names", [("soon", ["kestrel"]), ("good", ["nas.example", "192.0.2.7"])])
def test_renew_makes_a_new_set_and_gives_it_to_all(store, scene, names):
    store.sh(f"{PUT} put {scene}; touch c/left-over")
    given = " ".join(f"--name {name}" for name in names if scene == "good")
    store.ok(f"opalcrt renew {given}", out=f"c: renewed, for {', '.join(names)}\n{DONE}c: done\n")
    store.sh("cmp c/cert.pem $P/p/mail/cert.pem; openssl verify -CAfile c/opal-ca-cert.pem $P/p/web/cert.pem")
    ended, report, _ = status(store)
    (crt,) = report["certificates"]
    assert (ended, crt["names"], crt["self_made"]) == (0, names, True) and crt["subject"].endswith(names[0])
    assert 365 < crt["seconds_left"] / 86400 <= 366
    assert not {"left-over", "cert_info"} & {*os.listdir(A / "c")}
    # A hook that fails is called again by the next run, and no more once it has not.
    assert store.run("echo 7 >$ROW/end; opalcrt renew --days 400").status == 3 and (A / ".c.new").exists()
    store.ok("echo 0 >$ROW/end; opalcrt renew; opalcrt renew", out=f"{DONE}c: done\nc: not due\n")
    assert sorted(os.listdir(A)) == ["DEFAULT", "INFO", "SERVICES", "c"]


@pytest.mark.slow
def test_init_makes_the_first_store(store):
    before = stores(store)
    store.ok("opalcrt init", out=f"{A}: left as it is\n")
    assert stores(store) == before
    store.sh("rm -r $A/* $P/p; mkdir -p $S/._archive.new/x")
    assert store.run("opalcrt init", inject="?rename,?renameat:signal=KILL:when=1").status
    assert os.listdir(A) == []
    store.sh("unshare --uts sh -c 'hostname nas; opalcrt init'")
    ended, report, _ = status(store)
    (crt,) = report["certificates"]
    assert ended == 0 and crt["names"] == ["kestrel", "nas"] and crt["self_made"] and crt["default"]
    store.define("p", "web")
    store.sh("cd $A; opalcrtregister p; cmp */cert.pem $P/p/web/cert.pem")
    assert store.books() == {"list": ["p/web"], crt["id"]: ["p/web"]} and os.listdir(S) == ["_archive"]
