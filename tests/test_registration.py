# Registering: definitions, the two books, the stages of a run, and its caller.
import json
import os
import time
from pathlib import Path

import pytest
from conftest import A, D, P, ROW, service

INIT = "Failed to init registerer"
PREPARE = "Failed to prepare services"
APPEND = "Failed to append register services"
DEPLOY = "Failed to DeployDefCrt for p"
WEB = {"service": "web", "display_name": "W", "display_name_i18n": 5, "multiple_cert": "yes"}
MAIL = {"service": "mail", "display_name": "M", "display_name_i18n": "i", "user_setable": True}


def test_every_service_gets_its_folder_and_is_in_both_books(w):
    w.define("p", "web", "mail")
    said = w.run("umask 0777; opalcrtregister p")
    assert (said.status, said.out) == (0, "")
    for name, line in zip(("web", "mail"), said.log):
        assert line == f"opalcrtregister.cpp Register certificate for p/{name}(pkg)"
    assert said.log[2].startswith("utils.cpp Reload opalrelayd failed.") and len(said.log) == 3
    assert w.json("SERVICES") == w.json("INFO")["c"]["services"] == [service("web"), service("mail")]
    folder = {name: "-r-------- opalweb opalweb" for name in ("cert.pem", "privkey.pem", "fullchain.pem")}
    folder = {".": "drwxr-xr-x root root", **folder, "info": "-rw-r--r-- root root"}
    tree = {
        os.path.normpath(f"p/{each}/{name}"): what
        for each in ("web", "mail")
        for name, what in folder.items()
    }
    assert w.tree(P) == {"p": "drwxr-xr-x root root", **tree}
    assert not list(D.iterdir())


@pytest.mark.parametrize(
    "arguments, services, filter, registered",
    [
        ("p", [WEB, MAIL], None, "web mail"),
        ("p mail", [WEB, MAIL], None, "mail"),
        ("p ''", [WEB, MAIL], None, "web mail"),
        ("p other", [WEB, MAIL], None, ""),
        ("p", [WEB, MAIL], "mail", "mail"),
        ("p web", [WEB, MAIL], "mail", "web"),
        ("p web", [WEB, {"service": 1}], None, "web"),
    ],
)
def test_takes_the_services_that_are_asked_for(w, arguments, services, filter, registered):
    w.define("p", *services, **({"service": filter} if filter else {}))
    w.ok(f"opalcrtregister {arguments}")
    right = {"web": service("web", display_name="W")}
    right["mail"] = service("mail", display_name="M", display_name_i18n="i", user_setable=True)
    assert (
        w.json("SERVICES") == w.json("INFO")["c"]["services"] == [right[name] for name in registered.split()]
    )


@pytest.mark.parametrize(
    "services, trail",
    [
        ([{"service": 1}, WEB], 'Bad service config: {"service":1}'),
        ([WEB, {"service": "x"}], "Bad service config: {"),
        ([WEB, ["mail"]], 'opalcrtregister.cpp Bad service config: ["mail"]'),
        (None, "opalcrtregister.cpp Invalid config: {"),
        ({}, "opalcrtregister.cpp Invalid config: {"),
        *[
            ([{"service": name, "display_name": "d"}], "Bad service config: {")
            for name in ("a/b", "../x", ".", "..", "web.temp", "web.bak", "a\0b", "0" * 251)
        ],
    ],
)
def test_registers_nothing_where_one_element_is_bad(w, services, trail):
    w.define("p", services=services)
    w.fails("opalcrtregister p", PREPARE, trail)
    assert w.books() == {"list": [], "c": []} and not w.tree(P) and not list(D.iterdir())


GOOD = '{"owner": "opalweb", "isPkg": true, "services": [{"service": "web", "display_name": "d"}]}'
READ = "opalcrtregister.cpp Failed to get config from $D/p.cfg"


@pytest.mark.parametrize(
    "text, trail",
    [
        (f"[{GOOD}]", "Bad config"),
        ("5", "Bad config"),
        (GOOD.replace('"opalweb"', "5"), "Bad config"),
        (GOOD.replace("true", '"true"'), "Bad config"),
        (GOOD.replace("true", "false"), "Bad config"),
        (GOOD.replace("opalweb", ""), "Failed to init, [0x0D00 opalcrtregister.cpp:"),
        ("", READ),
        ("{", READ),
        (GOOD + "x", READ),
        (GOOD + "\0", READ),
        ("/* c */" + GOOD, READ),
        ('{"owner": "root", ' + GOOD[1:], READ),
        (GOOD[:-1] + ",}", READ),
        ("[" * 200000, READ),
        (GOOD + " " * 4194304, READ),
    ],
    ids=lambda value: value[:40],
)
def test_a_bad_definition_is_refused_and_removed(w, text, trail):
    (D / "p.cfg").write_text(text)
    w.fails("opalcrtregister p", INIT, trail)
    assert w.books() == {"list": [], "c": []} and not list(D.iterdir())


