# The verbs of the world in which every row lives. A row gets them as `w`: an empty store on the real paths
# with the one certificate "c", a system log that can be read, and ways to arrange a scene and to look at what
# a user would see. Whatever a row does (files, mounts, processes, programs, locks) is undone after it.

import collections, contextlib, fcntl, hashlib, json, os, queue, re, shlex, shutil, signal, socket
import subprocess, threading, time
from pathlib import Path

import pytest

S, P = Path("/usr/opal/etc/certificate"), Path("/usr/local/etc/certificate")
D, SYSTEM_D = Path("/usr/local/share/certificate.d"), Path("/usr/opal/share/certificate.d")
A = S / "_archive"
ROW = Path("/run/row")  # what the verbs need themselves
FRESH = ["/usr/opal", "/usr/local", "/tmp", "/usr/libexec/certificate.d", str(ROW)]

REPOSITORY = Path(__file__).resolve().parent.parent
TOOL = Path(os.environ.get("OPALCRT_TOOL_FOLDER", REPOSITORY / "build/debug/src")).resolve()
CALL = TOOL.parent / "tests/opalcrt-call"

SOURCE = r"((?:opalcrt|opalcrtregister|utils|dir_utils|mkcert)\.cpp):\d+ "
__tracebackhide__ = True  # A failure is shown where the row is.
LINE = re.compile(r"<(11|15)>\w{3} [ \d]\d [\d:]{8} \S+: " + SOURCE + "(.*)", re.S)


def pytest_configure(config):
    runs_rows = config.getoption("dist", "no") == "no" or hasattr(config, "workerinput")
    if runs_rows and not os.path.exists("/run/opalcrt-world"):
        pytest.exit("the rows would destroy a real machine's certificates: start them by scripts/test", 2)
    os.umask(0o022)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    w = getattr(item, "funcargs", {}).get("w")
    if report.failed and w is not None:
        report.sections.append(("what was run", "\n".join(map(str, w.story))))


# A service object as a registration makes it.
def service(name, subscriber="p", **members):
    names = {"subscriber": subscriber, "service": name, "display_name": f"The {name}"}
    return {**names, "isPkg": True, "owner": "opalweb", **members}


# Listens on /dev/log, in a thread of its own: the kernel keeps ten lines only, and then senders wait.
class Log:
    def __init__(self):
        self.path = str(ROW / "log")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o666)
        Path("/dev/log").unlink(missing_ok=True)
        os.symlink(self.path, "/dev/log")
        self.lines = queue.SimpleQueue()
        self.thread = threading.Thread(target=self.listen, daemon=True)
        self.thread.start()

    def listen(self):
        with open(ROW / "journal", "wb", buffering=0) as journal:  # for those who want to read all of it
            while line := self.socket.recv(1 << 16):
                journal.write(line + b"\n")
                self.lines.put(line)

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.socket.close()

    # The lines since the last time: "utils.cpp Failed to lock [...]", with $A, $P and $D in it.
    def take(self):
        self.socket.sendto(b"end", self.path)  # The thread is a moment behind.
        taken = []
        while (line := self.lines.get()) != b"end":
            text = line.decode(errors="backslashreplace")
            found = LINE.fullmatch(text)
            assert found and (found[1] == "15") == ("skip move" in text)
            text = f"{found[2]} {found[3]}"
            for name, path in (("$A", A), ("$P", P), ("$D", D)):
                text = text.replace(str(path), name)
            taken.append(text)
        return taken


# What a command did: its output and status ("hangs" when it had to be killed), and the log lines.
class Said(collections.namedtuple("Said", "command out status log")):
    def __str__(self):
        return "\n".join([f"$ {self.command}", f"{self.out}[{self.status}]", *self.log])

    # Whether the log has these parts, in this order.
    def logged(self, *trail):
        assert re.search(".*?".join(map(re.escape, trail)), "\n".join([*self.log, ""]), re.S)
        return True


