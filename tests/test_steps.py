# Each step of these runs fails once (steps.py), and a crowd works on the same books. "scripts/test steps" tries all and
# prints what held (the end of this file); every other run of the tests tries a sample, another one each day.
import collections, concurrent.futures, datetime, json, os, pathlib, random, threading, time

import pytest
import steps
from conftest import D, P

RESULTS, DAY = pathlib.Path(__file__).parent.parent / "build/steps", datetime.date.today().toordinal()


def register(w, *services):
    w.define("p", *services)
    w.sh("cp $D/p.cfg $ROW; opalcrtregister p")


def lose_chain(w):
    register(w, "a")
    w.sh("rm c/fullchain.pem; cp $ROW/p.cfg $D")


def change_certificate(w):
    register(w, "a")
    w.keys.clear()  # Each is made once only.
    w.crt("c")
    w.define("p", "a")


RUNS = {
    "mend": (lose_chain, "opalcrtregister p", "a", True, "mended"),
    "first": (lambda w: w.define("p", "a", "b"), "opalcrtregister p", "a b"),
    "again": (change_certificate, "opalcrtregister p", "a"),
    "unregister-one": (lambda w: register(w, "a", "b"), "opalcrtunregister p a", "a", False),
    "unregister-all": (lambda w: register(w, "a", "b"), "opalcrtunregister p", "a b", False),
}
KINDS = ("EACCES", "EIO", "EMFILE", "ENOMEM", "ENOSPC", "cut", "kill")


def add_stranger(w):  # of whom nothing may change
    w.define("q", "z", owner="opalmail")
    w.sh("opalcrtregister q")
    w.write(info={"c": {**w.json("INFO")["c"], "desc": "known to somebody else"}})


# Most of a mend's time is the search for primes. Smaller ones are found by the same calls.
SMALLER_KEYS = 'for w; do shift; [ "$w" != 2048 ] || w=1024; set -- "$@" "$w"; done; exec $REAL "$@"'
TORTURES = {}  # Once for each worker: the disk that a run starts from is put back before each point.


def try_points(w, name, pick):
    w.replace("/usr/bin/openssl", SMALLER_KEYS)
    if name not in TORTURES:
        add_stranger(w)
        TORTURES[name] = steps.Torture(w, *RUNS[name])
    rows, tried = [], TORTURES[name]
    tried.w = w
    for kind, point in pick(tried.points):
        call, wrong = tried.try_point(kind, point)
        rows.append({"run": name, "kind": kind, "call": f"{point}: " + " ".join(call[:3]), "wrong": wrong})
    RESULTS.mkdir(parents=True, exist_ok=True)
    with open(RESULTS / (os.environ.get("PYTEST_XDIST_WORKER", "gw") + ".json"), "a") as results:
        results.writelines(json.dumps(row) + "\n" for row in rows)
    bad = ["\n    ".join([row["kind"], row["call"], *row["wrong"]]) for row in rows if row["wrong"]]
    assert not bad, f"{len(bad)} of {len(rows)} points did not hold\n" + "\n".join(bad)


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


NAMES = {"a", "b"}


