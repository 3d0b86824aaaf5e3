# The engine: the service objects it takes, what an assignment does, and the hooks that it runs.
import pytest
from conftest import P, service

CLAIM, RELOAD = "for lock in /tmp/*.lock; do flock -n $lock true || echo held; done", "reload opalrelayd\n"
PACKAGE = ["/usr/local/share/certificate.d", "/usr/local/libexec/certificate.d"]
SYSTEM = ["/usr/opal/share/certificate.d", "/usr/libexec/certificate.d"]


def hook(w, folder, end="exit 7"):
    script = f'#!/bin/sh\n{{ {CLAIM}; echo "$0 $#$1"; }} >> /run/row/ran; {end}\n'
    w.sh(f"mkdir -p {folder}; echo '{script}' > {folder}/p; chmod 0755 {folder}/p")


def test_goes_on_after_a_service_that_fails_and_tells_of_each(w):
    for cert_id in ("new", "old"):
        w.crt(cert_id)
    w.write({"new": {"services": [service("web", "q")]}, "old": {"services": [service("web")]}})
    w.replace("/usr/bin/systemctl", f"{{ {CLAIM}; echo $*; }} >> /run/row/ran")
    hook(w, PACKAGE[1])
    base, i18n = service("x"), service("x", display_name_i18n="x")
    lacks = [{key: base[key] for key in base if key != left} for left in ("display_name", "owner", "isPkg")]
    bad = [*({**i18n, key: ""} for key in i18n), 5, service("../../q"), service("x.temp"), *lacks]
    services = [service("web", owner="none"), *bad, {**i18n, "service": "late"}]
    assert not w.call("SetCrtForServices", "new", services, "", 5) and not w.tree(P)
    assert w.said.logged("utils.cpp Wrong rgCRTActionInfo.\nutils.cpp Invalid params (action)")
    assert not w.call("SetCrtForServices", "new", services, "", 3)
    lines = "UserGetUGID [none].[0x2A00", "Failed to set cert [old] for [{", "Lack of necesary key. [owner]"
    assert w.said.logged(*lines, "utils.cpp service object is error.\n")
    assert "\n".join(w.said.log).count("service object is error") == len(bad)
    assert w.books() == {"list": [], "new": ["q/web", "p/late"], "old": ["p/web"]}
    w.sh("touch $D/p; ln INFO $S/same")  # Not executable. The other one is not tried.
    assert not w.call("SetCrtForServices", "new", services[-1:], "", 2)
    assert w.said.logged("utils.cpp Failed to [$D/p][late].[0x0500 process.cpp:", "Failed to reload [{")
    w.ok("rm $D/p; [ INFO -ef $S/same ] && ls $P/p; cat $ROW/ran; rm $ROW/ran", out=f"late\n{RELOAD * 2}")
    assert w.call("SetCrtForServices", "new", [service("web")], "old", 0) and not w.said.log
    w.ok("cmp new/cert.pem $P/p/web/cert.pem; cat $ROW/ran", out=f"{PACKAGE[1]}/p 1web\n{RELOAD}")
    assert w.books() == {"list": [], "new": ["q/web", "p/late", "p/web"], "old": []}
    w.write(info='{"new": {"services": []}, "old": {}}')
    assert not w.call("SetCrtForServices", "new", [service("web")], "old", 0)
    trail = "Broken [$A/INFO][old].[0x", "Failed to update cert info for [{", "}] from old to new\n"
    assert w.said.logged(*trail) and w.json("INFO") == {"new": {"services": []}, "old": {}}


@pytest.mark.parametrize("isPkg", [True, False])
def test_runs_the_first_hook_of_the_subscriber_whatever_becomes_of_it(w, isPkg):
    own, others = (PACKAGE, SYSTEM) if isPkg else (SYSTEM, PACKAGE)
    for folder, end in ((others[0], ""), (others[1], ""), (own[1], "exit 7"), (own[0], "kill -9 $$")):
        hook(w, folder, end)
        assert w.call("ReloadService", service("we b", isPkg=isPkg)) == 0 and not w.said.log
    assert w.sh("cat $ROW/ran") == f"{own[1]}/p 1we b\n{own[0]}/p 1we b\n"
