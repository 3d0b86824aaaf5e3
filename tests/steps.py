# Fails a command once at each of its steps, and knows what must hold then.
#
# A step is a call that changes the disk, or starts a child, of the command or of anything that it starts. strace(1)
# counts calls for each process on its own: it cannot say "the fortieth change of this run, whoever makes it", nor kill
# everybody there. So the kernel asks here before each of these calls (seccomp_unotify(2)), on x86-64 and arm64.

import ctypes, errno, fcntl, functools, glob, json, os, platform, select, shutil, signal, socket, stat, struct
import subprocess
from collections import namedtuple
from pathlib import Path

from conftest import A, D, P, TOOL

ROOTS = ("/usr/opal/etc", "/usr/opal/share", "/usr/local/etc", "/usr/local/share")  # what the tool may change
CERTIFICATE, INFO, SERVICES = f"{A}/c", f"{A}/INFO", f"{A}/SERVICES"

# Which arguments of calls are a descriptor, of a file or of the folder in which a path begins, and a path. A rename is
# known by its new name. A fork is no change, but what the next one waits for.
CALLS = {
    (0, None): "write pwrite64 writev sendfile fallocate ftruncate fsync fdatasync fchmod fchown fsetxattr",
    (2, None): "copy_file_range",
    (None, 0): "open creat mkdir unlink rmdir truncate chmod chown lchown setxattr lsetxattr removexattr",
    (None, 1): "rename link symlink",
    (0, 1): "openat mkdirat unlinkat fchmodat fchmodat2 fchownat utimensat",
    (1, 2): "symlinkat",
    (2, 3): "renameat renameat2 linkat",
    (None, None): "fork vfork clone clone3",
}
CHANGING = os.O_WRONLY | os.O_RDWR | os.O_CREAT | os.O_TRUNC  # the others only look


@functools.cache
def calls_by_number():  # as the compiler knows them: no architecture has another's numbers, nor all calls
    macros = ["g++", "-E", "-dM", "-include", "sys/syscall.h", "-x", "c++", "/dev/null"]
    lines = subprocess.run(macros, check=True, capture_output=True, text=True).stdout.splitlines()
    numbers = dict(line.split()[1:3] for line in lines if line.startswith("#define __NR_"))
    rows = [(f"__NR_{name}", (name, *row)) for row, names in CALLS.items() for name in names.split()]
    return {int(numbers[macro]): row for macro, row in rows if macro in numbers}


SECCOMP, MODE_FILTER, NEW_LISTENER = {"x86_64": 317, "aarch64": 277}[platform.machine()], 1, 8
ALLOW, ASK, RECEIVE, SEND, CONTINUE = 0x7FFF0000, 0x7FC00000, 0xC0502100, 0xC0182101, 1  # linux/seccomp.h


# fmt: off
# From now on this process and its children wait at these calls for an answer; all others cost nothing. Answers the
# descriptor by which they ask.
def ask_at(numbers):
    rules = [(0x20, 0, 0, 0)]  # Load the number, jump to the last rule for each that is looked for.
    rules += [(0x15, len(numbers) - at, 0, number) for at, number in enumerate(numbers)]
    rules += [(0x06, 0, 0, ALLOW), (0x06, 0, 0, ASK)]
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *rule) for rule in rules))
    program = struct.pack("HxxxxxxQ", len(rules), ctypes.addressof(code))
    return ctypes.CDLL(None).syscall(SECCOMP, MODE_FILTER, NEW_LISTENER, program)


Call = namedtuple("Call", "program name path inode errors")  # inode: of an open file


def inode_of(status): return status.st_dev, status.st_ino


