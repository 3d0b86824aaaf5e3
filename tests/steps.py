# Fails a command once at each of its steps (tracer.py), and knows what must hold then.

import errno, functools, glob, json, os, shutil, stat, subprocess
from collections import namedtuple
from pathlib import Path

from conftest import A, D, P, TOOL
from tracer import END, ROOTS, inode_of, trace

CERTIFICATE, INFO, SERVICES = f"{A}/c", f"{A}/INFO", f"{A}/SERVICES"


# fmt: off
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
    for (folder, name), inode in names.items():
        if inode: below.setdefault(folder, []).append((name, inode))
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
        if stat.S_ISLNK(node.mode): os.symlink(node.content, path)
        elif stat.S_ISDIR(node.mode): os.makedirs(path)
        else: Path(path).write_bytes(node.content)
        os.chown(path, node.uid, node.gid, follow_symlinks=False)
        if not stat.S_ISLNK(node.mode): os.chmod(path, stat.S_IMODE(node.mode))
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
        self.calls, self.cuts, self.seen = [], [], set()  # cuts: (number of the call, the disk that is left)

    # Before a step: what the one before it has changed.
    def enter(self, number, call):
        if self.calls:
            self.learn(number - 1, self.calls[-1])
        self.calls.append(call)

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
        self.cut(number)

    def cut(self, number):
        unsafe = [inode for inode, node in self.every.items() if node != self.safe[inode]]
        files = [inode for inode in unsafe if stat.S_ISREG(self.every[inode].mode)]
        left = [(self.changes, files), (self.changes, []), ([], files), *(([], [file]) for file in files)]
        for lost, lost_files in left + [(self.with_later(at), []) for at in range(len(self.changes))]:
            back = {key: old for change in reversed(lost) for key, old, _ in change}
            disk = flat(self.every | {inode: self.safe[inode] for inode in lost_files}, self.names | back)
            if (identity := (self.calls[number] is END, frozenset(disk.items()))) not in self.seen:
                self.seen.add(identity)
                self.cuts.append((number, disk))

    # A change cannot be lost while a later one of the same name is kept.
    def with_later(self, at):
        lost, keys = [self.changes[at]], {key for key, _, _ in self.changes[at]}
        for change in self.changes[at + 1 :]:
            if not keys.isdisjoint(here := {key for key, _, _ in change}):
                lost, keys = [*lost, change], keys | here
        return lost


FILES = ("cert.pem", "privkey.pem", "fullchain.pem")
REMAINS = (".temp", ".bak", ".new", "/.mending")


@functools.cache
def public_key(text, *command):
    return subprocess.run(["/usr/bin/openssl", *command], input=text, capture_output=True).stdout


def is_pair(cert, key):
    return public_key(cert, "x509", "-pubkey", "-noout") == public_key(key, "pkey", "-pubout") != b""


# What a reader of a folder sees.
def content(disk, folder):
    start = folder + "/"
    return {path.removeprefix(start): node for path, node in disk.items() if path.startswith(start)}


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
    nodes = {node[:3] for name, node in files.items() if name != "info"}
    is_right = files.keys() - {"opal-ca-cert.pem"} == {*FILES, "info"} and nodes == {(0o100400, 64101, 64101)}
    is_right = is_right and disk[folder][:3] == (0o40755, 0, 0) and parsed(files, "info") is not None
    return is_right and belong_together(files)


# A book without these services of p. INFO has a list for each certificate, SERVICES is one.
def without(services, book):
    if isinstance(book, list):
        return [each for each in book if each["subscriber"] != "p" or each["service"] not in services]
    return {id: {**entry, "services": without(services, entry["services"])} for id, entry in book.items()}


