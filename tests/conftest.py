"""The verbs of the world in which every row lives. A row gets them as `w`: an empty store on the real paths with the
one certificate "c", a system log that can be read, and ways to arrange a scene and to look at what a user would see.
Whatever a row does to the world (files, mounts, processes, replaced programs, locks) is undone after it.
"""

import dataclasses
import fcntl
import hashlib
import json
import os
import pathlib
import pwd
import queue
import re
import shlex
import shutil
import signal
import socket
import stat
import subprocess
import threading
import time

import pytest

S = pathlib.Path("/usr/opal/etc/certificate")
A = S / "_archive"
P = pathlib.Path("/usr/local/etc/certificate")
D = pathlib.Path("/usr/local/share/certificate.d")
SYSTEM_D = pathlib.Path("/usr/opal/share/certificate.d")
ROW = pathlib.Path("/run/row")  # what the verbs need themselves
FRESH = ["/usr/opal", "/usr/local", "/tmp", "/usr/libexec/certificate.d", str(ROW)]

REPOSITORY = pathlib.Path(__file__).resolve().parent.parent
TOOL = pathlib.Path(os.environ.get("OPALCRT_TOOL_FOLDER", REPOSITORY / "build/debug/src")).resolve()
CALL = TOOL.parent / "tests/opalcrt-call"

LINE = re.compile(
    r"<(\d+)>\w{3} [ \d]\d [\d:]{8} \S+: ((?:opalcrt(?:register)?|(?:dir_)?utils|mkcert)\.cpp):\d+ (.*)", re.S
)


def pytest_configure(config):
    # Who only deals out the rows runs none.
    is_dealer = getattr(config.option, "dist", "no") != "no" and not hasattr(config, "workerinput")
    if not is_dealer and not os.path.exists("/run/opalcrt-world"):
        pytest.exit(
            "the rows would destroy the certificates of a real machine: start them by scripts/test", 2
        )
    os.umask(0o022)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    w = getattr(item, "funcargs", {}).get("w")
    if report.failed and w is not None:
        report.sections.append(("what was run", "\n".join(map(str, w.story))))
        tree = "\n".join(
            f"{folder}/{path} {what}" for folder in (S, P, D) for path, what in w.tree(folder).items()
        )
        report.sections.append(("the tree", tree))


def service(name, subscriber="p", **members):
    """A service object as a registration makes it."""
    base = {"subscriber": subscriber, "service": name, "display_name": f"The {name}", "isPkg": True}
    return {**base, "owner": "opalweb", **members}


class Log:
    """Listens on /dev/log, in a thread of its own: the kernel keeps ten lines only, and then senders wait."""

    def __init__(self):
        self.path = str(ROW / "log")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        os.chmod(self.path, 0o666)
        pathlib.Path("/dev/log").unlink(missing_ok=True)
        os.symlink(self.path, "/dev/log")
        self.lines = queue.SimpleQueue()
        self.thread = threading.Thread(target=self.listen, daemon=True)
        self.thread.start()

    def listen(self):
        while line := self.socket.recv(1 << 16):
            self.lines.put(line)

    def close(self):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.socket.close()

    def take(self):
        """The lines since the last time: "utils.cpp Failed to lock [...]", with $A, $P and $D in it."""
        self.socket.sendto(b"end", self.path)  # The thread is a moment behind.
        taken = []
        while (line := self.lines.get()) != b"end":
            text = line.decode(errors="surrogateescape")
            found = LINE.fullmatch(text)
            assert found, f"no log line of ours: {text}"
            assert found[1] == ("15" if "skip move" in text else "11"), text
            text = f"{found[2]} {found[3]}"
            for name, path in (("$A", A), ("$P", P), ("$D", D)):
                text = text.replace(str(path), name)
            taken.append(text)
        return taken


@dataclasses.dataclass
class Said:
    """What a command did: its output and status ("hangs" when it had to be killed), and the log lines."""

    command: str
    out: str
    status: object
    log: list

    def __str__(self):
        return "\n".join([f"$ {self.command}", f"{self.out}[{self.status}]", *self.log])

    def logged(self, *trail):
        """Whether the log has these parts, in this order."""
        lines, place = "\n".join([*self.log, ""]), 0
        for part in trail:
            place = lines.find(part, place)
            assert place >= 0, f"not in the log: {part}\n{lines}"
            place += len(part)
        return True