# The call that is about to be made, when it changes something below the roots or starts a child, else None.
def describe(pid, number, arguments):
    name, fd, at = calls_by_number()[number]
    program = os.path.basename(os.path.realpath(f"/proc/{pid}/exe"))
    if fd is at: return Call(program, name, "", None, ["ENOMEM"])
    place = -100 if fd is None else ctypes.c_int(arguments[fd]).value  # AT_FDCWD
    opened = f"/proc/{pid}/cwd" if place == -100 else f"/proc/{pid}/fd/{place}"
    path = os.path.realpath(opened)
    if at is not None and arguments[at]:  # None: futimens(3)
        with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
            memory.seek(arguments[at])
            path = os.path.join(path, memory.read(4096).split(b"\0")[0].decode(errors="replace"))
    only_looks = name in ("open", "openat") and not arguments[at + 1] & CHANGING
    if only_looks or not path.startswith((*ROOTS, "/tmp/")): return None
    inode = inode_of(os.stat(opened)) if at is None else None
    errors = ["ENOSPC", "EIO", "ENOMEM", *["EACCES"] * (at is not None)]
    return Call(program, name, path, inode, errors + ["EMFILE"] * (name in ("open", "openat", "creat")))


# Runs a command; answers its exit status, negative for a signal. `enter(number, call)` is asked before each step: None
# lets it pass, an errno makes it fail, "kill" kills everybody at once.
def trace(w, argv, enter):
    ours, theirs = socket.socketpair()
    send = lambda: socket.send_fds(theirs, [b"-"], [ask_at(calls_by_number())])
    child, number = subprocess.Popen(argv, close_fds=False, preexec_fn=send), 0
    with open(socket.recv_fds(ours, 1, 1)[1][0], "rb", buffering=0) as listener:
        (poll := select.poll()).register(listener, select.POLLIN)
        while not (events := poll.poll(20)) or events[0][1] == select.POLLIN:
            child.poll()  # Who has ended is waited for, or there would be no end.
            if not events: continue
            fcntl.ioctl(listener, RECEIVE, notice := bytearray(80))
            id, pid, _, call_number, *arguments = struct.unpack("QIIi12x6Q", notice)
            call = describe(pid, call_number, arguments)
            answer = call and enter(number, call)
            number += bool(call)
            if answer == "kill":
                w.end_processes()
                return -signal.SIGKILL
            fcntl.ioctl(listener, SEND, struct.pack("QqiI", id, 0, -(answer or 0), 0 if answer else CONTINUE))
    return child.wait()


# The mode as stat(2) has it; the content of a link is where it leads.
Node = namedtuple("Node", "mode uid gid content")


# What is below these folders: {inode: Node} and {(a folder's inode, name): inode}; the roots are in the folder None.
def take(roots=ROOTS):
    nodes, names = {}, {}
    left = [(None, path, path) for path in roots if os.path.lexists(path)]
    for folder, name, path in left:
        status, content = os.lstat(path), b""
        names[folder, name] = inode = inode_of(status)
        if stat.S_ISDIR(status.st_mode):
            left += [(inode, each, f"{path}/{each}") for each in os.listdir(path)]
        elif stat.S_ISLNK(status.st_mode): content = os.readlink(path).encode()
        elif stat.S_ISREG(status.st_mode): content = Path(path).read_bytes()
        nodes[inode] = Node(status.st_mode, status.st_uid, status.st_gid, content)
    return nodes, names


# The same as {path: Node}, which is what the promises are about.
def flat(nodes, names):
    below, disk = {}, {}
    for (folder, name), inode in names.items(): below.setdefault(folder, []).append((name, inode))
    left = below.get(None, [])
    for path, inode in left:
        disk[path] = nodes[inode]
        left += [(f"{path}/{name}", each) for name, each in below.get(inode, [])]
    return disk


def look(*roots): return flat(*take(roots or ROOTS))


# Makes the real disk look like this one.
def put(disk):
    for root in ROOTS: shutil.rmtree(root, ignore_errors=True)
    for path, node in sorted(disk.items()):
        if stat.S_ISLNK(node.mode):
            os.symlink(node.content, path)
            continue
        os.makedirs(path) if stat.S_ISDIR(node.mode) else Path(path).write_bytes(node.content)
        os.chown(path, node.uid, node.gid)
        os.chmod(path, stat.S_IMODE(node.mode))
    for path in glob.glob("/tmp/*.lock"): os.unlink(path)
# fmt: on


