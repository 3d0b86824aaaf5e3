# What the administrator's command does: what install refuses and takes, and the other verbs.
import json, os, re

import pytest, test_status
from conftest import A, D, P, ROW, S, TOOL
from test_status import DONE, PUT, certificates, codes, every_bit, status, stores

store = test_status.store  # its fixture

# fmt: off
LONG = "0123456789abcdef"
REFUSALS = [  # e lacks all files, and the id LONG is too long for DEFAULT.
    *[(verb.format(id), 1, told) for verb in ("assign {} p", "default {}", "deploy {}", "renew {}")
      for id, told in (("''", 'no certificate ""'), ("../c", "no certificate"), ("e", "the certificate e "))],
    ("status x", 3, 'lists no certificate "x"'), ("status ''", 3, 'lists no certificate ""'),
    ("status", 3, "only root can do this"), ("default c", 1, "only root can do this"),
    ("assign c q", 1, "lists no service"), ("assign c p api", 1, "lists no service api of p"),
    (f"default {LONG}", 1, "more than 15 bytes"), ("status >/dev/full", 3, ""), ("deploy x --json >/dev/full", 1, "no c"),
    *[(f"renew --name ok --name '{name}'", 1, "is neither") for name in ("a b", "a;b", "-a", "a/b")],
    ("renew --name " + "a." * 32 + "b", 1, "the first name"), ("instal c", 64, "instal"),
    *[(usage, 64, "--help") for usage in (
        "", "assign c", "deploy c d", "status --days -1", "install c --key x --cert x --cert y")],
]
# fmt: on


def test_a_refusal_is_told_and_changes_nothing(store):
    # What the next renewal is to do again is left, too.
    store.sh(f"{PUT} mkdir {LONG} .c.new; put leaf {LONG}; edit INFO '.e.services = [] | .[\"{LONG}\"] = .e'")
    before = stores(store)
    for command, ended, told in REFUSALS:
        user = "setpriv --reuid=opalweb --clear-groups" if "only root" in told else ""
        said = store.run(f"{user} opalcrt {command}")
        assert said.status == ended and told in said.out and stores(store) == before
    store.ok("opalcrt 2>help || opalcrt --help | cmp - help; grep -c '^  [a-z]' help", out="7\n")
    told = f"opalcrt: cannot read {A}/INFO: Input/output error\n"
    store.ok("opalcrt status", out=told, status=3, inject=f"openat:error=EIO -P {A}/INFO")


# fmt: off
LEAF = "--key leaf.key --cert leaf.pem --chain mid.pem"
SCENES = {"folder-exists": "mkdir d", "id-too-long": f"echo {LONG} >DEFAULT", "book-broken": "echo >INFO"}
@pytest.mark.parametrize("arguments, wrong", [
    ("c --key leaf.pem --cert leaf.key --key cut --cert cut --chain no --chain big --chain /dev/null",
     "no-pem no-pem no-pem no-pem unreadable unreadable unreadable"),
    ("c --key locked.key --cert ended.pem --key ed.key --cert leaf.pem", "expired key-encrypted key-type"),
    ("c --key bad.key --cert bad.pem --chain good.pem", "chain-broken"),
    ("c --key rsa.key --cert rsa.pem --key leaf.key --cert leaf.pem --key good.key --cert good.pem", "key-type"),
    ("c --key good.key --cert leaf.pem --chain mid.pem", "key-mismatch"), (f"c {LEAF}", "book-broken"),
    ("x --key ended.key --cert ended.pem --chain leaf.pem", "chain-broken expired no-such-id"),
    (f"c --new {LEAF}", "folder-exists"), (f"d --new {LEAF}", "folder-exists"),
    (f"{LONG} {LEAF}", "id-too-long no-such-id"),
    *[(f"'{id}' --new {LEAF}", "bad-id") for id in ("../c", ".x", "", "INFO", "INFO.new", "a\nb", "0" * 251)],
])
# fmt: on
def test_install_refuses(store, arguments, wrong):
    store.sh(SCENES.get(wrong.split()[0], ""))
    before, install = stores(store), f"opalcrt install {arguments}"
    said = store.run(f"cd $ROW; {install} --check >text 2>first; {install} --json 2>lines")
    critical = [each for each in json.loads(said.out)["findings"] if each["severity"] == "critical"]
    assert said.status == 1 and sorted(each["code"] for each in critical) == wrong.split()
    lines = (ROW / "lines").read_text()
    assert all(f": {each['text']}\n".replace("a\nb", "a?b") in lines for each in critical)
    assert lines == (ROW / "first").read_text() and stores(store) == before


