# The engine: which certificate each action gives, the service objects it takes, the hooks that it runs.
import pytest
from conftest import A, P, service

CLAIM = "for lock in /tmp/*.lock; do flock -n $lock true || echo held; done"
PACKAGE = ["/usr/local/share/certificate.d", "/usr/local/libexec/certificate.d"]
SYSTEM = ["/usr/opal/share/certificate.d", "/usr/libexec/certificate.d"]


def hook(w, folder, end="exit 7"):
    script = f'#!/bin/sh\n{{ {CLAIM}; echo "$0 $#$1"; }} >> /run/row/hooks; {end}\n'
    w.sh(f"mkdir -p {folder}; echo '{script}' > {folder}/p; chmod 0755 {folder}/p; touch $ROW/hooks")


@pytest.fixture
def engine(w):
    w.crt("new")
    w.crt("old")
    w.write({"new": {"services": [service("web", "q")]}, "old": {"services": [service("web")], "desc": 1}})
    w.replace("/usr/bin/systemctl", "echo $* >> /run/row/systemctl")
    hook(w, PACKAGE[1])
    return w


# fmt: off
@pytest.mark.parametrize("action, old, given, new, runs", [
    (0, "old", "new", ["q/web", "p/web"], True),
    (2, "old", "new", ["q/web"], True),
    (3, "", "old", ["q/web"], False),
    (4, "", "new", ["q/web", "p/web"], True),
])
# fmt: on
def test_does_what_each_action_says_with_no_lock_held(engine, action, old, given, new, runs):
    assert engine.call("SetCrtForServices", "new", [service("web", display_name="D")], old, action)
    assert engine.books() == {"list": [], "new": new, "old": ["p/web"] if action > 1 else []}
    info = engine.json("INFO")
    assert info["old"]["desc"] == 1 and (action == 2 or info[given]["services"][-1]["display_name"] == "D")
    out = "reload opalrelayd\n" + (f"{PACKAGE[1]}/p 1web\n" if runs else "")
    engine.ok(f"cmp $P/p/web/cert.pem {given}/cert.pem; cat $ROW/systemctl $ROW/hooks", out=out)
    assert engine.call("SetCrtForServices", "new", [], "", action) and not engine.said.log


def test_refuses_wrong_parameters_before_it_does_anything(engine):
    before, web = engine.tree("/usr/opal", content=True), [service("web")]
    action = ["utils.cpp Wrong rgCRTActionInfo.", "utils.cpp Invalid params (action)"]
    invalid, id = "utils.cpp Invalid params (cert_id/services)", "utils.cpp Invalid cert id: [../new]"
    wrong = [("new", web, -1, action), ("new", web, 5, action), ("new", {}, 0, [invalid])]
    for *arguments, number, log in [*wrong, ("../new", web, 0, [id, invalid])]:
        assert not engine.call("SetCrtForServices", *arguments, "", number) and engine.said.log == log
    assert engine.tree("/usr/opal", content=True) == before and not engine.tree(P)
    engine.ok("ls /tmp/*.lock $ROW/systemctl 2>/dev/null || :")


def test_goes_on_after_a_service_that_fails_and_tells_of_each(engine):
    base, i18n = service("x"), service("x", display_name_i18n="x")
    lacks = [{key: base[key] for key in base if key != left} for left in ("display_name", "owner", "isPkg")]
    bad = [*({**i18n, key: ""} for key in i18n), 5, service("../../q"), service("x.temp"), *lacks]
    services = [service("web", owner="none"), *bad, {**i18n, "service": "late"}]
    assert not engine.call("SetCrtForServices", "new", services, "", 3)
    lines = "UserGetUGID [none].[0x2A00", "Failed to set cert [old] for [{", "Lack of necesary key. [owner]"
    assert engine.said.logged(*lines, "utils.cpp service object is error.\n")
    assert "\n".join(engine.said.log).count("service object is error") == len(bad)
    assert engine.books() == {"list": [], "new": ["q/web", "p/late"], "old": ["p/web"]}
    engine.sh("touch $D/p")  # Not executable. The other one is not tried.
    assert not engine.call("SetCrtForServices", "new", services[-1:], "", 2)
    assert engine.said.logged("utils.cpp Failed to [$D/p][late].[0x0500 process.cpp:", "Failed to reload [{")
    out = "late\nreload opalrelayd\nreload opalrelayd\n"
    engine.ok("ls $P/p; cat $ROW/systemctl $ROW/hooks", out=out)


@pytest.mark.parametrize("broken", ["{}", '{"services": {}}', "7"])
def test_leaves_info_alone_where_an_entry_is_broken(engine, broken):
    engine.write(info=f'{{"new": {{"services": []}}, "old": {broken}}}')
    before = (A / "INFO").read_text()
    assert not engine.call("SetCrtForServices", "new", [service("web")], "old", 0)
    engine.said.logged(
        "Broken [$A/INFO][old].[0x", "Failed to update cert info for [{", "}] from old to new\n"
    )
    assert (A / "INFO").read_text() == before and engine.sh("cat $ROW/hooks") == ""


def test_a_list_is_built_anew_also_of_its_own_element(w):
    one, two, three = service("a"), {**service("b"), "service": ""}, service("c", "q")
    bad = [5, {"subscriber": "p"}, {"subscriber": 1, "service": "x"}, [one]]
    lists = [([one, two, three], 0, [two, three, one]), ([one, two, three, one], 3, [two, three, one])]
    for given, element, left in [*lists, ([one, *bad, three], two, [one, three, two])]:
        for removed in (False, True):
            built = w.call("UpdateServiceList", given, element, removed)
            assert built == (left[:-1] if removed else left)


@pytest.mark.parametrize("isPkg", [True, False])
def test_runs_the_first_hook_of_the_subscriber_whatever_becomes_of_it(w, isPkg):
    own, others = (PACKAGE, SYSTEM) if isPkg else (SYSTEM, PACKAGE)
    for folder, end in ((others[0], ""), (others[1], ""), (own[1], "exit 7"), (own[0], "kill -9 $$")):
        hook(w, folder, end)
        assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0 and not w.said.log
    assert w.sh("cat $ROW/hooks") == f"{own[1]}/p 1we b\n{own[0]}/p 1we b\n"
