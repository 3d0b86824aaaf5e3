# Follows a command and all that it starts, step by step.
#
# A step is a call that changes the disk, or starts a child, of the command or of anything that it starts. strace(1)
# counts calls for each process on its own: it cannot say "the fortieth change of this run, whoever makes it", nor kill
# everybody there. So the kernel asks here before each of these calls (seccomp_unotify(2)), on x86-64 and arm64.

import ctypes, fcntl, functools, os, select, signal, socket, struct, subprocess
from collections import namedtuple

ROOTS = ("/usr/opal/etc", "/usr/opal/share", "/usr/local/etc", "/usr/local/share")  # what the tool may change

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


seccomp = ctypes.CDLL("libseccomp.so.2")
seccomp.seccomp_init.restype = ctypes.c_void_p
ALLOW, ASK, OWN_PRIVILEGES = 0x7FFF0000, 0x7FC00000, 3  # seccomp.h
RECEIVE, SEND, CONTINUE = 0xC0502100, 0xC0182101, 1  # linux/seccomp.h


# fmt: off
@functools.cache
def calls_by_number():  # No architecture has another's numbers, nor all calls.
    rows = [(name, *where) for where, names in CALLS.items() for name in names.split()]
    numbers = [seccomp.seccomp_syscall_resolve_name(name.encode()) for name, *_ in rows]
    return {number: row for number, row in zip(numbers, rows) if number >= 0}


# From now on this process and its children wait at the calls for an answer; all others cost nothing. Answers the
# descriptor by which they ask.
def ask():
    rules = ctypes.c_void_p(seccomp.seccomp_init(ALLOW))
    seccomp.seccomp_attr_set(rules, OWN_PRIVILEGES, 0)  # It takes none away.
    failed = [number for number in calls_by_number() if seccomp.seccomp_rule_add(rules, ASK, number, 0) != 0]
    assert not failed and seccomp.seccomp_load(rules) == 0
    return seccomp.seccomp_notify_fd(rules)


Call = namedtuple("Call", "program name path inode errors")  # inode: of an open file; errors: it may meet
END = Call("", "the end", "", None, [])


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
    send = lambda: socket.send_fds(theirs, [b"-"], [ask()])
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
# fmt: on
