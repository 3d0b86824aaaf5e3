# Unregistering: the two books, the folder and what lies beside it, the archive and links, and its caller.
import os, re

import pytest
from conftest import P, S, service

INIT, LIST = "Failed to init for Un-Registerer", "Failed to remove register services"
INFO, FOLDER = "Failed to remove service from info", "Failed to remove service certificate"
WEB, MAIL, SYSTEM = service("web"), service("mail"), service("web", "s", owner="root", isPkg=False)


@pytest.fixture
def scene(w):
    w.sh("cd $P; mkdir -p p/web p/web.temp p/mail $S/s/web.temp $S/s/web $S/s2/web $A/a/key; >p/web.bak")
    both = {"a": {"desc": 1, "services": [SYSTEM, WEB]}, "b": {"services": [MAIL]}}
    w.write({**both, "c": 5, "d": {"services": {}}}, [WEB, "stranger", SYSTEM, MAIL])
    return w


# fmt: off
@pytest.mark.parametrize("arguments, gone, folders, name, found", [
    ("p web", [WEB], ("p/web/", "p/web.temp/", "p/web.bak/"), "p/web(pkg)", "p(web)"),
    ("p", [WEB, MAIL], "p/", "p(pkg)", "p()"),
    ("p ''", [WEB, MAIL], "p/", "p/(pkg)", "p()"),
    ("s web", [SYSTEM], ("s/web/", "s/web.temp/"), "s/web", "s(web)"),
])
# fmt: on
def test_takes_back_what_was_given_and_nothing_else(scene, arguments, gone, folders, name, found):
    info, tree = scene.json("INFO"), {**scene.tree(P), **scene.tree(S)}
    line = f"opalcrtregister.cpp Un-Register certificate for {name}"
    assert scene.ok(f"opalcrtunregister {arguments}") == [line]
    for id in "ab":
        info[id]["services"] = [each for each in info[id]["services"] if each not in gone]
    assert scene.json("INFO") == info
    assert scene.json("SERVICES") == [each for each in (WEB, "stranger", SYSTEM, MAIL) if each not in gone]
    # Again: INFO knows nothing of it, so the system's root is looked into.
    trail = [f"Can NOT find service: {found}\n", f"Invalid certificate: {name.removesuffix('(pkg)')}\n"]
    scene.fails(f"opalcrtunregister {arguments}", FOLDER, *trail)
    left = [path for path in tree if not f"{path}/".startswith(folders)]
    assert [*{**scene.tree(P), **scene.tree(S)}] == left and scene.json("INFO") == info


def test_what_a_registration_that_was_cut_off_has_left_goes_without_the_folder_too(scene):
    scene.sh("rm -r $P/p/web; ln -s $A/a $P/p/mail.temp")
    scene.fails("opalcrtunregister p web", FOLDER, "Invalid certificate: p/web(pkg)\n")
    scene.ok("opalcrtunregister p mail; ls $P/p a", out=f"{P}/p:\n\na:\nkey\n")


# fmt: off
@pytest.mark.parametrize("plant, out, line, changed", [
    ("rm INFO", INIT, "Failed to get info for UnRegisterer", ""),
    ("echo {} > INFO", INIT, "Bad certificate info", ""),
    ("echo [1] > INFO", INIT, "Bad certificate info", ""),
    ("sed -i s/opalweb// INFO", INIT, "Failed to init, [0x0D00 opalcrtregister.cpp:", ""),
    ("rm SERVICES", LIST, "Failed to read register services, it may missed or broken", ""),
    ("mkdir -p SERVICES.new/x", LIST, "Failed to write register services (Is a directory)", ""),
    ("sed -i s/opalweb/x/2 INFO", INFO, "Bad info: [x(pkg)_opalweb(pkg)]", "SERVICES"),
    ("sed -i s/true/1/2 INFO", INFO, "Bad info: [opalweb()_opalweb(pkg)]", "SERVICES"),
    ("sed -i 's/\"opalweb\"/5/' INFO", INFO, "Bad info: [(pkg)_opalweb(pkg)]", "SERVICES"),
    ("mkdir -p INFO.new/x", INFO, "Original info file is backed up to $A/INFO.bak\n", "SERVICES backup"),
    ("mkdir -p INFO.new/x INFO.bak.new/x", INFO, "Failed to update info file", "SERVICES"),
    ("rm -r $P/p", FOLDER, "Invalid certificate: p(pkg)", "SERVICES INFO"),
    ("mount -t tmpfs row $P/p/web", FOLDER, "Failed to remove certificate [p(pkg)][0x0601", "SERVICES INFO"),
])
# fmt: on
def test_stops_at_the_step_that_fails(scene, plant, out, line, changed):
    scene.sh(f"chmod 0640 INFO; {plant}; cp SERVICES INFO $ROW 2>/dev/null || :")
    scene.fails("opalcrtunregister p", out, f"opalcrtregister.cpp {line}")
    look = """for f in SERVICES INFO; do [ ! -e $f ] || cmp -s $f $ROW/$f || echo $f; done; [ ! -f INFO.bak ] ||
        [ "$(jq -S . INFO; echo 640)" != "$(jq -S . INFO.bak; stat -c %a INFO.bak)" ] || echo backup"""
    assert scene.sh(look).split() == changed.split()


