# Each step of these runs fails once (steps.py), and a crowd works on the same books. "scripts/test steps" tries all and
# counts what held; every other run of the tests tries a sample, another one each day.
import concurrent.futures, datetime, json, os, random, time

import pytest
import steps
from conftest import P, REPOSITORY, S

RESULTS, DAY = REPOSITORY / "build/steps.txt", datetime.date.today().toordinal()


# What p declares, and what is done first; the command, and the services that it works on; whether it registers; and what
# becomes of the certificate c. Another one lies in $S/n, and is the stranger's where c is to change for all.
APART = """opalcrt install n --new --key $S/n/privkey.pem --cert $S/n/cert.pem &&
opalcrt assign n q z && opalcrtregister p"""
INSTALL = f"opalcrt install c --key {S}/n/privkey.pem --cert {S}/n/cert.pem"
# fmt: off
RUNS = {
    "mend": ("a", "opalcrtregister p && rm c/fullchain.pem", "opalcrtregister p", "a", True, "mended"),
    "first": ("ab", "", "opalcrtregister p", "ab"),
    "again": ("a", "opalcrtregister p && cp -f $S/n/* c", "opalcrtregister p", "a"),
    "unregister-one": ("ab", "opalcrtregister p", "opalcrtunregister p a", "a", False),
    "unregister-all": ("ab", "opalcrtregister p", "opalcrtunregister p", "ab", False),
    "install": ("a", APART, INSTALL, "a", True, "exchanged"),
    "renew": ("a", f"rm c/fullchain.pem && {APART}", "opalcrt renew --days 400", "a", True, "exchanged"),
    "assign": ("a", APART, "opalcrt assign n p a", "a"),
}
# fmt: on
KINDS = ("EACCES", "EIO", "EMFILE", "ENOMEM", "ENOSPC", "cut", "kill")


def add_stranger(w):  # of whom nothing may change
    w.define("q", "z", owner="opalmail")
    w.sh("opalcrtregister q")
    w.write(info={"c": {**w.json("INFO")["c"], "desc": "known to somebody else"}})


# Most of a mend's time is the search for primes. Smaller ones are found by the same calls.
SMALLER_KEYS = 'for word; do shift; [ $word = 2048 ] && word=1024; set -- "$@" "$word"; done; exec $REAL "$@"'
TORTURES = {}  # Once for each worker: the disk that a run starts from is put back before each point.


def try_points(w, name, pick):
    w.replace("/usr/bin/openssl", SMALLER_KEYS)
    if name not in TORTURES:
        declared, scene, *run = RUNS[name]
        add_stranger(w)
        w.crt("n")
        w.define("p", *declared)
        w.sh(f"mv n $S; {scene}")
        w.define("p", *declared)
        TORTURES[name] = steps.Torture(w, *run)
    tried = TORTURES[name]
    tried.w, bad = w, []
    for kind, point in pick(tried.points):
        call, wrong = tried.try_point(kind, point)
        bad += [(kind, point, call[:3], wrong)] if wrong else []
        with open(RESULTS, "a") as results:
            results.write(f"{name} {kind} {'broken' if wrong else 'held'}\n")
    assert not bad


@pytest.mark.slow
@pytest.mark.parametrize("name", RUNS)
def test_a_sample_of_the_steps_holds(w, name):
    try_points(w, name, lambda points: points[DAY % (len(points) // 30) :: len(points) // 30])


@pytest.mark.steps
@pytest.mark.parametrize("share", range(8))
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("name", RUNS)
def test_every_step_holds(w, name, kind, share):
    try_points(w, name, lambda points: [each for each in points if each[0] == kind][share::8])


NAMES, VERBS = {"a", "b"}, ["opalcrtregister"] * 6 + ["opalcrtunregister"] * 4 + ["opalcrtchecksum"] * 2
VERBS += ["opalcrt status --json"]


# Sixteen register, repeat, unregister and report over eight subscribers, nearly a third of the commands is killed at
# random, and both books are read all the time. Half of the subscribers have one worker each, who knows what the books
# must say; on the others three work at once, and whatever is listed is right.
class Crowd:
    def __init__(self, w, seconds):
        self.w, self.end = w, time.monotonic() + seconds
        with concurrent.futures.ThreadPoolExecutor(16) as pool:
            members = [pool.submit(self.work, number) for number in range(16)]
            while time.monotonic() < self.end and not any(member.done() for member in members):
                self.look_at_books()
            self.end = 0  # The others have seen enough, too.
        assert not any(member.result() for member in members)

    def books(self):
        books = self.w.books()
        return books.pop("list"), sum(books.values(), [])

    def look_at_books(self):
        for services in self.books():
            assert "q/z" in services and len({*services}) == len(services)

    # Whether it is done, refused or killed, and the output.
    def run(self, command, *arguments, killed_after=None):
        child = self.w.start(" ".join(["exec", command, *arguments]))
        if killed_after is not None:
            time.sleep(killed_after)
            child.kill()
        output = child.communicate()[0]
        return {0: "done", 1: "refused", 2: "refused", -9: "killed"}[child.returncode], output

    # `known` is what the books must list of the subscriber, once a command has said that it did its work.
    def work(self, number):
        chance, known, subscriber = random.Random(DAY * 100 + number), None, f"s{min(number, 4 + number % 4)}"
        while time.monotonic() < self.end:
            verb, some = chance.choice(VERBS), chance.choice(("", "a", "b"))
            if verb == "opalcrtregister":
                self.w.define(subscriber, *NAMES)
            killed_after = chance.random() * 0.15 if chance.random() < 0.3 else None
            looks = "register" not in verb
            words = () if looks else (subscriber, some)
            end, output = self.run(verb, *words, killed_after=killed_after)
            if looks:
                is_told = end == "done" or end == "refused" and "status" in verb  # Something is wrong.
                assert json.loads(output) if is_told else not output or end == "killed"
            elif end != "done" or known is None and some:
                known = None
            elif number < 4:
                names, known = {*some} or NAMES, known or set()
                known = known | names if verb == "opalcrtregister" else known - names
                self.check(subscriber, known)

    def check(self, subscriber, known):
        for services in self.books():
            mine = {each for each in services if each.startswith(f"{subscriber}/")}
            assert mine == {f"{subscriber}/{name}" for name in known}
        for folder in (f"{P}/{subscriber}/{name}" for name in known):
            assert steps.is_whole(steps.look(folder), folder)


@pytest.mark.slow
def test_a_crowd(w):
    add_stranger(w)
    crowd = Crowd(w, int(os.environ.get("CROWD_SECONDS", 4)))
    # One quiet run for each subscriber, who must find no lock, brings books and folders to agree.
    for subscriber in (f"s{number}" for number in range(8)):
        w.define(subscriber, *NAMES)
        assert crowd.run("opalcrtregister", subscriber) == ("done", b"")
        crowd.check(subscriber, NAMES)
    crowd.look_at_books()
    assert not [path for path in steps.look() if path.endswith(steps.REMAINS)]