# Sixteen register, repeat, unregister and report over eight subscribers, nearly a third of the commands is killed at
# random, and somebody reads both books all the time. Half of the subscribers have one worker each, who knows what the
# books must say; on the others many work at once, and whatever is listed is right.
class Crowd:
    def __init__(self, w, seconds):
        self.w, self.end, self.done = w, time.monotonic() + seconds, []
        members = [(self.watch,)] + [(self.report,)] * 4
        members += [(self.work, f"s{number}", number < 4) for number in (0, 1, 2, 3, 4, 5, 6, 7, 4, 5, 6, 7)]
        with concurrent.futures.ThreadPoolExecutor(len(members)) as pool:
            ends = [pool.submit(self.go, number, *member) for number, member in enumerate(members)]
        assert not (wrong := [str(end.exception()) for end in ends if end.exception()]), "\n".join(wrong)

    def go(self, number, does, *arguments):
        chance, known = random.Random(DAY * 100 + number), None
        try:
            while time.monotonic() < self.end:
                known = does(chance, *arguments, known)
        except BaseException:
            self.end = 0  # The others have seen enough.
            raise

    # The exit status, None when it was killed, and the output.
    def run(self, command, chance=None):
        child = self.w.start(f"exec {command}")
        if chance and chance.random() < 0.3:
            time.sleep(chance.random() * 0.15)
            child.kill()
        output, status = child.communicate()[0], {0: 0, 1: 1, -9: None}[child.returncode]
        self.done.append(command.split()[0] + {0: " done", 1: " refused", None: " killed"}[status])
        return status, output

    def listed(self, book):
        value = self.w.json(book)
        lists = [entry["services"] for entry in value.values()] if book == "INFO" else [value]
        return [(service["subscriber"], service["service"]) for services in lists for service in services]

    def watch(self, *_):
        for book in ("INFO", "SERVICES"):
            services = self.listed(book)
            assert ("q", "z") in services and len({*services}) == len(services), f"{book} lists {services}"
        self.done.append("looks at both books")

    def report(self, chance, _):
        status, output = self.run("opalcrtchecksum", chance)
        assert status == 0 and json.loads(output) or status is None or not output

    def define(self, subscriber):
        fresh = f"{subscriber}.{threading.get_ident()}"
        self.w.define(fresh, *NAMES)
        os.rename(D / f"{fresh}.cfg", D / f"{subscriber}.cfg")

    # Answers what the books must list of this subscriber, once a command has said that it did its work.
    def work(self, chance, subscriber, is_alone, known):
        names, registers = {*chance.choice(("", "a", "b"))}, chance.random() < 0.6
        if registers:
            self.define(subscriber)
        verb = f"opalcrt{'' if registers else 'un'}register"
        status, _ = self.run(" ".join([verb, subscriber, *names]), chance)
        if not is_alone or status != 0 or known is None and names:
            return None
        names, known = names or NAMES, known or set()
        known = known | names if registers else known - names
        self.check(subscriber, known)
        return known

    def check(self, subscriber, known):
        for book in ("INFO", "SERVICES"):
            mine = {service for name, service in self.listed(book) if name == subscriber}
            assert mine == known, f"{book} lists {mine} of {subscriber}, but {known} was answered"
        for folder in (f"{P}/{subscriber}/{service}" for service in known):
            assert steps.is_whole(steps.look(folder), folder), f"{folder} was answered for, and is not whole"

    # No lock is left, and one quiet run for each subscriber brings books and folders to agree.
    def settle(self):
        for path in pathlib.Path("/tmp").glob("*.lock"):
            os.close(self.w.hold(path))
            self.w.locks.pop()
        for subscriber in (f"s{number}" for number in range(8)):
            self.define(subscriber)
            assert self.run(f"opalcrtregister {subscriber}")[0] == 0
            self.check(subscriber, NAMES)
        self.watch()
        assert not [path for path in steps.look() if path.endswith(steps.REMAINS)]


SECONDS = pytest.param(4, marks=pytest.mark.slow), pytest.param(30, marks=pytest.mark.steps)


@pytest.mark.parametrize("seconds", SECONDS)
def test_a_crowd(w, seconds):
    add_stranger(w)
    crowd = Crowd(w, seconds)
    crowd.settle()
    figures = [f"{times} {what}" for what, times in sorted(collections.Counter(crowd.done).items())]
    RESULTS.mkdir(parents=True, exist_ok=True)
    (RESULTS / "crowd").write_text("The crowd: " + ", ".join(figures))


# The table of what held, from the lines that the workers have left.
if __name__ == "__main__":
    rows = [json.loads(line) for path in RESULTS.glob("*.json") for line in path.read_text().splitlines()]
    print("", "run", *KINDS, "", sep=" | ", end="\n|" + " --- |" * 8 + "\n")
    for name in sorted(RUNS):
        mine = [row for row in rows if row["run"] == name]
        cells = [[row["wrong"] for row in mine if row["kind"] == kind] for kind in KINDS]
        print("", name, *(f"{cell.count([])} / {len(cell)}" for cell in cells), "", sep=" | ")
    print(f"{len(rows)} points,", sum(not row["wrong"] for row in rows), "held")
    print(*(path.read_text() for path in RESULTS.glob("crowd")))
