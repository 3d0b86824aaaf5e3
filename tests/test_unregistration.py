# Unregistering: the two books, the folder and what lies beside it, the archive and links, and its caller.
import re

import pytest
from conftest import P, S, service

INIT, LIST = "Failed to init for Un-Registerer", "Failed to remove register services"
INFO, FOLDER = "Failed to remove service from info", "Failed to remove service certificate"
WEB, MAIL, SYSTEM = service("web"), service("mail", isPkg=1), service("web", "s", owner="root", isPkg=False)


@pytest.fixture
def scene(w):
    w.sh("cd $P; mkdir -p p/web p/web.temp p/mail $S/s/web.temp $S/s/web $S/s2/web $A/a/key; >p/web.bak")
    both = {"a": {"desc": 1, "services": [SYSTEM, WEB]}, "b": {"services": [MAIL]}}
    w.write({**both, "c": 5, "0": {"services": {"x": {**WEB, "owner": ""}}}}, [WEB, "stranger", SYSTEM, MAIL])
    return w


# fmt: off
@pytest.mark.parametrize("arguments, gone, folders, name", [
    ("p web", [WEB], ("p/web/", "p/web.temp/", "p/web.bak/"), "p/web(pkg)"),
    ("p", [WEB, MAIL], "p/", "p(pkg)"), ("p ''", [WEB, MAIL], "p/", "p/(pkg)"),
    ("s web", [SYSTEM], ("s/web/", "s/web.temp/"), "s/web"),
])
# fmt: on
def test_takes_back_what_was_given_and_nothing_else(scene, arguments, gone, folders, name):
    info, tree = scene.json("INFO"), {**scene.tree(P), **scene.tree(S)}
    told = scene.ok(f"opalcrtunregister {arguments}")
    assert told == [f"opalcrtregister.cpp Un-Register certificate for {name}"]
    for id in "ab":
        info[id]["services"] = [each for each in info[id]["services"] if each not in gone]
    assert scene.json("INFO") == info
    assert scene.json("SERVICES") == [each for each in (WEB, "stranger", SYSTEM, MAIL) if each not in gone]
    left = [path for path in tree if not f"{path}/".startswith(folders)]
    assert [*{**scene.tree(P), **scene.tree(S)}] == left


# fmt: off
@pytest.mark.parametrize("plant, out, line, changed", [
    ("rm INFO", INIT, "Failed to get info for UnRegisterer", ""),
    ("echo {} > INFO", INIT, "Bad certificate info", ""),
    ("sed -i s/opalweb// INFO", INIT, "Failed to init, [0x0D00 opalcrtregister.cpp:", ""),
    ("rm SERVICES", LIST, "Failed to read register services, it may missed or broken", ""),
    ("sed -i s/opalweb/x/2 INFO", INFO, "Bad info: [x(pkg)_opalweb(pkg)]", "SERVICES"),
    ("sed -i 's/: 1/: 0/2' INFO", INFO, "Bad info: [opalweb()_opalweb(pkg)]", "SERVICES"),
    ("mkdir -p INFO.new/x", INFO, "Original info file is backed up to $A/INFO.bak\n", "SERVICES backup"),
    ("mount -t tmpfs row $P/p/web", FOLDER, "Failed to remove certificate [p(pkg)][0x0601", "SERVICES INFO"),
])
# fmt: on
def test_stops_at_the_step_that_fails(scene, plant, out, line, changed):
    scene.sh(f"chmod 0640 INFO; {plant}; cp SERVICES INFO $ROW 2>/dev/null || :")
    scene.fails("opalcrtunregister p", out, f"opalcrtregister.cpp {line}")
    look = """for f in SERVICES INFO; do [ ! -e $f ] || cmp -s $f $ROW/$f || echo $f; done; [ ! -f INFO.bak ] ||
        [ "$(jq -S . INFO; echo 640)" != "$(jq -S . INFO.bak; stat -c %a INFO.bak)" ] || echo backup"""
    assert scene.sh(look).split() == changed.split()


# The archive and what lies behind a link outlive every name, which only leaves the books; a link itself goes. Of what
# INFO does not know the system's root is looked into.
REFUSED = """_archive  _archive a  . ''  .  . _archive  .. certificate  s ..  s .  s/../_archive  s ../s2/web
    s none  none  p web  out  out ''  out web  inside ''  inside web  sneaky  sneaky a  s out"""
LINKS = """mkdir -p /usr/opal/far/web/key $S/_archive_/web; cd $S; ln -s /usr/opal/far out; ln -s s inside
    ln -s _archive sneaky; ln -s ../../../far/web s/out; ln -s web s/alias; ln -s ../s2/web s/sibling"""


def test_removes_neither_the_archive_nor_what_a_link_leads_to(scene):
    scene.sh(LINKS)
    scene.write({"a": {"services": [bad := service("web", "s/../_archive", isPkg=False)]}}, [bad])
    before, packages = scene.tree("/usr/opal"), scene.tree(P)
    for arguments in re.split(r"\s\s+", REFUSED):
        name = arguments.replace("''", "").replace(" ", "/")
        scene.fails(f"opalcrtunregister {arguments}", FOLDER, f"register.cpp Invalid certificate: {name}\n")
        assert scene.tree("/usr/opal") == before and scene.tree(P) == packages
    scene.fails("opalcrtunregister ''", INIT, "opalcrtregister.cpp Bad params: subscriber")
    for link in ("s/alias", "s/sibling", "inside"):
        scene.ok(f"opalcrtunregister {link.replace('/', ' ')}", f"Un-Register certificate for {link}\n")
        del before[f"etc/certificate/{link}"]
        assert scene.tree("/usr/opal") == before
    # What a registration that was cut off has left goes without the folder, too.
    scene.sh("ln -s $A/a $S/s/none.bak; mkdir $S/s/none.temp")
    scene.fails("opalcrtunregister s none", FOLDER, "Can NOT find service: s(none)\n")
    assert scene.tree("/usr/opal") == before and scene.books() == {"a": [], "list": []}
    stuck = "mount -t tmpfs row $S/s/web.temp; opalcrtunregister s web || [ ! -e $S/s/web ]"
    scene.ok(stuck, "Failed to remove certificate [s/web][0x0601", out=f"{FOLDER}\n")


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
    before = scene.tree(P), scene.tree(S, content=True), scene.sh("stat -c '%n %A %U' /tmp/*.lock")
    scene.fails(f"setpriv {user} --clear-groups opalcrtunregister p", out, line)
    assert (scene.tree(P), scene.tree(S, content=True), scene.sh("stat -c '%n %A %U' /tmp/*.lock")) == before