# fmt: off
TWO = "--key rsa.key --cert rsa.pem --chain mid.pem --key leaf.key --cert bare"
@pytest.mark.parametrize("files, used, chain, warnings", [
    ("--key all --cert all", {"": "leaf"}, ["mid", "root"], ""),
    (TWO, {"": "rsa", "RSA-": "rsa", "ECC-": "leaf"}, ["mid"], "chain-unknown chain-unknown"),
    ("--key soon.key --cert soon.pem", {"": "soon"}, [], "chain-unknown expires-soon"),
    ("--key new.key --cert new.pem --chain cross.pem --chain own.pem", {"": "new"}, ["cross"], "chain-unknown"),
])
# fmt: on
def test_install_takes(store, files, used, chain, warnings):
    store.crt("c")  # whose name is c
    before, made, install = every_bit(store), certificates(), f"cd $ROW; opalcrt install c {files}"
    assert store.run(f"{install} --check").out.endswith("c: can-be-installed\n")
    report = json.loads(store.run(f"{install} --check --json").out)
    assert (report["result"], codes(report)) == ("can-be-installed", [*warnings.split(), "name-lost"])
    assert every_bit(store) == before
    said = store.run(f"{install}; cat ran; ls -d $A/.c* 2>&-")
    assert said.out.split("archive\n")[1] == f"{DONE}c: done\nhook web\nhook mail\nreload opalrelayd\n"
    signers = b"".join(made[f"{name}.pem"] for name in chain)
    for folder in (A / "c", P / "p/web", P / "p/mail"):
        for prefix in [prefix for prefix in used if (folder / f"{prefix}cert.pem").exists()]:
            crt, key = made[f"{used[prefix]}.pem"], made[f"{used[prefix]}.key"]
            names = [f"{prefix}{name}.pem" for name in ("cert", "fullchain", "privkey")]
            assert [(folder / name).read_bytes() for name in names] == [crt, crt + signers, key]
    tree = {path: what for path, what in store.tree(A).items() if path.startswith("c")}
    assert tree.pop("c") == "drwx------ root root" and {*tree.values()} == {"-r-------- root root"}
    assert len(tree) == 3 * len(used) + bool(chain) + (files == TWO)
    store.sh("[ ! -e c/ECC-cert.pem ] || touch c/ECC-chain.pem")  # which no service gets
    assert status(store)[0] == ("expires-soon" in warnings)


def test_install_makes_a_new_certificate_and_ends_what_was_cut_off(store):
    for scene in ("edit $A/INFO '.n = 5'", "mv $A/n $A/.n.new"):
        store.sh(f"{PUT} cd $ROW; {scene}\nopalcrt install n --new {LEAF} && cmp $A/n/cert.pem leaf.pem")
        assert store.json("INFO")["n"] == {"services": []} and store.books()["c"] == store.books()["list"]
        assert sorted(os.listdir(A)) == ["DEFAULT", "INFO", "SERVICES", "c", "n"]


def test_folders_are_exchanged_in_one_step_or_not_at_all(store):
    before, files = stores(store), "--key $ROW/leaf.key --cert $ROW/leaf.pem"
    said = store.run(f"opalcrt install c {files}", inject="renameat2:error=EINVAL")
    assert said.status == 1 and "exchanges no folders in one step" in said.out and stores(store) == before


@pytest.mark.parametrize("verb", [f"install c {LEAF}", "deploy c", "assign c p", "renew --days 400"])
def test_a_failed_roll_out_is_told(store, verb):
    hook, code = ("chmod 0644 $D/p", 126) if "assign" in verb else ("echo 7 >end", 7)
    said = store.run(f"cd $ROW; {hook}; opalcrt {verb} --json; s=$?; chmod 0755 $D/p; exit $s")
    same = {"certificate": "c", "subscriber": "p", "result": "hook-failed", "hook_status": code}
    services = [{**same, "service": each} for each in ("web", "mail")]
    report = {"format": 1, "id": "c", "result": "partly-done", "services": services}
    assert said.status == 3 and report.items() <= json.loads(said.out).items()
    owner = "edit $A/INFO '.c.services[0].owner = \"nobody-knows\"'"
    said = store.run(f"cd $ROW; {PUT} {owner}; echo 0 >end; opalcrt {verb}")
    assert said.status == 3 and "p/web: failed;" in said.out and DONE.split("\n")[1] in said.out


def test_deploy_copies_again_what_info_lists(store):
    store.sh(f"{PUT} put leaf $P/p/web; rm -r $P/p/mail; mkdir d; put leaf d; chmod 0640 $P/p/web/*")
    store.sh(f"{PUT} edit INFO '.d.services = [.c.services[1]] | .[\"/../v\"] = {{}}'")
    store.sh("cp INFO SERVICES $ROW; mkdir $S/v.new")
    assert re.search("web: copy-exposed, .*mail: copy-missing, ", status(store, "c")[2], re.S)
    store.ok("opalcrt deploy d; ls $P/p", out="d: done\nweb\n")  # c lists mail first.
    store.ok(
        "opalcrt deploy; rmdir $S/v.new; cmp INFO $ROW/INFO; cmp c/cert.pem $P/p/mail/cert.pem",
        out=f"{DONE}done\n",
    )
    store.sh(f"{PUT} edit INFO '.d.services[0].service = \"x\"'; rm d/cert.pem; : >$ROW/ran")
    assert status(store, "c")[2].count(": current, ") == 2
    before, ran = stores(store), "hook web\nhook mail\nreload opalrelayd\n"
    for command, ended, wanted in [("deploy x", 1, ""), ("deploy d", 1, ""), ("deploy", 3, ran)]:
        assert store.run(f"opalcrt {command}").status == ended and (ROW / "ran").read_text() == wanted
    assert stores(store) == before


