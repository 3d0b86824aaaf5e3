# Registering: definitions, the two books, the stages of a run, and its caller.
import json, os

import pytest
from conftest import A, D, P, S, service

INIT, PREPARE = "Failed to init registerer", "Failed to prepare services"
APPEND, DEPLOY = "Failed to append register services", "Failed to DeployDefCrt for p"
WEB = {"service": "web", "display_name": "W", "display_name_i18n": 5, "multiple_cert": "yes"}
MAIL = {"service": "mail", "display_name": "M", "display_name_i18n": "i", "user_setable": True}
BOTH = [WEB, MAIL]


# fmt: off
@pytest.mark.parametrize("arguments, services, filter, registered", [
    ("p ''", BOTH, None, "web mail"), ("p mail", BOTH, None, "mail"), ("p web", BOTH, "mail", "web"),
    ("p other", BOTH, None, ""), ("p", BOTH, "mail", "mail"), ("p web", [WEB, {"service": 1}], None, "web"),
])
# fmt: on
def test_the_services_that_are_asked_for_are_in_both_books(w, arguments, services, filter, registered):
    w.write(default="c\nmore")  # A longer line of it, or a second name, is no failure.
    w.define("p", *services, **({"service": filter} if filter else {}))
    *told, reload = w.ok(f"opalcrtregister {arguments}")
    names = registered.split()
    assert told == [f"opalcrtregister.cpp Register certificate for p/{name}(pkg)" for name in names]
    assert reload.startswith("utils.cpp Reload opalrelayd failed.") and not list(D.iterdir())
    mail = service("mail", display_name="M", display_name_i18n="i", user_setable=True)
    right = [mail if name == "mail" else service(name, display_name="W") for name in names]
    assert w.json("SERVICES") == w.json("INFO")["c"]["services"] == right


GOOD = '{"owner": "opalweb", "isPkg": true, "services": [{"service": "web", "display_name": "d"}]}'
READ, BAD = "opalcrtregister.cpp Failed to get config from $D/p.cfg", "opalcrtregister.cpp Bad config"
NAMES = "a/b", "../x", ".", "..", "web.temp", "web.bak", r"a\u0000b", "0" * 251
WRONG = '["mail"]', '{"service": "x"}', '{"service": 1, "display_name": "d"}'
WRONG += tuple(f'{{"display_name": "d", "service": "{name}"}}' for name in NAMES)


# The owner is in every service object, so a small definition could fill both books: none longer than a user's name. A
# name that is no UTF-8 would make the report no JSON. The text is looked at as a whole, used or not.
# fmt: off
@pytest.mark.parametrize("text, out, line", [
    *[(text, INIT, BAD) for text in (
        f"[{GOOD}]", "5", GOOD.replace('"opalweb"', "5"), GOOD.replace("opalweb", "o" * 257),
        GOOD.replace("true", '"true"'), GOOD.replace("true", "false"))],
    *[(text, INIT, READ) for text in (
        "", "{", GOOD + "x", GOOD + "\0", "/* c */" + GOOD, GOOD[:-1] + ",}", '{"owner": "root", ' + GOOD[1:],
        "[" * 200000, GOOD + " " * 4194304, GOOD.replace("web", "\udcff"), GOOD.replace('"d"', r'"\udc00"'),
        GOOD.replace('"d"', '"\udcc0\udc80"'), GOOD.replace("{", '{"x": "\udce9", ', 1))],
    (GOOD.replace("opalweb", ""), INIT, "opalcrtregister.cpp Failed to init, [0x0D00 opalcrtregister.cpp:"),
    *[(GOOD.replace("]", f",{bad}]"), PREPARE, "opalcrtregister.cpp Bad service config: ") for bad in WRONG],
], ids=lambda value: ascii(value[:40]))
# fmt: on
def test_a_bad_definition_registers_nothing_and_is_removed(w, text, out, line):
    (D / "p.cfg").write_text(text, errors="surrogateescape")
    *before, last = w.fails("opalcrtregister p", out)
    assert last.startswith(line) and len(before) == (out == PREPARE)  # where the first element is told
    assert w.books() == {"list": [], "c": []} and not w.tree(P) and not list(D.iterdir())


@pytest.mark.parametrize("name", ["../evil", ".", "..", "", "_archive", "\udcff", "0" * 252, "0" * 237])
def test_a_subscriber_that_is_no_folder_name_is_refused(w, name):
    for path in (evil := D.parent / "evil.cfg", D / "_archive.cfg"):
        path.write_text(GOOD)
    w.fails(f"opalcrtregister '{name}'", INIT, "opalcrtregister.cpp Bad params: subscriber\n")
    assert os.listdir(D) == ["_archive.cfg"] and evil.exists()


def test_odd_names_are_names_and_the_systems_definition_wins(w):
    names = [" a b ", "-rf", "it's", "ümläut", "0" * 200]
    w.define("--sub x", *names, isPkg=False)
    w.define("--sub x", "other")
    w.ok("opalcrtregister '--sub x'")
    assert [json.loads((S / "--sub x" / name / "info").read_text())["service"] for name in names] == names
    assert w.books()["c"] == [f"--sub x/{name}" for name in names] and os.listdir(D) == ["--sub x.cfg"]