# What a power cut may leave of a run, after each of its steps.
#
# A file's content and a folder's names are safe once they were synced, and only then; every change of names since may
# be lost or kept by itself, but a rename is one change. Of a file that was never synced an empty one may be left, of
# one that was synced before, what it held then.
class Forgetting:
    def __init__(self):
        self.every, self.names = take()  # the first also with those that have no name any more
        self.safe = dict(self.every)  # as they were when last synced, or when they came to be
        self.changes = []  # since their folders were synced: lists of (folder and name, old inode, new inode)
        self.cuts, self.seen = [], set()  # (number of the step, the call, the disk that is left)

    # After a step, before anybody takes the next one.
    def learn(self, number, call):
        nodes, names = take()
        self.safe = {inode: node._replace(content=b"") for inode, node in nodes.items()} | self.safe
        self.every.update(nodes)
        pairs = [(key, self.names.get(key), names.get(key)) for key in self.names.keys() | names.keys()]
        self.changes.append([pair for pair in pairs if pair[1] != pair[2]])
        self.names = names
        if "sync" in call.name:
            self.safe[call.inode] = self.every[call.inode]
            self.changes = [[each for each in all if each[0][0] != call.inode] for all in self.changes]
        self.changes = [change for change in self.changes if change]
        self.cut(number, call)

    def cut(self, number, call):
        is_file = [inode for inode, node in self.every.items() if stat.S_ISREG(node.mode)]
        files = [inode for inode in is_file if self.safe[inode] != self.every[inode]]
        everything = range(len(self.changes))
        left = [(everything, files), (everything, []), ([], files), *(([], [file]) for file in files)]
        for lost, lost_files in left + [(self.with_later(change), []) for change in everything]:
            names = dict(self.names)
            for key, old, _ in [each for change in reversed(lost) for each in self.changes[change]]:
                names.pop(key, None)
                names.update({key: old} if old else {})
            disk = flat(self.every | {inode: self.safe[inode] for inode in lost_files}, names)
            if (identity := (number is None, frozenset(disk.items()))) not in self.seen:
                self.seen.add(identity)
                self.cuts.append((number, call, disk))

    # A change cannot be lost while a later one of the same name is kept.
    def with_later(self, index):
        lost, keys = [], [{key for key, _, _ in change} for change in self.changes]
        for at in range(index, len(keys)):
            lost += [at] if at == index or any(keys[at] & keys[each] for each in lost) else []
        return lost


FILES = ("cert.pem", "privkey.pem", "fullchain.pem")
REMAINS = (".temp", ".bak", ".new", "/.mending")


@functools.cache
def public_key(text, *command):
    done = subprocess.run(["/usr/bin/openssl", *command], input=text, capture_output=True)
    return done.stdout if done.returncode == 0 else None


def is_pair(cert, key):
    of_cert = public_key(cert, "x509", "-pubkey", "-noout")
    return of_cert is not None and of_cert == public_key(key, "pkey", "-pubout")


# What a reader of a folder sees.
def content(disk, folder):
    inside = [path for path in disk if path.startswith(folder + "/")]
    return {path.removeprefix(folder + "/"): disk[path] for path in inside}


def parsed(disk, path):  # None when it is missing or does not parse; "null" would be no book either
    try:
        return json.loads(disk[path].content)
    except (KeyError, ValueError):
        return None


def belong_together(files):
    cert, key, chain = (files[name].content if name in files else b"" for name in FILES)
    return is_pair(cert, key) and chain == cert


def is_whole(disk, folder):  # for a service of opalweb
    files = content(disk, folder)
    copied = {name: node[:3] == (0o100400, 64101, 64101) for name, node in files.items() if name != "info"}
    is_right = files.keys() - {"opal-ca-cert.pem"} == {*FILES, "info"} and all(copied.values())
    is_right = is_right and disk[folder][:3] == (0o40755, 0, 0) and parsed(files, "info") is not None
    return is_right and belong_together(files)


# The services of p in a book, for each certificate (SERVICES is one list), and the book without them.
def split(book):
    ours, rest = {}, json.loads(json.dumps(book))
    for cert_id, entry in rest.items() if isinstance(rest, dict) else [("", {"services": rest})]:
        ours[cert_id] = [service for service in entry["services"] if service["subscriber"] == "p"]
        entry["services"][:] = [service for service in entry["services"] if service["subscriber"] != "p"]
    return ours, rest


