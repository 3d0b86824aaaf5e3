# Registering: definitions, the two books, the stages of a run, and its caller.
import json, os, time
from pathlib import Path

import pytest
from conftest import A, D, P, ROW, service

INIT, PREPARE = "Failed to init registerer", "Failed to prepare services"
APPEND, DEPLOY = "Failed to append register services", "Failed to DeployDefCrt for p"
WEB = {"service": "web", "display_name": "W", "display_name_i18n": 5, "multiple_cert": "yes"}
MAIL = {"service": "mail", "display_name": "M", "display_name_i18n": "i", "user_setable": True}
BOTH = [WEB, MAIL]


def test_every_service_gets_its_folder_and_is_in_both_books(w):
    w.define("p", "web", "mail")
    log = w.ok("umask 0777; opalcrtregister p")
    names, folder, file = ("web", "mail"), "drwxr-xr-x root root", "-r-------- opalweb opalweb"
    assert log[:-1] == [f"opalcrtregister.cpp Register certificate for p/{name}(pkg)" for name in names]
    assert log[2].startswith("utils.cpp Reload opalrelayd failed.")
    assert w.json("SERVICES") == w.json("INFO")["c"]["services"] == [service("web"), service("mail")]
    files = {"cert.pem": file, "privkey.pem": file, "fullchain.pem": file, "info": "-rw-r--r-- root root"}
    tree = {f"p/{each}/{name}": what for each in names for name, what in files.items()}
    assert w.tree(P) == {"p": folder, "p/web": folder, "p/mail": folder, **tree} and not list(D.iterdir())


# fmt: off
@pytest.mark.parametrize("arguments, services, filter, registered", [
    ("p", BOTH, None, "web mail"), ("p mail", BOTH, None, "mail"), ("p other", BOTH, None, ""),
    ("p ''", BOTH, None, "web mail"), ("p", BOTH, "mail", "mail"), ("p web", BOTH, "mail", "web"),
    ("p web", [WEB, {"service": 1}], None, "web"),
])
# fmt: on
def test_takes_the_services_that_are_asked_for(w, arguments, services, filter, registered):
    w.write(default="c\nmore")  # A longer line of it, or a second name, is no failure.
    w.define("p", *services, **({"service": filter} if filter else {}))
    w.ok(f"opalcrtregister {arguments}")
    mail = service("mail", display_name="M", display_name_i18n="i", user_setable=True)
    right = [mail if name == "mail" else service(name, display_name="W") for name in registered.split()]
    assert w.json("SERVICES") == w.json("INFO")["c"]["services"] == right


# fmt: off
@pytest.mark.parametrize("services, bad", [
    ([{"service": 1}, WEB], '{"service":1}'), ([WEB, {"service": "x"}], "{"), ([WEB, ["mail"]], '["mail"]'),
    *[([{"service": name, "display_name": "d"}], "{")
      for name in ("a/b", "../x", ".", "..", "web.temp", "web.bak", "a\0b", "0" * 251)], (None, None), ({}, None),
])
# fmt: on
def test_registers_nothing_where_one_element_is_bad(w, services, bad):
    w.define("p", services=services)
    line = f"Bad service config: {bad}" if bad else "Invalid config: {"
    w.fails("opalcrtregister p", PREPARE, f"opalcrtregister.cpp {line}")
    assert w.books() == {"list": [], "c": []} and not w.tree(P) and not list(D.iterdir())


GOOD = '{"owner": "opalweb", "isPkg": true, "services": [{"service": "web", "display_name": "d"}]}'
READ, BAD = "opalcrtregister.cpp Failed to get config from $D/p.cfg", "opalcrtregister.cpp Bad config"


# The owner is in every service object, so a small definition could fill both books: none longer than a user's name. A
# name that is no UTF-8 would make the report no JSON. The text is looked at as a whole, used or not.
# fmt: off
@pytest.mark.parametrize("text, line", [
    (f"[{GOOD}]", BAD), ("5", BAD), (GOOD.replace('"opalweb"', "5"), BAD), (GOOD.replace("true", '"true"'), BAD),
    (GOOD.replace("true", "false"), BAD), (GOOD.replace("opalweb", "o" * 257), BAD),
    (GOOD.replace("opalweb", ""), "opalcrtregister.cpp Failed to init, [0x0D00 opalcrtregister.cpp:"),
    ("", READ), ("{", READ), (GOOD + "x", READ), (GOOD + "\0", READ), ("/* c */" + GOOD, READ),
    ("[" * 200000, READ), ('{"owner": "root", ' + GOOD[1:], READ), (GOOD[:-1] + ",}", READ),
    (GOOD + " " * 4194304, READ), (GOOD.replace("web", "\udcff"), READ), (GOOD.replace('"d"', r'"\udc00"'), READ),
    (GOOD.replace('"d"', '"\udcc0\udc80"'), READ), (GOOD.replace("{", '{"x": "\udce9", ', 1), READ),
], ids=lambda value: ascii(value[:40]))
# fmt: on
def test_a_bad_definition_is_refused_in_one_line_and_removed(w, text, line):
    (D / "p.cfg").write_text(text, errors="surrogateescape")
    (logged,) = w.fails("opalcrtregister p", INIT)
    assert logged.startswith(line) and w.books() == {"list": [], "c": []} and not list(D.iterdir())