# A name that is no UTF-8 would make the report no JSON. The text is looked at as a whole, used or not.
@pytest.mark.parametrize(
    "old, new",
    [("web", "\udcff"), ('"d"', r'"\udc00"'), ('"d"', '"\udcc0\udc80"'), ("{", '{"x": "\udce9", ')],
)
def test_a_definition_that_is_no_utf8_is_refused_whole(w, old, new):
    (D / "p.cfg").write_text(GOOD.replace(old, new, 1), errors="surrogateescape")
    w.fails("opalcrtregister p", INIT)
    assert w.books() == {"list": [], "c": []} and not list(D.iterdir())


@pytest.mark.parametrize(
    "plant, line, left",
    [("true", "Failed to get p.cfg", []), ("mkfifo $D/p.cfg", READ, []), ("mkdir $D/p.cfg", READ, ["p.cfg"])],
)
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
    for path in (D.parent / "evil.cfg", D / "_archive.cfg"):
        path.write_text(GOOD)
    w.fails(f"opalcrtregister '{name}'", INIT, "opalcrtregister.cpp Bad params: subscriber\n")
    assert os.listdir(D) == ["_archive.cfg"] and (D.parent / "evil.cfg").exists()


def test_odd_names_are_names_and_strangers_in_the_books_stay(w):
    names = [" a b ", "-rf", "it's", "ümläut", "0" * 200]
    stranger = {"odd": [18446744073709551615, 1.5, -3, True, None, '\0"\\/\b\f\n\r\t\x1f', {}, []]}
    w.write(info={"c": {"services": []}, "x": {"services": [], **stranger}})
    w.define("--sub x", *names)
    w.ok("opalcrtregister '--sub x'")
    assert [json.loads((P / "--sub x" / name / "info").read_text())["service"] for name in names] == names
    assert w.json("INFO")["x"] == {"services": [], **stranger} and len(w.json("INFO")["c"]["services"]) == 5


def test_the_empty_service_name_is_left_to_the_engine(w):
    w.define("p", "")
    w.fails("opalcrtregister p", DEPLOY, "utils.cpp service object is error.")


# The owner is in every service object, so a small definition could fill both books.
def test_an_owner_longer_than_a_user_name_is_refused_before_a_word(w):
    w.define("p", "web", owner="o" * 257)
    assert w.fails("opalcrtregister p", INIT) == ["opalcrtregister.cpp Bad config"]


def test_a_listed_service_is_replaced_in_its_place_and_keeps_its_certificate(w):
    w.crt("b")
    web, other = {"subscriber": "p", "service": "web"}, {"subscriber": "q", "service": "web"}
    strange = {"0": 5, "a": {"services": 5}, "x": {"services": [web]}}
    b = {"desc": 1, "services": [7, web, other]}
    w.write(
        info={**strange, "b": b, "c": {"services": []}},
        services=["stranger", {"subscriber": "p"}, web, other],
    )
    w.sh("chmod 0640 INFO; chgrp opalmail SERVICES")
    w.define("p", "web", "mail", "web")
    w.ok("opalcrtregister p; cmp $P/p/web/cert.pem b/cert.pem; cmp $P/p/mail/cert.pem c/cert.pem")
    assert w.json("SERVICES") == ["stranger", {"subscriber": "p"}, service("web"), other, service("mail")]
    assert w.json("INFO") == {
        **strange,
        "b": {"desc": 1, "services": [other, service("web")]},
        "c": {"services": [service("mail")]},
    }
    assert w.sh("stat -c '%a %G' INFO SERVICES") == "640 root\n644 opalmail\n"


