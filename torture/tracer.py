"""Runs a command under ptrace(2) and stops it, and all its children, at the calls that change the disk.

strace(1) counts calls for each process on its own, so it cannot say "the fortieth change of this run, whoever
makes it". Numbers and registers are those of x86-64.
"""

import ctypes
import os
import signal
from dataclasses import dataclass

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
libc.ptrace.restype = ctypes.c_long

TRACEME, CONT, GETREGS, SETREGS, SYSCALL, SETOPTIONS, GETEVENTMSG = 0, 7, 12, 13, 24, 0x4200, 0x4201
# TRACESYSGOOD, TRACEFORK, TRACEVFORK, TRACECLONE, TRACEEXEC, EXITKILL (ptrace.h)
OPTIONS = 0x1 | 0x2 | 0x4 | 0x8 | 0x10 | 0x100000
EVENTS_OF_BIRTH = (1, 2, 3)
SYSCALL_STOP = signal.SIGTRAP | 0x80

REGISTERS = ('r15 r14 r13 r12 rbp rbx r11 r10 r9 r8 rax rcx rdx rsi rdi orig_rax rip cs eflags rsp ss fs_base gs_base '
             'ds es fs gs').split()


class Registers(ctypes.Structure):
    _fields_ = [(name, ctypes.c_ulonglong) for name in REGISTERS]


# number: (name, where its path is). "fd N" and "path N" name an argument; "at N" a folder's descriptor and, after it,
# a path. A rename is known by its new name.
CALLS = {
    1: ('write', 'fd', 0), 18: ('pwrite64', 'fd', 0), 20: ('writev', 'fd', 0), 40: ('sendfile', 'fd', 0),
    326: ('copy_file_range', 'fd', 2), 74: ('fsync', 'fd', 0), 75: ('fdatasync', 'fd', 0),
    77: ('ftruncate', 'fd', 0), 91: ('fchmod', 'fd', 0), 93: ('fchown', 'fd', 0), 285: ('fallocate', 'fd', 0),
    190: ('fsetxattr', 'fd', 0), 197: ('removexattr', 'path', 0), 2: ('open', 'path', 0), 85: ('creat', 'path', 0), 76: ('truncate', 'path', 0),
    82: ('rename', 'path', 1), 83: ('mkdir', 'path', 0), 84: ('rmdir', 'path', 0), 86: ('link', 'path', 1),
    87: ('unlink', 'path', 0), 88: ('symlink', 'path', 1), 90: ('chmod', 'path', 0), 92: ('chown', 'path', 0),
    94: ('lchown', 'path', 0), 188: ('setxattr', 'path', 0), 189: ('lsetxattr', 'path', 0),
    257: ('open', 'at', 0), 258: ('mkdir', 'at', 0), 260: ('chown', 'at', 0), 263: ('unlink', 'at', 0),
    264: ('rename', 'at', 2), 265: ('link', 'at', 2), 266: ('symlink', 'at', 1), 268: ('chmod', 'at', 0),
    280: ('utimens', 'at', 0), 316: ('rename', 'at', 2),
    # No change of the disk, but what the next change waits for.
    56: ('fork', 'none', 0), 57: ('fork', 'none', 0), 58: ('fork', 'none', 0),
}
CHANGING_FLAGS = os.O_WRONLY | os.O_RDWR | os.O_CREAT | os.O_TRUNC
AT_FDCWD = 0xffffff9c


@dataclass
class Call:
    program: str
    name: str
    path: str
    inode: tuple  # of an open descriptor: device and inode

    def __str__(self):
        return f'{self.program}: {self.name} {self.path}'


def ptrace(request, pid, address=None, data=None):
    if libc.ptrace(request, pid, address, data) < 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def read_string(pid, address):
    with open(f'/proc/{pid}/mem', 'rb', buffering=0) as memory:
        memory.seek(address)
        return memory.read(4096).split(b'\0')[0].decode(errors='replace')  # Less, where the next page is not there.


def link_of(pid, what):
    try:
        return os.readlink(f'/proc/{pid}/{what}')
    except OSError:
        return ''