# fmt: off
@pytest.mark.parametrize("plant, line, left", [
    ("true", "Failed to get p.cfg", []), ("mkfifo $D/p.cfg", READ, []), ("mkdir $D/p.cfg", READ, ["p.cfg"]),
])
# fmt: on
def test_what_is_no_file_is_no_definition(w, plant, line, left):
    w.sh(plant)
    w.fails("opalcrtregister p", INIT, line, timeout=5)
    assert os.listdir(D) == left


def test_the_systems_definition_wins(w):
    w.define("p", "web", isPkg=False)
    w.define("p", "mail")
    w.ok("opalcrtregister p")
    assert w.books()["list"] == ["p/web"] and os.listdir(D) == ["p.cfg"]


@pytest.mark.parametrize("name", ["../evil", ".", "..", "", "_archive", "\udcff", "0" * 252, "0" * 237])
def test_a_subscriber_that_is_no_folder_name_is_refused(w, name):
    for path in (evil := D.parent / "evil.cfg", D / "_archive.cfg"):
        path.write_text(GOOD)
    w.fails(f"opalcrtregister '{name}'", INIT, "opalcrtregister.cpp Bad params: subscriber\n")
    assert os.listdir(D) == ["_archive.cfg"] and evil.exists()


def test_odd_names_are_names_and_strangers_in_the_books_stay(w):
    names = [" a b ", "-rf", "it's", "ümläut", "0" * 200]
    stranger = {"odd": [18446744073709551615, 1.5, -3, True, None, '\0"\\/\b\f\n\r\t\x1f', {}, []]}
    w.write(info={"c": {"services": []}, "x": {"services": [], **stranger}})
    w.define("--sub x", *names)
    w.ok("opalcrtregister '--sub x'")
    assert [json.loads((P / "--sub x" / name / "info").read_text())["service"] for name in names] == names
    assert w.json("INFO")["x"] == {"services": [], **stranger} and len(w.json("INFO")["c"]["services"]) == 5


def test_a_listed_service_is_replaced_in_its_place_and_keeps_its_certificate(w):
    w.crt("b")
    web, other = {"subscriber": "p", "service": "web"}, {"subscriber": "q", "service": "web"}
    b = {"desc": 1, "services": [7, web, other]}
    info = {"0": 5, "a": {"services": 5}, "x": {"services": [web]}, "b": b}
    listed = ["stranger", {"subscriber": "p"}]
    w.write({**info, "c": {"services": []}}, [*listed, web, other])
    w.sh("chmod 0640 INFO; chgrp opalmail SERVICES")
    w.define("p", "web", "mail", "web")
    w.ok("opalcrtregister p; cmp $P/p/web/cert.pem b/cert.pem; cmp $P/p/mail/cert.pem c/cert.pem")
    assert w.json("SERVICES") == [*listed, service("web"), other, service("mail")]
    b["services"] = [other, service("web")]
    assert w.json("INFO") == {**info, "c": {"services": [service("mail")]}}
    assert w.sh("stat -c '%a %G' INFO SERVICES") == "640 root\n644 opalmail\n"


@pytest.mark.parametrize("change", ["cat other > INFO", "mv other INFO"])
def test_what_another_process_adds_to_info_meanwhile_stays(w, change):
    add = """cd $A; jq --arg key "$3" '.[$key] = {"services": []}' INFO > other"""
    w.replace("/bin/cp", f'A={A}; {add}; {change}; exec $REAL "$@"')
    w.define("p", "web", "api")
    w.ok("opalcrtregister p")
    assert len(w.books()) == 8 and w.books()["c"] == ["p/web", "p/api"]


UNKNOWN = ("utils.cpp Invalid cert id: [c]\n", "utils.cpp Invalid params (cert_id/services)")
NOT_MOVED = "utils.cpp Failed to move $A/INFO.temp to $A/INFO\nutils.cpp Failed to write"
NOT_UPDATED = ["Broken [$A/INFO][c].[", "Failed to update cert info for [{"]
NOT_WRITTEN = ['Failed to write [{"c":{', "to [$A/INFO.temp].", "Failed to write [$A/INFO]."]