# fmt: off
class World:
    mounts = processes = None
    keys = {}

    def __init__(self):
        World.mounts = World.mounts or self.mount_points()
        World.processes = World.processes or set(os.listdir("/proc"))
        self.story, self.locks = [], []
        self.clean()
        for folder in (A, P, D, SYSTEM_D, ROW): folder.mkdir(parents=True, exist_ok=True)
        ROW.chmod(0o1777)
        self.log = Log()
        self.write(info={"c": {"services": []}}, services=[], default="c\n")
        self.crt("c")

    def close(self):
        for fd in self.locks: os.close(fd)
        self.end_processes()
        self.log.close()
        reports = self.sanitizer_reports()
        self.clean()
        assert not reports

    # Arranging a scene

    # A certificate of its own, which INFO does not know yet. Each is made once and then copied.
    def crt(self, cert_id, prefix=""):
        folder = A / cert_id
        folder.mkdir(exist_ok=True)
        if (cert_id, prefix) not in self.keys:
            new = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /dev/stdout -subj"
            made = subprocess.run([*new.split(), f"/CN={cert_id}"], capture_output=True, check=True).stdout
            self.keys[cert_id, prefix] = made.partition(b"-----BEGIN CERTIFICATE")
        key, *cert = self.keys[cert_id, prefix]
        for name, text in (("privkey", key), ("cert", b"".join(cert)), ("fullchain", b"".join(cert))):
            (path := folder / f"{prefix}{name}.pem").write_bytes(text)
            path.chmod(0o400)

    # Drops a definition file; a service is its name or the whole element.
    def define(self, subscriber, *services, owner="opalweb", isPkg=True, **members):
        named = [{"service": e, "display_name": f"The {e}"} if isinstance(e, str) else e for e in services]
        value = {"owner": owner, "isPkg": isPkg, "services": named, **members}
        ((D if isPkg else SYSTEM_D) / f"{subscriber}.cfg").write_text(json.dumps(value))

    # Writes the books that are given, as values or as text.
    def write(self, info=None, services=None, default=None):
        for name, value in (("INFO", info), ("SERVICES", services), ("DEFAULT", default)):
            if value is not None:
                (A / name).write_text(value if isinstance(value, str) else json.dumps(value))

    # Another program in its place, a sh script. It can start the $REAL one.
    def replace(self, program, script):
        path = Path(program).resolve()
        real, stand = ROW / f"real.{path.name}", ROW / f"stand.{path.name}"
        if not real.exists(): shutil.copy(path, real)
        stand.write_text(f"#!/bin/sh\nREAL={real}\n{script}\n")
        stand.chmod(0o755)
        self.mount("--bind", stand, path)

    def mount(self, *arguments): subprocess.run(["mount", "--no-mtab", *map(str, arguments)], check=True)
    def tmpfs(self, path, options="mode=0755"): self.mount("-t", "tmpfs", "-o", options, "row", path)

    # Keeps a lock, of flock(2) or of fcntl(2), until the row ends. Answers the descriptor that can be closed.
    def hold(self, path, shared=False, record=False):
        self.locks.append(os.open(path, os.O_RDWR | os.O_CREAT, 0o600))
        take = fcntl.lockf if record else fcntl.flock
        take(self.locks[-1], (fcntl.LOCK_SH if shared else fcntl.LOCK_EX) | fcntl.LOCK_NB)
        return self.locks[-1]

    # Doing something

    # Starts a shell command in the archive's folder, with the tool's commands and $S $A $P $D. Not waited for;
    # it ends with the row.
    def start(self, command, leaks=True):
        report = f"log_path={ROW}/report"
        env = dict(PATH=f"{TOOL}:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", S=S, A=A, P=P, D=D, ROW=ROW)
        env.update(ASAN_OPTIONS=f"{report}:detect_leaks={int(leaks)}", UBSAN_OPTIONS=report)
        streams = dict(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return subprocess.Popen(["sh", "-c", command], cwd=A, env=env, start_new_session=True, **streams)

    # Runs it as `start` does and answers what it said. `inject` is strace's word for a call of the tool
    # itself, not of its children: "flock:error=EIO:when=2", "?rename,?renameat:signal=KILL:when=1" (arm64 has
    # the second).
    def run(self, command, inject=None, timeout=60):
        calls = inject and inject.split(":")[0]
        traced = f"strace -qq -o $ROW/strace -e trace={calls} -e inject={inject} " if inject else ""
        child = self.start(traced + command, leaks=not inject)
        try:
            out, status = child.communicate(timeout=timeout)[0], child.returncode
        except subprocess.TimeoutExpired:
            self.end_processes()
            out, status = child.communicate()[0], "hangs"
        said = Said(command, out.decode(errors="backslashreplace"), status, self.log.take())
        self.story.append(said)
        assert not self.sanitizer_reports()
        if inject: assert re.search("INJECTED|DELAYED|killed by", (ROW / "strace").read_text()), "not reached"
        return said

    # It ends with 0, says this and nothing else, and logs the trail. Answers the log.
    def ok(self, command, *trail, out="", status=0, **options):
        said = self.run(command, **options)
        assert (said.status, said.out) == (status, out) and said.logged(*trail)
        return said.log

    # It ends with 1, says this line and nothing else, and logs the trail. Answers the log.
    def fails(self, command, out, *trail, **options):
        return self.ok(command, *trail, out=out and out + "\n", status=1, **options)

    # What a scene, or a look at it, needs of the shell. Answers what it printed.
    def sh(self, command):
        said = self.run(command)
        assert said.status == 0, str(said)
        return said.out

    # Calls a function that no command reaches. Answers its result; what else came back is in w.answer, the
    # log in w.said.
    def call(self, function, *arguments):
        self.said = self.run(shlex.join([str(CALL), function, json.dumps(arguments)]))
        assert self.said.status == 0, str(self.said)
        self.answer = json.loads(self.said.out)
        return self.answer["answer"]

    # Looking

    def json(self, path): return json.loads((A / path).read_bytes())

    # Which services the books list: {"list": ["p/web"], "c": ["p/web"]}.
    def books(self):
        listed = {id: entry["services"] for id, entry in self.json("INFO").items()}
        listed["list"] = self.json("SERVICES")
        return {id: [f"{each['subscriber']}/{each['service']}" for each in all] for id, all in listed.items()}

    # {"p/web/cert.pem": "-r-------- opalweb opalweb"}, with the content's hash or a link's goal where wanted. find(1)
    # goes deeper than a path can be long.
    def tree(self, folder, content=False):
        command = ["find", folder, "-mindepth", "1", "-printf", r"%P\0%M %u %g\0%l\0"]
        words = os.fsdecode(subprocess.run(command, capture_output=True).stdout).split("\0")
        seen = {}
        for path, what, goal in sorted(zip(words[::3], words[1::3], words[2::3])):
            if what.startswith("-"): goal = content and hashlib.sha256((Path(folder) / path).read_bytes()).hexdigest()
            seen[path] = f"{what} {goal}" if content else what
        return seen

    # Undoing

    @staticmethod
    def mount_points():
        with open("/proc/self/mountinfo") as mounts:
            return {line.split()[0]: line.split()[4].encode().decode("unicode_escape") for line in mounts}

    @staticmethod
    def sanitizer_reports():
        return "\n".join(path.read_text(errors="replace") for path in ROW.glob("report.*"))

    def end_processes(self):
        while pids := [pid for pid in os.listdir("/proc") if pid.isdecimal() and pid not in World.processes]:
            for pid in map(int, pids):
                with contextlib.suppress(ChildProcessError, ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, os.WNOHANG)
            time.sleep(0.002)

    def clean(self):
        for number, path in reversed(self.mount_points().items()):
            if number not in World.mounts: subprocess.run(["umount", "--no-mtab", "--lazy", path], check=True)
        # A repository that lies below /tmp is mounted there and stays.
        subprocess.run(["find", *FRESH, "-xdev", "-mindepth", "1", "-delete"], stderr=subprocess.DEVNULL)
        Path("/proc/sys/kernel/opal_mac_address1").write_text("001132a1b2c3\n")
# fmt: on


@pytest.fixture
def w():
    world = World()
    yield world
    world.close()