# A run with the disks before and after it, the calls of its undisturbed run, and what a power cut leaves of it. It
# works on these services of subscriber p; service z of q is a stranger. `certificate`: what becomes of the folder c of
# the archive, "kept", "mended" in place, or "exchanged" in one step.
class Torture:
    def __init__(self, w, arrange, command, services, registers=True, certificate="kept"):
        self.w, self.text, self.registers, self.certificate = w, command, registers, certificate
        self.services = services.split()
        arrange(w)
        self.old = look()
        put(self.old)
        self.calls, forgetting = [], Forgetting()

        def enter(number, call):
            if self.calls:
                forgetting.learn(number - 1, self.calls[-1])
            self.calls += [call] if call else []

        status, self.usual = self.trace(enter)
        enter(len(self.calls), None)
        forgetting.cut(None, ("the end",))  # It has answered: what it has done must stay done.
        self.cuts, self.new = forgetting.cuts, look()
        remains = [path for path in self.new if path.endswith(REMAINS)]
        assert status == 0 and not remains, f"undisturbed it answers {status}, leaves {remains}: {self.usual}"
        # Before it no removal can have been lost or kept in part.
        self.first_removal = [call.program for call in [*self.calls, Call("rm", *[None] * 4)]].index("rm")
        self.points = [("kill", at) for at in range(len(self.calls))]
        self.points += [(name, at) for at, call in enumerate(self.calls) for name in call.errors]
        self.points += [("cut", at) for at in range(len(self.cuts))]

    def trace(self, enter):
        return trace(self.w, f"{TOOL}/{self.text}".split(), enter), self.w.log.take()

    # The call, and what was wrong.
    def try_point(self, kind, point):
        if kind == "cut":
            number, call, disk = self.cuts[point]
            put(disk)
            # A name that was removed may be back without what was removed beside it.
            wrong = self.after_stop(disk, True, number is None or number >= self.first_removal)
            wrong += self.after_success(disk) if number is None else []
            return call, wrong + self.again(disk, True)
        put(self.old)
        answer, hit = kind if kind == "kill" else getattr(errno, kind), []
        status, log = self.trace(lambda number, call: hit.append(call) or answer if number == point else None)
        if not hit:
            return ("nobody",), ["the step was not reached"]
        call, disk, unusual = hit[0], look(), [line for line in log if line not in self.usual]
        wrong = self.after_stop(disk, kind == "kill", call.program == "rm")
        wrong += self.after_success(disk) if status == 0 else []
        # opalcrt alone tells by 3 that it has begun; its 1 is that nothing has changed.
        is_admin = self.text.startswith("opalcrt ")
        if is_admin and status == 1 and content(disk, CERTIFICATE) != content(self.old, CERTIFICATE):
            wrong.append("answered 1, but the certificate is another one")
        if kind != "kill" and (status not in (0, 1, 3 if is_admin else 0) or status == 1 and not unusual):
            wrong.append("did not fail with a line in the log")
        of_mark = any("/.mending" in text for text in (call.path, self.calls[point - 1].path, *unusual))
        if "sync" in call.name and status == 0 and not of_mark:  # A mend does not depend on its mark.
            wrong.append("answered 0 although a sync has failed")
        wrong += [f"status {status}, log {log}"] if wrong else []
        # A complete certificate is left alone, also when it could not be marked as a mended one.
        is_unmarked = any("Failed to write cert info" in line for line in log)
        return call, wrong + self.again(disk, kind == "kill", is_unmarked)

    # Runs the command once more, as the administrator would: it must end the job and leave nothing behind.
    def again(self, before, is_sudden, is_unmarked=False):
        definitions = {path for path in self.old if path.startswith(f"{D}/")}
        for path in definitions:
            Path(path).write_bytes(self.old[path].content)
        self.w.story.clear()
        said, disk = self.w.run(self.text), look()
        # Whom a folder belonged to is known from INFO alone: what stands no more in it stays.
        ours = [each["service"] for some in split(parsed(before, INFO) or {})[0].values() for each in some]
        is_forgotten = not self.registers and not {*ours} & {*self.services}
        wrong = self.after_stop(disk, False, is_forgotten)
        wrong += self.after_success(disk, is_unmarked) if said.status == 0 else []
        wrong += [f"the next run answers {said.status}"] if said.status != 0 and not is_forgotten else []
        kept = ("//" if self.registers or is_sudden else f"{A}/INFO.bak", f"{P}/p" if is_forgotten else "//")
        stay = [each for each in disk.keys() - self.new.keys() - definitions if not each.startswith(kept)]
        return wrong + [f"{path} stays behind" for path in stay] + ([str(said)] if wrong or stay else [])

    def state(self, disk, folder):
        if not is_whole(disk, folder):
            return "part" if folder in disk else "absent"
        if content(disk, folder) == content(self.old, folder):
            return "old"
        places = (self.new, f"{folder}/cert.pem"), (disk, f"{CERTIFICATE}/cert.pem")
        good = [where[path].content for where, path in places if path in where]
        return "new" if disk[f"{folder}/cert.pem"].content in good else "part"

    # `is_sudden`: nobody could roll anything back. `in_removal`: the stop fell on the program that removes folders, or
    # what it has removed may have come back in part.
    def after_stop(self, disk, is_sudden, in_removal):
        keys = [(path, node.mode & 0o077) for path, node in disk.items() if b"PRIVATE KEY" in node.content]
        wrong = self.books(disk) + self.archive(disk) + [f"{path} can be read" for path, mode in keys if mode]
        is_touched = content(disk, f"{P}/q") != content(self.old, f"{P}/q")
        wrong += ["the stranger's folder is touched"] if is_touched else []
        for folder in (f"{P}/p/{service}" for service in self.services):
            state, files = self.state(disk, folder), content(disk, folder)
            pair = [files[name].content for name in FILES[:2] if name in files]
            backup_holds = content(disk, folder + ".bak") == content(self.old, folder) != {}
            is_safe = is_sudden and backup_holds or not self.registers
            may_be_part = is_safe and in_removal and (len(pair) < 2 or is_pair(*pair))
            may_be = {"absent": is_safe or folder not in self.old, "part": may_be_part}
            if not may_be.get(state, True):
                wrong.append(f"{folder} is {state}, its backup is {'' if backup_holds else 'not '}whole")
        return wrong

    # When the command has answered 0: all is done.
    def after_success(self, disk, is_unmarked=False):
        states = [self.state(disk, f"{P}/p/{service}") for service in self.services]
        books = [INFO, SERVICES, *([] if is_unmarked else [f"{CERTIFICATE}/cert_info"])]
        books = [book for book in books if parsed(disk, book) != parsed(self.new, book)]
        wrong = [f"answered 0, but {book} is not as it should be" for book in books]
        is_done = set(states) == {"new" if self.registers else "absent"}
        return wrong + ([] if is_done else [f"answered 0, but the folders are {states}"])

    # A folder that has all its files, and no mark, is taken for a good certificate by the next run.
    def archive(self, disk):
        here, old, new = (content(each, CERTIFICATE) for each in (disk, self.old, self.new))
        is_new = here.keys() == new.keys() and belong_together(here)
        is_right = here == old or self.certificate == "exchanged" and is_new
        if self.certificate == "mended":
            is_right = ".mending" in here or not {*FILES} <= here.keys() or belong_together(here)
        return [] if is_right else ["the certificate looks whole and is not"]

    def books(self, disk):
        wrong = [f"{book} does not parse" for book in (INFO, SERVICES) if parsed(disk, book) is None]
        for book in (INFO, SERVICES) if not wrong else ():
            halves = [split(parsed(each, book)) for each in (disk, self.old, self.new)]
            (ours, rest), (old, old_rest), (new, _) = halves
            good = [old, new]
            if book == INFO and not any(old.values()):  # It is written after each service, and one may fail.
                good += [{**new, cert_id: [each]} for cert_id, some in new.items() for each in some]
            if ours not in good or rest != old_rest:
                wrong.append(f"{book} lists neither the old nor the new services")
            wrong += [f"{book} can be written"] if disk[book].mode & 0o022 else []
        return wrong
