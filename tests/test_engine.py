# The engine: which certificate each action gives, the service objects it takes, the hooks that it runs.
import pytest
from conftest import A, P, service

CLAIM = "for lock in /tmp/*.lock; do flock -n $lock true || echo held; done"
HOOKS = {
    True: ("/usr/local/share/certificate.d", "/usr/local/libexec/certificate.d"),
    False: ("/usr/opal/share/certificate.d", "/usr/libexec/certificate.d"),
}


def hook(w, folder, subscriber="p", end="exit 7"):
    script = f'#!/bin/sh\n{{ {CLAIM}; echo "$0 $#$1"; }} >> /run/row/hooks; {end}\n'
    w.sh(f"mkdir -p {folder}; echo '{script}' > {folder}/{subscriber}; chmod 0755 {folder}/{subscriber}")


@pytest.fixture
def engine(w):
    w.crt("new")
    w.crt("old")
    w.write({"new": {"services": [service("web", "q")]}, "old": {"services": [service("web")], "desc": 1}})
    w.replace("/usr/bin/systemctl", f"{{ {CLAIM}; echo $*; }} >> /run/row/systemctl")
    hook(w, HOOKS[True][1])
    return w


@pytest.mark.parametrize(
    "action, old, given, info, runs",
    [
        *((action, "old", "new", {"new": ["q/web", "p/web"], "old": []}, True) for action in (0, 1, 4)),
        (2, "old", "new", {"new": ["q/web"], "old": ["p/web"]}, True),
        (3, "", "old", {"new": ["q/web"], "old": ["p/web"]}, False),
        (4, "", "new", {"new": ["q/web", "p/web"], "old": ["p/web"]}, True),
    ],
)
def test_does_what_each_action_says_with_no_lock_held(engine, action, old, given, info, runs):
    assert engine.call("SetCrtForServices", "new", [service("web", display_name="D")], old, action)
    assert engine.books() == {"list": [], **info} and engine.json("INFO")["old"]["desc"] == 1
    assert action == 2 or engine.json("INFO")[given]["services"][-1]["display_name"] == "D"
    engine.ok(f"cmp $P/p/web/cert.pem {given}/cert.pem; cat $ROW/systemctl", out="reload opalrelayd\n")
    engine.ok(
        "cat $ROW/hooks || :",
        out=f"{HOOKS[True][1]}/p 1web\n" if runs else "cat: /run/row/hooks: No such file or directory\n",
    )
    assert engine.call("SetCrtForServices", "new", [], "", action) and not engine.said.log


def test_refuses_wrong_parameters_before_it_does_anything(engine):
    before = engine.tree("/usr/opal", content=True)
    invalid = "utils.cpp Invalid params (cert_id/services)"
    for id, services, action, log in [
        (
            "new",
            [service("web")],
            -1,
            ["utils.cpp Wrong rgCRTActionInfo.", "utils.cpp Invalid params (action)"],
        ),
        (
            "new",
            [service("web")],
            5,
            ["utils.cpp Wrong rgCRTActionInfo.", "utils.cpp Invalid params (action)"],
        ),
        ("new", {}, 0, [invalid]),
        ("unknown", [service("web")], 0, ["utils.cpp Invalid cert id: [unknown]", invalid]),
        ("../_archive/new", [service("web")], 0, ["utils.cpp Invalid cert id: [../_archive/new]", invalid]),
    ]:
        assert not engine.call("SetCrtForServices", id, services, "", action) and engine.said.log == log
    assert engine.tree("/usr/opal", content=True) == before and not engine.tree(P)
    engine.ok("ls /tmp/*.lock $ROW/systemctl 2>/dev/null || :")