@pytest.mark.parametrize("change", ["cat other > INFO", "mv other INFO"])
def test_what_another_process_adds_to_info_meanwhile_stays(w, change):
    add = """cd $A; jq --arg key "$3" '.[$key] = {"services": []}' INFO > other"""
    w.replace("/bin/cp", f'A={A}; {add}; {change}; exec $REAL "$@"')
    w.define("p", "web", "api")
    w.ok("opalcrtregister p")
    assert len(w.books()) == 8 and w.books()["c"] == ["p/web", "p/api"]


UNKNOWN = ("utils.cpp Invalid cert id: [c]\n", "utils.cpp Invalid params (cert_id/services)")


@pytest.mark.parametrize(
    "scene, out, trail",
    [
        ("rm SERVICES", APPEND, ["Failed to read register services, it may missed or broken"]),
        ("echo {} > SERVICES", APPEND, ["Incorrect format of register services [{}]"]),
        ("mkdir -p SERVICES.new/x", APPEND, ["Failed to write register services (Is a directory)"]),
        ("rm INFO", DEPLOY, ["utils.cpp Broken [$A/INFO].[0x0100 ", UNKNOWN[1]]),
        ("echo {] > INFO", DEPLOY, ["utils.cpp Broken [$A/INFO].[0x0300 ", UNKNOWN[1]]),
        ("echo [] > INFO", DEPLOY, UNKNOWN),
        ("""echo '{"c": 5}' > INFO""", DEPLOY, UNKNOWN),
        (
            """echo '{"c": {}}' > INFO""",
            DEPLOY,
            ["Broken [$A/INFO][c].[", "Failed to update cert info for [{"],
        ),
        (
            "mkdir -p INFO.temp/x",
            DEPLOY,
            ['Failed to write [{"c":{', "to [$A/INFO.temp].", "Failed to write [$A/INFO]."],
        ),
        (
            "mount --bind INFO INFO",
            DEPLOY,
            ["utils.cpp Failed to move $A/INFO.temp to $A/INFO\nutils.cpp Failed to write"],
        ),
        ("rm DEFAULT", DEPLOY, []),
        ("echo > DEFAULT", DEPLOY, []),
        (r"printf 'c\r\n' > DEFAULT", DEPLOY, ["utils.cpp [$A/c\r] doesn't exist.[0x0100 "]),
        ("echo '123456789 long enough' > DEFAULT", DEPLOY, ["[$A/123456789 long ] doesn't exist."]),
        # No regular file: a copy would wait for ever, or have no end.
        *[
            (
                f"rm c/{name}.pem; {plant} c/{name}.pem",
                DEPLOY,
                [f"utils.cpp Failed to copy [$A/c/{name}.pem]"],
            )
            for plant in ("mkfifo", "ln -s /dev/null")
            for name in ("cert", "privkey", "fullchain")
        ],
    ],
)
def test_the_stage_that_failed_is_told_and_the_books_stay(w, scene, out, trail):
    w.define("p", "web")
    w.sh(scene)
    before = w.sh("cat INFO; ls") if (A / "INFO").exists() else ""
    w.fails("opalcrtregister p", out, *trail, timeout=3)
    assert not before or w.sh("cat INFO; ls | grep -vx INFO.temp") == before.replace("INFO.temp\n", "")
    assert not (D / "p.cfg").exists()


# A second name, or a longer line of DEFAULT, is no failure.
def test_default_is_its_first_line(w):
    w.write(default="c\nmore")
    w.define("p", "web")
    w.ok("opalcrtregister p")


def test_the_owner_must_be_a_user_who_can_own_files(w):
    w.sh("(cat /etc/passwd; echo ghost:x:4294967295:1::/:/; echo g:x:1:4294967295::/:/) > $ROW/users")
    w.mount("--bind", ROW / "users", "/etc/passwd")
    for owner in ("ghost", "g", "nobody-knows"):
        w.define("p", "web", owner=owner)
        w.fails("opalcrtregister p", DEPLOY, f"utils.cpp Failed to OPALUserGetUGID [{owner}].[0x2A00 ")
        assert not list(P.glob("p/web/*"))