# fmt: off
@pytest.mark.parametrize("scene, out, trail", [
    ("rm SERVICES", APPEND, ["Failed to read register services, it may missed or broken"]),
    ("echo {} > SERVICES", APPEND, ["Incorrect format of register services [{}]"]),
    ("mkdir -p SERVICES.new/x", APPEND, ["Failed to write register services (Is a directory)"]),
    ("rm INFO", DEPLOY, ["utils.cpp Broken [$A/INFO].[0x0100 ", UNKNOWN[1]]),
    ("echo {] > INFO", DEPLOY, ["utils.cpp Broken [$A/INFO].[0x0300 ", UNKNOWN[1]]),
    ("echo [] > INFO", DEPLOY, UNKNOWN), ("""echo '{"c": 5}' > INFO""", DEPLOY, UNKNOWN),
    ("""echo '{"c": {}}' > INFO""", DEPLOY, NOT_UPDATED), ("mkdir -p INFO.temp/x", DEPLOY, NOT_WRITTEN),
    ("rm DEFAULT", DEPLOY, []), ("mount --bind INFO INFO", DEPLOY, [NOT_MOVED]), ("echo > DEFAULT", DEPLOY, []),
    (r"printf 'c\r\n' > DEFAULT", DEPLOY, ["utils.cpp [$A/c\r] doesn't exist.[0x0100 "]),
    ("echo '123456789 long enough' > DEFAULT", DEPLOY, ["[$A/123456789 long ] doesn't exist."]),
    ("""sed -i 's/"web"/""/' $D/p.cfg""", DEPLOY, ["utils.cpp service object is error."]),
    # No regular file: a copy would wait for ever, or have no end.
    *[(f"rm c/{name}.pem; {plant} c/{name}.pem", DEPLOY, [f"utils.cpp Failed to copy [$A/c/{name}.pem]"])
      for plant in ("mkfifo", "ln -s /dev/null") for name in ("cert", "privkey", "fullchain")],
])
# fmt: on
def test_the_stage_that_failed_is_told_and_the_books_stay(w, scene, out, trail):
    w.define("p", "web")
    w.sh(scene)
    before = w.sh("cat INFO; ls") if (A / "INFO").exists() else ""
    w.fails("opalcrtregister p", out, *trail, timeout=3)
    assert not before or w.sh("cat INFO; ls | grep -vx INFO.temp") == before.replace("INFO.temp\n", "")
    assert not (D / "p.cfg").exists()


# A set-user-id start is its caller; and a definition that cannot be removed changes nothing.
# fmt: off
@pytest.mark.parametrize("scene, caller, out, trail", [
    ("true", "root", PREPARE, "Invalid config: {"), ("true", "opalweb", PREPARE, "Invalid config: {"),
    ("sed -i s/opalweb/nobody-knows/ $D/p.cfg", "root", PREPARE, "Invalid config: {"),
    ("true", "opalmail", INIT, "Failed to init, [0xE400 opalcrtregister.cpp:"),
    (r"sed -i 's/opalweb/&\\u0000/' $D/p.cfg", "opalweb", INIT, "Failed to init, [0x2A00 opalcrtregister.cpp:"),
    ("sed -i s/opalweb/root/ $D/p.cfg; chmod u+s $ROW/*register", "opalmail", INIT, "Failed to init, [0xE400"),
    ("chmod 0755 $D", "opalweb", PREPARE, "opalcrtregister.cpp Failed to unlink $D/p.cfg (Permission denied)"),
])
# fmt: on
def test_is_for_root_and_the_owner(w, scene, caller, out, trail):
    w.define("p", services=None)
    w.sh(f"cp $(which opalcrtregister) $ROW; chmod 0777 $D; {scene}")
    w.fails(f"setpriv --reuid={caller} --clear-groups $ROW/opalcrtregister p", out, trail)
    assert os.listdir(D) == (["p.cfg"] if "unlink" in trail else [])


def test_the_command_is_chosen_by_its_name(w):
    names = [f"opalcrt{name}" for name in "register unregister checksum register.bin Register".split()]
    w.sh(f"cp $(which opalcrtregister) $ROW/x; cd $ROW; for n in {' '.join(names)}; do ln -s x $n; done")
    for name in names[:2]:
        usage = f"Certificate service tool\nusage: {name} <subscriber> <service>\nusage: {name} <subscriber>"
        assert w.fails(f"$ROW/{name}", usage) == w.fails(f"$ROW/{name} a b c", usage) == []
    w.ok("$ROW/opalcrtchecksum any thing goes here", out="[]\n")
    assert [w.fails(f"$ROW/{name} p", "") for name in names[3:]] == [[], []]


# The tool is held between the reading of the first and its removal.
def test_a_definition_that_was_dropped_meanwhile_stays(w):
    w.define("p", "web")
    trace = ROW / "trace"
    traced = f"strace -qq -s 99 -o {trace} -e trace=read,getresuid -e inject=getresuid:delay_enter=1s"
    child = w.start(f"{traced} opalcrtregister p", leaks=False)
    w.sh(f"until grep -q opalweb {trace}; do sleep 0.01; done 2>/dev/null")
    w.define("new", "mail")
    (D / "new.cfg").rename(D / "p.cfg")
    assert child.wait(20) == 0 and w.books()["list"] == ["p/web"]
    assert "mail" in (D / "p.cfg").read_text()