def test_goes_on_after_a_service_that_fails_and_tells_of_each(engine):
    services = [
        service("web", owner="nobody-knows"),
        5,
        service("../../q"),
        service("late"),
        service("temp.temp"),
    ]
    assert not engine.call("SetCrtForServices", "new", services, "", 3)
    lines = ["Failed to OPALUserGetUGID [nobody-knows].[0x2A00", "Failed to set cert [old] for [{"]
    lines += ["service object is error.\n"] * 2 + ["service object is error.\n"]
    assert engine.said.logged(*lines)
    assert engine.books() == {"list": [], "new": ["q/web", "p/late"], "old": ["p/web"]}
    engine.ok("ls $P $P/p; cat $ROW/systemctl", out=f"{P}:\np\n\n{P}/p:\nlate\nreload opalrelayd\n")


@pytest.mark.parametrize(
    "new, old",
    [("[]", "{}"), ("[]", "7"), ("[]", None), ("{}", '{"services": []}'), (None, '{"services": []}')],
)
def test_leaves_info_alone_where_an_entry_is_broken(engine, new, old):
    entries = [f'"new": {{"services": {new}}}' if new else '"new": {}', *([f'"old": {old}'] if old else [])]
    engine.write(info="{%s}" % ", ".join(entries))
    assert not engine.call("SetCrtForServices", "new", [service("web")], "old", 0)
    broken = "new" if new != "[]" else "old"
    lines = (
        f"utils.cpp Broken [$A/INFO][{broken}].[0x",
        "utils.cpp Failed to update cert info for [{",
        "}] from old to new\n",
    )
    assert engine.said.logged(*lines) and (A / "INFO").read_text() == "{%s}" % ", ".join(entries)
    engine.ok("ls $ROW/hooks 2>/dev/null || :")


def test_a_service_object_has_each_required_member_and_no_empty_one(w):
    right = service("web", display_name_i18n="x")
    assert w.call("IsServiceObjValid", right) and w.call("IsServiceObjValid", service("web"))
    for key in right:
        lacks = w.call("IsServiceObjValid", {each: right[each] for each in right if each != key})
        log = [] if key == "display_name_i18n" else [f"utils.cpp Lack of necesary key. [{key}]"]
        assert (lacks, w.said.log) == (not log, log)
        for value in ("", 5) if key != "isPkg" else ("true",):
            assert not w.call("IsServiceObjValid", {**right, key: value}) and not w.said.log


def test_a_list_is_built_anew_also_of_its_own_element(w):
    one, two, three = service("a"), service("b"), service("c", "q")
    for given, element, removed, left in [
        ([one, two, three], 0, False, [two, three, one]),
        ([one, two, three, one], 3, False, [two, three, one]),
        ([one, two, three], 1, True, [one, three]),
        ([one, 5, {"subscriber": "p"}, {"subscriber": 1, "service": "x"}, [one]], two, False, [one, two]),
        ([one, {**one, "service": ""}], two, True, [one, {**one, "service": ""}]),
    ]:
        w.call("UpdateServiceList", given, element, removed)
        assert w.answer["list"] == left


@pytest.mark.parametrize("isPkg", [True, False])
def test_runs_the_first_hook_of_the_subscriber_whatever_becomes_of_it(w, isPkg):
    for folder in HOOKS[not isPkg]:
        hook(w, folder)
    assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0 and not w.said.log
    hook(w, HOOKS[isPkg][1])
    assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0
    hook(w, HOOKS[isPkg][0], end="kill -9 $$")
    assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0 and not w.said.log
    assert w.sh("cat $ROW/hooks") == "".join(f"{folder}/p 1we b\n" for folder in reversed(HOOKS[isPkg]))


def test_a_hook_that_cannot_run_is_a_failure(engine):
    engine.sh("touch $D/p")  # Not executable. The other one is not tried.
    assert not engine.call("SetCrtForServices", "new", [service("web")], "old", 2)
    assert engine.said.logged("utils.cpp Failed to [$D/p][web].[0x0500 process.cpp:", "Failed to reload [{")
    engine.ok("ls $ROW/hooks 2>/dev/null || :")