@pytest.mark.parametrize(
    "scene, caller, out, trail",
    [
        ("true", "root", PREPARE, "Invalid config: {"),
        ("sed -i s/opalweb/nobody-knows/ $D/p.cfg", "root", PREPARE, "Invalid config: {"),
        ("true", "opalweb", PREPARE, "Invalid config: {"),
        ("true", "opalmail", INIT, "Failed to init, [0xE400 opalcrtregister.cpp:"),
        (
            r"sed -i 's/opalweb/&\\u0000/' $D/p.cfg",
            "opalweb",
            INIT,
            "Failed to init, [0x2A00 opalcrtregister.cpp:",
        ),
        # A set-user-id start is its caller; and a definition that cannot be removed changes nothing.
        (
            "sed -i s/opalweb/root/ $D/p.cfg; chmod u+s $ROW/*register",
            "opalmail",
            INIT,
            "Failed to init, [0xE400",
        ),
        (
            "chmod 0755 $D",
            "opalweb",
            PREPARE,
            "opalcrtregister.cpp Failed to unlink $D/p.cfg (Permission denied)",
        ),
    ],
)
def test_is_for_root_and_the_owner(w, scene, caller, out, trail):
    w.define("p", services=None)
    w.sh(f"cp $(which opalcrtregister) $ROW; chmod 0777 $D; {scene}")
    w.fails(f"setpriv --reuid={caller} --clear-groups $ROW/opalcrtregister p", out, trail)
    assert os.listdir(D) == (["p.cfg"] if "unlink" in trail else [])


def test_the_command_is_chosen_by_its_name(w):
    names = [
        "opalcrtregister",
        "opalcrtunregister",
        "opalcrtchecksum",
        "opalcrtregister.bin",
        "opalcrtRegister",
    ]
    w.sh(f"cp $(which opalcrtregister) $ROW/x; cd $ROW; for n in {' '.join(names)}; do ln -s x $n; done")
    for name in names[:2]:
        usage = f"Certificate service tool\nusage: {name} <subscriber> <service>\nusage: {name} <subscriber>"
        for arguments in ("", "a b c"):
            w.fails(f"$ROW/{name} {arguments}", usage)
    w.ok("$ROW/opalcrtchecksum any thing goes here", out="[]\n")
    for name in names[3:]:
        assert w.fails(f"$ROW/{name} p", "") == []


def test_nobody_is_lost_when_many_run_at_once_with_closed_streams(w):
    for i in range(16):
        w.define(f"p{i}", "web", "mail")
    w.sh("for i in $(seq 0 15); do opalcrtregister p$i <&- >&- 2>&- & done; wait")
    everybody = sorted(f"p{i}/{name}" for i in range(16) for name in ("web", "mail"))
    assert sorted(w.books()["list"]) == sorted(w.books()["c"]) == everybody
    assert len(list(P.glob("*/*/info"))) == 32


# The tool is held between the reading of the first and its removal.
def test_a_definition_that_was_dropped_meanwhile_stays(w):
    w.define("p", "web")
    trace = ROW / "trace"
    traced = f"strace -qq -s 99 -o {trace} -e trace=read,getresuid -e inject=getresuid:delay_enter=1s"
    child = w.start(f"{traced} opalcrtregister p", leaks=False)
    while not (trace.exists() and "opalweb" in trace.read_text()):
        time.sleep(0.01)
    w.define("new", "mail")
    (D / "new.cfg").rename(D / "p.cfg")
    assert child.wait(20) == 0 and w.books()["list"] == ["p/web"]
    assert "mail" in (D / "p.cfg").read_text()


# Neither what a caller left strange in the process nor anything of his reaches a child. (The script reads its
# signals with the shell's own word, since a shell blocks
# them while it waits. The signals 32 and 33 are the C library's own, the descriptors 10 and 11 the shell's.)
def test_children_get_nothing_of_the_caller(w):
    look = """while read -r line; do case $line in SigBlk*|SigIgn*) echo $line;; esac; done < /proc/$$/status
        ls -l /proc/$$/fd | grep -c null; (cd /proc/$$/fd; echo *); env | sort; pwd; umask"""
    w.replace("/usr/bin/systemctl", "{ " + look + "; } > /tmp/seen")
    w.define("p", "web")
    strange = "env --block-signal --ignore-signal=CHLD,PIPE,TERM"
    w.ok(f"exec 7</etc/passwd; umask 0; OPENSSL_CONF=/etc/passwd SECRET=1 {strange} opalcrtregister p")
    seen = Path("/tmp/seen").read_text().split("\n")
    assert [seen[0], *seen[2:4]] == ["SigBlk: 0000000000000000", "3", "0 1 10 11 2"]
    assert int(seen[1].split()[1], 16) & ~0x180000000 == 0  # 32 and 33 are the C library's
    env = ["HOME=/root", "LC_ALL=C", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "PWD=/"]
    assert seen[4:] == [*env, "/", "0022", ""]