# A run with the disks before and after it, the calls of its undisturbed run, and what a power cut leaves of it. It
# works on these services of subscriber p; service z of q is a stranger. `certificate`: what becomes of the folder c of
# the archive, "kept", "mended" in place, or "exchanged" in one step.
class Torture:
    def __init__(self, w, command, services, registers=True, certificate="kept"):
        self.w, self.text, self.services = w, command, services
        self.registers, self.certificate, self.old = registers, certificate, look()
        put(self.old)
        forgetting = Forgetting()
        self.calls, self.cuts = forgetting.calls, forgetting.cuts
        status, self.usual = self.trace(forgetting.enter)
        self.new = look()
        forgetting.enter(len(self.calls), END)
        forgetting.cut(len(self.calls) - 1)  # It has answered: what it has done must stay done.
        remains = [path for path in self.new if path.endswith(REMAINS)]
        assert status == 0 and not remains, f"undisturbed it answers {status}, leaves {remains}: {self.usual}"
        # Before it no removal can have been lost or kept in part.
        self.first_removal = next(at for at, call in enumerate(self.calls) if call.program == "rm")
        self.points = [("kill", at) for at in range(len(self.calls) - 1)]
        self.points += [(name, at) for at, call in enumerate(self.calls) for name in call.errors]
        self.points += [("cut", at) for at in range(len(self.cuts))]

    def trace(self, enter):
        return trace(self.w, f"{TOOL}/{self.text}".split(), enter), self.w.log.take()

    # The call, and what was wrong.
    def try_point(self, kind, point):
        is_sudden = kind in ("cut", "kill")
        if kind == "cut":
            number, disk = self.cuts[point]
            put(disk)
            call, log, status = self.calls[number], [], 0 if self.calls[number] is END else None
            # A name that was removed may be back without what was removed beside it.
            in_removal = number >= self.first_removal
        else:
            put(self.old)
            hit, answer = [], kind if kind == "kill" else getattr(errno, kind)
            enter = lambda number, call: hit.append(call) or answer if number == point else None
            status, log = self.trace(enter)
            call, disk = hit[0], look()
            in_removal = call.program == "rm"
        wrong = self.broken(disk, status == 0, is_sudden, in_removal)
        wrong += [] if is_sudden else self.after_failure(call, point, disk, status, log)
        wrong += [f"status {status}, log {log}"] if wrong else []
        # A complete certificate is left alone, also when it could not be marked as a mended one.
        is_unmarked = any("Failed to write cert info" in line for line in log)
        return call, wrong + self.again(disk, is_sudden, is_unmarked)

    # What does not hold when this call has failed.
    def after_failure(self, call, point, disk, status, log):
        begun = 3 if self.text.startswith("opalcrt ") else 0  # And its 1 is that nothing has changed.
        is_changed = content(disk, CERTIFICATE) != content(self.old, CERTIFICATE)
        unusual = [line for line in log if line not in self.usual]
        # A mend does not depend on its mark.
        of_mark = any("/.mending" in text for text in (call.path, self.calls[point - 1].path, *unusual))
        wrong = {
            "answered 1, but the certificate is another one": begun and status == 1 and is_changed,
            "did not fail with a line in the log": status not in (0, begun) and (status != 1 or not unusual),
            "answered 0 although a sync has failed": "sync" in call.name and status == 0 and not of_mark,
        }
        return [text for text, is_so in wrong.items() if is_so]

    # Runs the command once more, as the administrator would: it must end the job and leave nothing behind.
    def again(self, before, is_sudden, is_unmarked):
        definitions = {path for path in self.old if path.startswith(f"{D}/")}
        for path in definitions:
            Path(path).write_bytes(self.old[path].content)
        self.w.story.clear()
        said, disk = self.w.run(self.text), look()
        # Whom a folder belonged to is known from INFO alone: what stands no more in it stays.
        info = parsed(before, INFO) or {}
        is_forgotten = not self.registers and without(self.services, info) == info
        wrong = self.broken(disk, said.status == 0, False, is_forgotten, is_unmarked)
        wrong += [] if said.status == 0 or is_forgotten else ["the next run fails"]
        kept = ("//" if self.registers or is_sudden else f"{A}/INFO.bak", f"{P}/p" if is_forgotten else "//")
        stay = disk.keys() - self.new.keys() - definitions
        wrong += [f"{path} stays behind" for path in stay if not path.startswith(kept)]
        return wrong + ([str(said)] if wrong else [])

    # What of the promises does not hold. `is_sudden`: nobody could roll anything back. `in_removal`: the stop fell on the
    # program that removes folders, or what it has removed may have come back in part.
    def broken(self, disk, is_done, is_sudden, in_removal, is_unmarked=False):
        keys = [path for path, node in disk.items() if b"PRIVATE KEY" in node.content and node.mode & 0o077]
        wrong = self.books(disk) + self.archive(disk) + [f"{path} can be read" for path in keys]
        if content(disk, f"{P}/q") != content(self.old, f"{P}/q"):
            wrong.append("the stranger's folder is touched")
        for folder in (f"{P}/p/{service}" for service in self.services):
            state, files = self.state(disk, folder), content(disk, folder)
            pair = [files[name].content for name in FILES[:2] if name in files]
            backup_holds = content(disk, folder + ".bak") == content(self.old, folder) != {}
            is_safe = is_sudden and backup_holds or not self.registers
            may_be_part = is_safe and in_removal and (len(pair) < 2 or is_pair(*pair))
            may_be = {"absent": is_safe or folder not in self.old, "part": may_be_part}
            if not may_be.get(state, True) or is_done and state != ("new" if self.registers else "absent"):
                wrong.append(f"{folder} is {state}, done: {is_done}, its backup whole: {backup_holds}")
        books = [INFO, SERVICES, *([] if is_unmarked else [f"{CERTIFICATE}/cert_info"])] if is_done else []
        undone = [book for book in books if parsed(disk, book) != parsed(self.new, book)]
        return wrong + [f"{book} is not done" for book in undone]

    def state(self, disk, folder):
        if not is_whole(disk, folder):
            return "part" if folder in disk else "absent"
        if content(disk, folder) == content(self.old, folder):
            return "old"
        good = self.new.get(f"{folder}/cert.pem"), disk.get(f"{CERTIFICATE}/cert.pem")
        is_new = disk[f"{folder}/cert.pem"].content in [each.content for each in good if each]
        return "new" if is_new else "part"

    # A folder that has all its files, and no mark, is taken for a good certificate by the next run.
    def archive(self, disk):
        here, old, new = (content(each, CERTIFICATE) for each in (disk, self.old, self.new))
        is_new = here.keys() == new.keys() and belong_together(here)
        holds = here == old or self.certificate == "exchanged" and is_new
        if self.certificate == "mended":
            holds = ".mending" in here or not {*FILES} <= here.keys() or belong_together(here)
        return [] if holds else ["the certificate looks whole and is not"]

    # Each is the old or the new one, nobody else may write to it, and the stranger's entry is as it was.
    def books(self, disk):
        wrong = []
        for book in (INFO, SERVICES):
            here, old, new = (parsed(each, book) for each in (disk, self.old, self.new))
            good = [old, new]
            if book == INFO and without(self.services, old) == old:  # It is written after each service.
                good += [without(service, new) for service in self.services]
            is_right = here in good and without(self.services, here) == without(self.services, old)
            wrong += [] if is_right and not disk[book].mode & 0o022 else [f"{book} is not right: {here}"]
        return wrong