def describe(pid, registers, roots):
    """The call as a Call when it changes something below the roots or starts a child, else None."""
    found = CALLS.get(registers.orig_rax)
    if found is None:
        return None
    name, kind, at = found
    arguments = [registers.rdi, registers.rsi, registers.rdx, registers.r10]
    path, inode = '', None
    if kind == 'fd':
        path = link_of(pid, f'fd/{arguments[at]}')
        if path.startswith('/'):
            status = os.stat(f'/proc/{pid}/fd/{arguments[at]}')
            inode = (status.st_dev, status.st_ino)
    elif kind != 'none':
        shift = 1 if kind == 'at' else 0
        if name == 'open' and not arguments[at + shift + 1] & CHANGING_FLAGS:
            return None
        if arguments[at + shift] == 0:  # futimens(3)
            path = link_of(pid, f'fd/{arguments[at]}')
        else:
            path = read_string(pid, arguments[at + shift])
        if not path.startswith('/'):
            place = arguments[at] & 0xffffffff
            base = link_of(pid, 'cwd' if kind == 'path' or place == AT_FDCWD else f'fd/{place}')
            path = os.path.join(base, path)
    if kind != 'none' and not path.startswith(roots):
        return None
    return Call(os.path.basename(link_of(pid, 'exe')), name, path, inode)


class Run:
    """One traced run. `enter(number, call)` is asked at each changing call, before it: None lets it pass, an errno
    makes it fail, "kill" kills everybody at once. `left(number, call, result)` is told when it has returned."""

    def __init__(self, roots, enter, left=None, drain=lambda: None):
        self.roots, self.enter, self.left, self.drain = roots, enter, left, drain
        self.number = 0
        self.inside = {}  # pid: (number, call, errno) between entry and exit
        self.alive = set()
        self.is_watching = True

    def run(self, argv):
        """The exit status, negative for a signal."""
        first = os.fork()
        if first == 0:
            null = os.open('/dev/null', os.O_RDWR)
            for fd in range(3):
                os.dup2(null, fd)
            ptrace(TRACEME, 0)
            os.kill(os.getpid(), signal.SIGSTOP)
            os.execv(argv[0], argv)
        os.waitpid(first, 0)
        ptrace(SETOPTIONS, first, None, OPTIONS)
        self.alive = {first}
        ptrace(SYSCALL, first)
        result = None
        while self.alive:
            pid, status = os.waitpid(-1, 0x40000000)  # __WALL
            self.drain()
            if not os.WIFSTOPPED(status):
                self.alive.discard(pid)
                if pid == first:
                    result = os.waitstatus_to_exitcode(status)
                continue
            self.alive.add(pid)
            try:
                self.go_on(pid, status)
            except ProcessLookupError:
                pass  # Killed meanwhile; its end is waited for above.
        return result

    def go_on(self, pid, status):
        stop = os.WSTOPSIG(status)
        deliver = 0
        if stop == SYSCALL_STOP:
            if self.is_watching or pid in self.inside:
                self.syscall_stop(pid)
        elif stop == signal.SIGTRAP or (stop == signal.SIGSTOP and status >> 16 == 0):
            pass  # An event, or the first stop of a new process.
        else:
            deliver = stop
        ptrace(SYSCALL if self.is_watching or self.inside else CONT, pid, None, deliver)

    def syscall_stop(self, pid):
        registers = Registers()
        ptrace(GETREGS, pid, None, ctypes.addressof(registers))
        if pid in self.inside:
            number, call, error = self.inside.pop(pid)
            if error:
                registers.rax = -error & 0xffffffffffffffff
                ptrace(SETREGS, pid, None, ctypes.addressof(registers))
            if self.left:
                self.left(number, call, ctypes.c_longlong(registers.rax).value)
            return
        # At the exit of a call that is not watched rax holds a result; at an entry it holds -ENOSYS.
        if ctypes.c_longlong(registers.rax).value != -38:
            return
        call = describe(pid, registers, self.roots)
        if call is None:
            return
        answer = self.enter(self.number, call)
        number, self.number = self.number, self.number + 1
        if answer == 'kill':
            self.is_watching = False
            for process in self.alive:
                os.kill(process, signal.SIGKILL)
        elif answer is not None:
            self.is_watching = False  # One failure is enough; what follows runs at its own speed.
            registers.orig_rax = 0xffffffffffffffff
            ptrace(SETREGS, pid, None, ctypes.addressof(registers))
            self.inside[pid] = (number, call, answer)
        elif call.name != 'fork':  # Its exit belongs to two processes.
            self.inside[pid] = (number, call, 0)