class World:
    mounts = processes = None
    keys = {}

    def __init__(self):
        World.mounts = World.mounts or self.mount_points()
        World.processes = World.processes or set(os.listdir("/proc"))
        self.story, self.children, self.locks = [], [], []
        self.answer = None
        self.clean()
        for folder in (A, P, D, SYSTEM_D, ROW):
            folder.mkdir(parents=True, exist_ok=True)
        ROW.chmod(0o1777)
        self.log = Log()
        self.books(info={"c": {"services": []}}, services=[], default="c\n")
        self.crt("c")

    def close(self):
        for fd in self.locks:
            os.close(fd)
        self.end_processes()
        self.log.close()
        found = self.sanitizer_reports()
        self.clean()
        assert not found, found

    # Arranging a scene

    def crt(self, cert_id, prefix=""):
        """A certificate of its own, which INFO does not know yet. Each is made once and then copied."""
        folder = A / cert_id
        folder.mkdir(exist_ok=True)
        if (cert_id, prefix) not in self.keys:
            command = (
                "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout /dev/stdout"
            )
            made = subprocess.run(
                [*command.split(), "-subj", f"/CN={cert_id}"],
                stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL,
                check=True,
            ).stdout
            end = made.index(b"-----BEGIN CERTIFICATE")
            self.keys[cert_id, prefix] = (
                ("privkey", made[:end]),
                ("cert", made[end:]),
                ("fullchain", made[end:]),
            )
        for name, text in self.keys[cert_id, prefix]:
            path = folder / f"{prefix}{name}.pem"
            path.write_bytes(text)
            path.chmod(0o400)

    def define(self, subscriber, *services, owner="opalweb", isPkg=True, **members):
        """Drops a definition file; a service is its name or the whole element."""
        named = [
            {"service": each, "display_name": f"The {each}"} if isinstance(each, str) else each
            for each in services
        ]
        value = {"owner": owner, "isPkg": isPkg, "services": named, **members}
        ((D if isPkg else SYSTEM_D) / f"{subscriber}.cfg").write_text(json.dumps(value))

    def books(self, info=None, services=None, default=None):
        """Writes those that are given. Answers which services the books list: {"list": ["p/web"], "c": ["p/web"]}."""
        for name, value in (("INFO", info), ("SERVICES", services)):
            if value is not None:
                (A / name).write_text(value if isinstance(value, str) else json.dumps(value))
        if default is not None:
            (A / "DEFAULT").write_text(default)
        listed = {
            "list": self.json("SERVICES"),
            **{id: entry["services"] for id, entry in self.json("INFO").items()},
        }
        return {id: [f"{each['subscriber']}/{each['service']}" for each in all] for id, all in listed.items()}

    def replace(self, program, script):
        """Another program in its place, a sh script. It can start the $REAL one."""
        path = pathlib.Path(program).resolve()
        real, stand = ROW / f"real.{path.name}", ROW / f"stand.{path.name}"
        if not real.exists():
            shutil.copy(path, real)
        stand.write_text(f"#!/bin/sh\nREAL={real}\n{script}\n")
        stand.chmod(0o755)
        self.mount("--bind", stand, path)

    def mount(self, *arguments):
        subprocess.run(["mount", "--no-mtab", *map(str, arguments)], check=True)

    def tmpfs(self, path, options="mode=0755"):
        self.mount("-t", "tmpfs", "-o", options, "row", path)

    def readonly(self, path):
        self.mount("--bind", "-o", "ro", path, path)

    def hold(self, path, shared=False, record=False):
        """Keeps a lock, of flock(2) or of fcntl(2), until the row ends. Answers the descriptor that can be closed."""
        self.locks.append(os.open(path, os.O_RDWR | os.O_CREAT, 0o600))
        take = fcntl.lockf if record else fcntl.flock
        take(self.locks[-1], (fcntl.LOCK_SH if shared else fcntl.LOCK_EX) | fcntl.LOCK_NB)
        return self.locks[-1]

    # Doing something

    def start(self, command, leaks=True):
        """Starts a shell command, in the archive's folder, with the commands of the tool and $S $A $P $D. Not waited
        for; its end is that of the row."""
        env = {name: str(path) for name, path in dict(S=S, A=A, P=P, D=D, ROW=ROW).items()}
        sanitizers = f"log_path={ROW}/report"
        env.update(PATH=f"{TOOL}:/usr/sbin:/usr/bin:/sbin:/bin", HOME="/root", UBSAN_OPTIONS=sanitizers)
        env.update(ASAN_OPTIONS=f"{sanitizers}:detect_leaks={int(leaks)}")
        child = subprocess.Popen(
            ["sh", "-c", command],
            cwd=A if A.exists() else "/",
            env=env,
            start_new_session=True,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        self.children.append(child)
        return child  # Not the last of the list: a crowd starts several at once.

    def run(self, command, inject=None, timeout=60):
        """Runs it as `start` does and answers what it said. `inject` is strace's word for one call of the tool itself,
        not of its children: "flock:error=EIO:when=2", "?rename,?renameat:signal=KILL:when=1"."""
        before = ""
        if inject:
            calls = inject.split(":")[0]
            before = f"strace -qq -o {ROW}/strace -e trace={calls} -e inject={inject} "
        child = self.start(before + command, leaks=not inject)
        try:
            out, status = child.communicate(timeout=timeout)[0], child.returncode
        except subprocess.TimeoutExpired:
            self.end_processes()
            out, status = child.communicate()[0], "hangs"
        said = Said(command, out.decode(errors="surrogateescape"), status, self.log.take())
        self.story.append(said)
        reports = self.sanitizer_reports()
        assert not reports, reports
        if inject:
            assert re.search(
                "INJECTED|DELAYED|killed by", (ROW / "strace").read_text()
            ), f"never came to {inject}"
        return said

    def ok(self, command, *trail, out="", **options):
        """It ends with 0, says this and nothing else, and logs the trail."""
        said = self.run(command, **options)
        assert (said.status, said.out) == (0, out)
        assert said.logged(*trail)

    def fails(self, command, out, *trail, **options):
        """It ends with 1, says this line and nothing else, and logs the trail."""
        said = self.run(command, **options)
        assert (said.status, said.out) == (1, out and out + "\n")
        assert said.logged(*trail)

    def sh(self, command):
        """What a scene, or a look at it, needs of the shell. Answers what it printed."""
        said = self.run(command)
        assert said.status == 0, str(said)
        return said.out

    def call(self, function, *arguments):
        """Calls a function that no command reaches. Answers its result; what else came back is in w.answer, the log
        in w.said."""
        
        self.said = self.run(shlex.join([str(CALL), function, json.dumps(arguments)]))
        assert self.said.status == 0, str(self.said)
        self.answer = json.loads(self.said.out)
        return self.answer["answer"]

    # Looking

    def json(self, path):
        return json.loads((A / path).read_bytes())

    def tree(self, folder, content=False):
        """{"p/web/cert.pem": "-r-------- opalweb opalweb"}, with the content's hash or a link's goal where wanted."""
        seen = {}
        for path in sorted(pathlib.Path(folder).rglob("*")):
            status = path.lstat()
            words = [stat.filemode(status.st_mode), self.user(status.st_uid), self.user(status.st_gid)]
            if content and path.is_symlink():
                words.append(os.readlink(path))
            elif content and path.is_file():
                words.append(hashlib.sha256(path.read_bytes()).hexdigest()[:16])
            seen[str(path.relative_to(folder))] = " ".join(words)
        return seen

    # Undoing

    @staticmethod
    def user(uid):
        return next((each.pw_name for each in pwd.getpwall() if each.pw_uid == uid), str(uid))

    @staticmethod
    def mount_points():
        with open("/proc/self/mountinfo") as mounts:
            return {line.split()[0]: line.split()[4].encode().decode("unicode_escape") for line in mounts}

    @staticmethod
    def sanitizer_reports():
        return "\n".join(path.read_text(errors="replace") for path in ROW.glob("report.*"))

    def end_processes(self):
        def others():
            return [int(pid) for pid in os.listdir("/proc") if pid.isdecimal() and pid not in World.processes]

        while pids := others():
            for pid in pids:
                try:
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, os.WNOHANG)
                except (ChildProcessError, ProcessLookupError):
                    pass
            time.sleep(0.002)

    def clean(self):
        for number, path in reversed(self.mount_points().items()):
            if number not in World.mounts:
                subprocess.run(["umount", "--no-mtab", "--lazy", path], check=True)
        # A repository that lies below /tmp is mounted there and stays.
        subprocess.run(["find", *FRESH, "-xdev", "-mindepth", "1", "-delete"], stderr=subprocess.DEVNULL)
        pathlib.Path("/proc/sys/kernel/opal_mac_address1").write_text("001132a1b2c3\n")


@pytest.fixture
def w():
    world = World()
    yield world
    world.close()