# The archive and what lies behind a link outlive every name; a link itself goes.
REFUSED = """_archive  _archive ''  _archive a  . ''  .  . _archive  .. certificate  s ..  s .  s/../_archive
    s ../s2/web  s none  none  none ''  out  out ''  out web  inside ''  inside web  sneaky  sneaky a  s out"""


def test_removes_neither_the_archive_nor_what_a_link_leads_to(scene):
    scene.sh("mkdir -p /usr/opal/precious/web/key $S/_archive_/web; cd $S; ln -s /usr/opal/precious out")
    scene.sh("cd $S; ln -s s inside; ln -s _archive sneaky; ln -s ../../../precious/web s/out")
    scene.sh("cd $S/s; ln -s web alias; ln -s ../s2/web sibling")
    bad = service("web", "s/../_archive", isPkg=False)  # No registration takes it. It leaves the books.
    scene.write({"a": {"services": [bad]}}, [bad])
    before = scene.tree("/usr/opal")
    for arguments in re.split(r"\s\s+", REFUSED):
        name = arguments.replace("''", "").replace(" ", "/")
        scene.fails(f"opalcrtunregister {arguments}", FOLDER, f"cpp Invalid certificate: {name}\n")
        assert scene.tree("/usr/opal") == before
    for link in ("s/alias", "s/sibling", "inside"):
        scene.ok(f"opalcrtunregister {link.replace('/', ' ')}", f"Un-Register certificate for {link}\n")
        del before[f"etc/certificate/{link}"]
        assert scene.tree("/usr/opal") == before


def test_knows_what_lies_inside_the_root(w):
    w.sh("cd $P; mkdir -p a/web ../../out/web; ln -s ../../out linked; ln -s no no2; ln -s ../linked a/out")
    right = ["a/", "a/web"]
    wrong = "/ /web ./ ../ no/ a/no a/out a/.. a/. linked/ linked/web no2/ ../certificate.d/".split()
    inside = [path for path in right + wrong if w.call("IsServiceFolderInRoot", True, *path.split("/", 1))]
    assert inside == right
    w.fails("opalcrtunregister ''", INIT, "opalcrtregister.cpp Bad params: subscriber")
    assert not w.call("RemoveServiceCertificate", {})
    assert w.said.log == ["opalcrtregister.cpp Invalid config: {}"]


# Once root has run, the lock files are his alone: whoever else starts it is told what he lacks all the same.
# fmt: off
@pytest.mark.parametrize("user, out, line", [
    ("--reuid=opalmail", INIT, "Failed to init, [0xE400 opalcrtregister.cpp:"),
    ("--ruid=opalmail", INIT, "Failed to init, [0xE400 opalcrtregister.cpp:"),
    ("--reuid=opalweb", LIST, "Failed to lock [/tmp/opal_cert_register_services.lock]"),
])
# fmt: on
def test_who_is_neither_root_nor_the_owner_is_told_so_and_changes_nothing(scene, user, out, line):
    scene.run("opalcrtunregister none")
    before = [scene.tree(folder, content=True) for folder in (P, S, "/tmp")]
    scene.fails(f"setpriv {user} --clear-groups opalcrtunregister p", out, line)
    assert [scene.tree(folder, content=True) for folder in (P, S, "/tmp")] == before


def test_ends_right_after_races_with_a_registration(scene):
    scene.write({"a": {"services": [SYSTEM, WEB]}, "c": {"services": []}}, [WEB, SYSTEM])
    scene.define("r", "x")
    race = "cp /tmp/r.cfg $D; opalcrtregister r >/dev/null & opalcrtunregister r >/dev/null & wait"
    scene.sh(f"cp $D/r.cfg /tmp; for i in 1 2 3 4 5 6; do {race}; jq empty INFO SERVICES || exit; done")
    for command, left in (("cp /tmp/r.cfg $D; opalcrtregister r", ["r/x"]), ("opalcrtunregister r", [])):
        scene.ok(command)
        assert scene.books() == {"a": ["s/web", "p/web"], "c": left, "list": ["p/web", "s/web", *left]}
    assert os.listdir(P) == ["p"]
