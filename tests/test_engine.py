# The engine: which certificate each action gives, the service objects it takes, the hooks that it runs.
import pytest
from conftest import A, P, service

CLAIM = "for lock in /tmp/*.lock; do flock -n $lock true || echo held; done"
ROOTS = ("/usr/opal/share", "/usr/libexec"), ("/usr/local/share", "/usr/local/libexec")
HOOKS = [[f"{root}/certificate.d" for root in roots] for roots in ROOTS]


def hook(w, folder, end="exit 7"):
    script = f'#!/bin/sh\n{{ {CLAIM}; echo "$0 $#$1"; }} >> /run/row/hooks; {end}\n'
    w.sh(f"mkdir -p {folder}; echo '{script}' > {folder}/p; chmod 0755 {folder}/p; touch $ROW/hooks")


@pytest.fixture
def engine(w):
    w.crt("new")
    w.crt("old")
    w.write({"new": {"services": [service("web", "q")]}, "old": {"services": [service("web")], "desc": 1}})
    w.replace("/usr/bin/systemctl", f"{{ {CLAIM}; echo $*; }} >> /run/row/systemctl")
    hook(w, HOOKS[True][1])
    return w


# fmt: off
@pytest.mark.parametrize("action, old, given, new, runs", [
    (0, "old", "new", ["q/web", "p/web"], True), (1, "old", "new", ["q/web", "p/web"], True),
    (2, "old", "new", ["q/web"], True), (3, "", "old", ["q/web"], False),
    (4, "", "new", ["q/web", "p/web"], True),
])
# fmt: on
def test_does_what_each_action_says_with_no_lock_held(engine, action, old, given, new, runs):
    assert engine.call("SetCrtForServices", "new", [service("web", display_name="D")], old, action)
    assert engine.books() == {"list": [], "new": new, "old": ["p/web"] if action > 1 else []}
    info = engine.json("INFO")
    assert info["old"]["desc"] == 1 and (action == 2 or info[given]["services"][-1]["display_name"] == "D")
    out = "reload opalrelayd\n" + (f"{HOOKS[True][1]}/p 1web\n" if runs else "")
    engine.ok(f"cmp $P/p/web/cert.pem {given}/cert.pem; cat $ROW/systemctl $ROW/hooks", out=out)
    assert engine.call("SetCrtForServices", "new", [], "", action) and not engine.said.log


INVALID = "utils.cpp Invalid params (cert_id/services)"
ACTION = ["utils.cpp Wrong rgCRTActionInfo.", "utils.cpp Invalid params (action)"]


def test_refuses_wrong_parameters_before_it_does_anything(engine):
    before = engine.tree("/usr/opal", content=True)
    # fmt: off
    for id, services, action, log in [
        ("new", [service("web")], -1, ACTION), ("new", [service("web")], 5, ACTION), ("new", {}, 0, [INVALID]),
        ("unknown", [service("web")], 0, ["utils.cpp Invalid cert id: [unknown]", INVALID]),
        ("../_archive/new", [service("web")], 0, ["utils.cpp Invalid cert id: [../_archive/new]", INVALID]),
    ]:
        # fmt: on
        assert not engine.call("SetCrtForServices", id, services, "", action) and engine.said.log == log
    assert engine.tree("/usr/opal", content=True) == before and not engine.tree(P)
    engine.ok("ls /tmp/*.lock $ROW/systemctl 2>/dev/null || :")


def test_goes_on_after_a_service_that_fails_and_tells_of_each(engine):
    services = [service("web", owner="none"), 5, service("../../q"), service("x.temp"), service("late")]
    assert not engine.call("SetCrtForServices", "new", services, "", 3)
    lines = ["Failed to set cert [old] for [{", *["utils.cpp service object is error.\n"] * 3]
    assert engine.said.logged("Failed to OPALUserGetUGID [none].[0x2A00", *lines)
    assert engine.books() == {"list": [], "new": ["q/web", "p/late"], "old": ["p/web"]}
    engine.sh("touch $D/p")  # Not executable. The other one is not tried.
    assert not engine.call("SetCrtForServices", "new", services[-1:], "", 2)
    assert engine.said.logged("utils.cpp Failed to [$D/p][late].[0x0500 process.cpp:", "Failed to reload [{")
    out = "late\nreload opalrelayd\nreload opalrelayd\n"
    engine.ok("ls $P/p; cat $ROW/systemctl $ROW/hooks", out=out)


def test_leaves_info_alone_where_an_entry_is_broken(engine):
    for id, other in (("old", "new"), ("new", "old")):
        for broken in ("{}", '{"services": {}}', *(["7"] if id == "old" else [])):
            info = f'{{"{other}": {{"services": []}}, "{id}": {broken}}}'
            engine.write(info=info)
            assert not engine.call("SetCrtForServices", "new", [service("web")], "old", 0)
            assert engine.said.logged(f"utils.cpp Broken [$A/INFO][{id}].[0x")
            assert engine.said.logged("Failed to update cert info for [{", "}] from old to new\n")
            assert (A / "INFO").read_text() == info
    assert engine.sh("cat $ROW/hooks") == ""


def test_a_service_object_has_each_required_member_and_no_empty_one(w):
    right = service("web", display_name_i18n="x")
    for key in right:
        lacks = w.call("IsServiceObjValid", {each: right[each] for each in right if each != key})
        log = [] if key == "display_name_i18n" else [f"utils.cpp Lack of necesary key. [{key}]"]
        assert (lacks, w.said.log) == (not log, log)
        for value in ("", 5) if key != "isPkg" else ("true",):
            assert not w.call("IsServiceObjValid", {**right, key: value}) and not w.said.log


def test_a_list_is_built_anew_also_of_its_own_element(w):
    one, two, three = service("a"), {**service("b"), "service": ""}, service("c", "q")
    # fmt: off
    for given, element, removed, left in [
        ([one, two, three], 0, False, [two, three, one]), ([one, two, three], 1, True, [one, three]),
        ([one, two, three, one], 3, False, [two, three, one]),
        ([one, 5, {"subscriber": "p"}, {"subscriber": 1, "service": "x"}, [one]], two, False, [one, two]),
    ]:
        # fmt: on
        assert w.call("UpdateServiceList", given, element, removed) == left


@pytest.mark.parametrize("isPkg", [True, False])
def test_runs_the_first_hook_of_the_subscriber_whatever_becomes_of_it(w, isPkg):
    share, libexec = HOOKS[isPkg]
    other, others = HOOKS[not isPkg]
    for folder, end in ((other, ""), (others, ""), (libexec, "exit 7"), (share, "kill -9 $$")):
        hook(w, folder, end)
        assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0 and not w.said.log
    assert w.sh("cat $ROW/hooks") == f"{libexec}/p 1we b\n{share}/p 1we b\n"