STRANGER = {"odd": [18446744073709551615, 1.5, -3, True, None, '\0"\\/\b\f\n\r\t\x1f', {}, []]}


def test_a_listed_service_is_replaced_in_its_place_and_keeps_its_certificate(w):
    w.crt("b")
    web, other = {"subscriber": "p", "service": "web"}, {"subscriber": "q", "service": "web"}
    b = {"services": [7, {"subscriber": "p"}, web, other], **STRANGER}
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
    ("echo {] > INFO", DEPLOY, ["utils.cpp Broken [$A/INFO].[0x0300 ", UNKNOWN[1]]),
    ("echo [] > INFO", DEPLOY, UNKNOWN), ("""echo '{"c": 5}' > INFO""", DEPLOY, UNKNOWN),
    ("""echo '{"c": {}}' > INFO""", DEPLOY, NOT_UPDATED), ("mkdir -p INFO.temp/x", DEPLOY, NOT_WRITTEN),
    ("rm DEFAULT", DEPLOY, []), ("mount --bind INFO INFO", DEPLOY, [NOT_MOVED]), ("echo > DEFAULT", DEPLOY, []),
    ("echo '123456789 long enough' > DEFAULT", DEPLOY, ["[$A/123456789 long ] doesn't exist.[0x0100 "]),
    ("""sed -i 's/"web"/""/' $D/p.cfg""", DEPLOY, ["utils.cpp service object is error."]),
])
# fmt: on
def test_the_stage_that_failed_is_told_and_the_books_stay(w, scene, out, trail):
    w.define("p", "web")
    look = "cat INFO 2>&-; ls -I INFO.temp"
    before = w.sh(f"{scene}; {look}")
    w.fails("opalcrtregister p", out, *trail)
    assert w.sh(look) == before


# A set-user-id start is its caller; and a definition that cannot be removed changes nothing.
# fmt: off
@pytest.mark.parametrize("scene, caller, out, trail", [
    ("true", "opalweb", PREPARE, "Invalid config: {"), ("true", "opalmail", INIT, "Failed to init, [0xE400"),
    ("sed -i s/opalweb/nobody-knows/ $D/p.cfg", "root", PREPARE, "Invalid config: {"),
    (r"sed -i 's/opalweb/&\\u0000/' $D/p.cfg", "opalweb", INIT, "Failed to init, [0x2A00 opalcrtregister.cpp:"),
    ("sed -i s/opalweb/root/ $D/p.cfg; chmod u+s $ROW/*register", "opalmail", INIT, "Failed to init, [0xE400"),
    ("chmod 0755 $D", "opalweb", PREPARE, "opalcrtregister.cpp Failed to unlink $D/p.cfg (Permission denied)"),
    ("rm $D/p.cfg", "root", INIT, "Failed to get p.cfg"), ("rm $D/*; mkfifo $D/p.cfg", "root", INIT, READ),
    ("rm $D/p.cfg; mkdir $D/p.cfg", "root", INIT, "Failed to unlink $D/p.cfg (Is a directory)"),
])
# fmt: on
def test_a_definition_is_a_file_and_for_root_and_its_owner(w, scene, caller, out, trail):
    w.define("p", services=None)
    w.sh(f"cp $(which opalcrtregister) $ROW; chmod 0777 $D; {scene}")
    w.fails(f"setpriv --reuid={caller} --clear-groups $ROW/opalcrtregister p", out, trail, timeout=5)
    assert os.listdir(D) == (["p.cfg"] if "unlink" in trail else [])


def test_the_command_is_chosen_by_its_name(w):
    names = [f"opalcrt{name}" for name in "register unregister register.bin Register".split()]
    w.sh(f"cp $(which opalcrtregister) $ROW/x; cd $ROW; for n in {' '.join(names)}; do ln -s x $n; done")
    for name in names[:2]:
        usage = f"Certificate service tool\nusage: {name} <subscriber> <service>\nusage: {name} <subscriber>"
        assert w.fails(f"$ROW/{name}", usage) == w.fails(f"$ROW/{name} a b c", usage) == []
    assert [w.fails(f"$ROW/{name} p", "") for name in names[2:]] == [[], []]


# The tool is held between the reading of the first and its removal.
def test_a_definition_that_was_dropped_meanwhile_stays(w):
    w.define("p", "web")
    traced = "strace -qq -s 99 -o $ROW/trace -e trace=read,getresuid -e inject=getresuid:delay_enter=1s"
    child = w.start(f"{traced} opalcrtregister p", leaks=False)
    w.sh("until grep -q opalweb $ROW/trace; do sleep 0.01; done 2>/dev/null")
    w.define("new", "mail")
    (D / "new.cfg").rename(D / "p.cfg")
    assert child.wait(20) == 0 and w.books()["list"] == ["p/web"] and "mail" in (D / "p.cfg").read_text()