# By the hook of the one before it, or while it is copied.
@pytest.mark.parametrize(
    "program, when", [(D / "p", "$1 in web"), ("/bin/cp", "$3 in */mail.temp/privkey.pem")]
)
def test_who_is_taken_back_meanwhile_gets_nothing(store, program, when):
    store.replace(program, f'case {when}) {TOOL}/opalcrtunregister p mail;; *) exec $REAL "$@";; esac')
    store.ok("opalcrt deploy; ls $P/p", out=f"{DONE.splitlines()[0]}\ndone\nweb\n")


# By its hook, while it is assigned another one.
def test_who_gets_the_default_again_meanwhile_keeps_it(store):
    store.sh(f"{PUT} mkdir d; put leaf d; edit INFO '.d.services = []'")
    store.define("p", "web")
    store.replace(D / "p", f"{TOOL}/opalcrtunregister p $1; {TOOL}/opalcrtregister p $1 || :")
    store.sh("opalcrt assign d p web; cmp c/cert.pem $P/p/web/cert.pem")
    assert store.books() == {"list": ["p/mail", "p/web"], "c": ["p/mail", "p/web"], "d": []}


def test_assign_gives_another_certificate_to_listed_services_and_default_to_new_ones(store):
    store.sh(f"{PUT} mkdir d x; put leaf d; put rsa x")
    store.sh(f"{PUT} edit INFO '.x.services = [.c.services[0]] | .d.services = []'")
    store.sh("opalcrt assign d p web; cmp d/cert.pem $P/p/web/cert.pem; cmp c/cert.pem $P/p/mail/cert.pem")
    assert (ROW / "ran").read_text() == "hook web\nreload opalrelayd\n"
    assert store.books() == {"list": ["p/web", "p/mail"], "c": ["p/mail"], "d": ["p/web"], "x": []}
    store.sh("opalcrt assign x p")
    assert store.books()["x"] == ["p/mail", "p/web"] and status(store, "x")[0] == 0
    store.define("q", "api")
    store.sh("opalcrt default d; opalcrtregister q; cmp d/cert.pem $P/q/api/cert.pem")
    assert store.sh("cat DEFAULT; stat -c %a DEFAULT; opalcrt default") == "d\n644\nd\n"


def test_renew_leaves_alone(store):
    # fmt: off
    for scene, arguments, ended, result in (
        ("", "", 0, "not-due"), ("", "--check", 0, "not-due"), ("", "c --days 100 --check", 1, "due"),
        ("", "--name nas --check", 1, "due"), ("", "--name KESTREL", 0, "not-due"), ("put soon", "--check", 1, "due"),
        ("put leaf", "", 0, "not-self-made"), ("put soon; rm c/opal-ca-cert.pem", "", 0, "not-self-made"),
    ):
        # fmt: on
        store.sh(f"{PUT} {scene}")
        before, renew = stores(store), f"opalcrt renew {arguments}"
        said = store.run(f"{renew}; {renew} --json")
        shown, told = said.out.splitlines()
        assert shown == f"c: {result}" and json.loads(told) == {"format": 1, "id": "c", "result": result}
        assert said.status == ended and stores(store) == before


@pytest.mark.slow
def test_renew_makes_a_new_set_and_gives_it_to_all(store):
    store.sh(f"{PUT} put soon; touch c/left-over")
    store.ok("opalcrt renew", out=f"c: renewed, for kestrel\n{DONE}c: done\n")
    # A hook that fails is called again by the next run, and no more once it has not.
    said = store.run("echo 7 >$ROW/end; opalcrt renew --name nas.example --name 192.0.2.7")
    assert said.status == 3 and (A / ".c.new").exists()
    store.ok("echo 0 >$ROW/end; opalcrt renew; opalcrt renew", out=f"{DONE}c: done\nc: not-due\n")
    store.sh("cmp c/cert.pem $P/p/mail/cert.pem; openssl verify -CAfile c/opal-ca-cert.pem $P/p/web/cert.pem")
    ended, report, _ = status(store)
    (crt,) = report["certificates"]
    assert (ended, crt["names"], crt["self_made"]) == (0, ["nas.example", "192.0.2.7"], True)
    assert crt["subject"].endswith("nas.example") and 365 < crt["seconds_left"] / 86400 <= 366
    assert not {".c.new", "c/left-over", "c/cert_info"} & {*store.tree(A)}


@pytest.mark.slow
def test_init_makes_the_first_store(store):
    store.ok("cp -a $S $ROW; opalcrt init; diff -r $S $ROW/certificate", out=f"{A}: left as it is\n")
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
