"""Fails every step of the tool once, in a world of its own (scripts/torture starts it). Prints one line of JSON for
each point that was tried."""

import argparse
import errno
import json
import os
import sys

from . import crowd, tree
from .checks import Judge
from .disk import Recorder
from .scenes import SCENES, Log, arrange, run, run_again

NAMES = ('ENOSPC', 'EIO', 'EACCES', 'ENOMEM')
ERRORS = {
    'open': NAMES + ('EMFILE',), 'creat': NAMES + ('EMFILE',), 'fork': ('ENOMEM',),
    'rename': NAMES, 'mkdir': NAMES, 'link': NAMES, 'symlink': NAMES,
    'write': ('ENOSPC', 'EIO'), 'pwrite64': ('ENOSPC', 'EIO'), 'writev': ('ENOSPC', 'EIO'),
    'copy_file_range': ('ENOSPC', 'EIO', 'ENOMEM'), 'sendfile': ('ENOSPC', 'EIO', 'ENOMEM'),
    'fallocate': ('ENOSPC', 'EIO'), 'fsync': ('ENOSPC', 'EIO'), 'fdatasync': ('ENOSPC', 'EIO'),
    'ftruncate': ('EIO',), 'truncate': ('EIO', 'EACCES'), 'unlink': ('EIO', 'EACCES', 'ENOMEM'),
    'rmdir': ('EIO', 'EACCES', 'ENOMEM'), 'fchmod': ('EIO',), 'fchown': ('EIO',), 'chmod': ('EIO', 'EACCES', 'ENOMEM'),
    'chown': ('EIO', 'EACCES', 'ENOMEM'), 'lchown': ('EIO', 'EACCES', 'ENOMEM'), 'utimens': ('EIO', 'EACCES'),
    'setxattr': ('ENOSPC', 'EIO'), 'lsetxattr': ('ENOSPC', 'EIO'), 'fsetxattr': ('ENOSPC', 'EIO'),
    'removexattr': ('EIO',),
}
REMAINS = ('.temp', '.bak', '.new', '.held', '/RECOVERING')
INFO_BACKUP = '/usr/opal/etc/certificate/_archive/INFO.bak'  # Made to be kept.


def text_of(line):
    return line.split(': ', 1)[-1].split(' ', 1)[-1]  # without time and place


def tell(scene, kind, point, call, wrong):
    print(json.dumps({'scene': scene.name, 'kind': kind, 'point': point, 'call': str(call), 'wrong': wrong}), flush=True)


class Scenery:
    """A scene with the disks before and after it, and the calls of its undisturbed run."""

    def __init__(self, scene, log):
        self.scene, self.log = scene, log
        self.old = arrange(scene, log)
        self.put(self.old)
        self.calls = []
        self.recorder = Recorder()
        status, said = run(scene, log, lambda number, call: self.calls.append(call), self.recorder.left)
        self.ordinary_lines = {text_of(line) for line in said}
        new = tree.take()
        remains = [path for path in tree.flat(new) if path.endswith(REMAINS)]
        if status != 0 or remains:
            raise RuntimeError(f'{scene.name} undisturbed answers {status} and leaves {remains}')
        self.recorder.end()
        self.judge = Judge(scene, self.old, new)
        # Before it no removal can have been lost or kept in part.
        self.first_removal = next((at for at, call in enumerate(self.calls) if call.program == 'rm'), len(self.calls))

    def end(self, before, allows=('//',)):
        """Complaints after the command was run once more."""
        status, log = run_again(self.scene, self.log, self.judge.definitions)
        wrong = self.judge.after_end(before, tree.flat(tree.take()), status, allows)
        return wrong + ([f'its log: {log}'] if wrong else [])

    def put(self, disk):
        tree.put(disk)
        for name in os.listdir('/tmp'):
            if name.endswith('.lock'):
                os.unlink(f'/tmp/{name}')

    def stop(self, kind, point):
        self.put(self.old)
        hit = []

        def enter(number, call):
            if number != point:
                return None
            hit.append(call)
            return 'kill' if kind == 'kill' else getattr(errno, kind)

        status, log = run(self.scene, self.log, enter)
        if not hit:
            return 'not reached', ['not reached']
        flat = tree.flat(tree.take())
        wrong = self.judge.after_stop(flat, kind == 'kill', hit[0].program == 'rm')
        allows = ('//',)
        if kind != 'kill':
            said = [line for line in log if text_of(line) not in self.ordinary_lines]
            is_of_note = any('/RECOVERING ' in line for line in said)  # It does not count.
            if hit[0].name in ('fsync', 'fdatasync') and status == 0 and not is_of_note:
                wrong.append('answered 0 although a sync has failed')
            if status < 0 or status > 1:
                wrong.append(f'ended with {status}')
            elif status == 1 and not said:
                wrong.append('failed without a line in the log')
            elif status == 0:
                wrong += self.judge.after_success(flat)
            if not self.scene.registers:
                allows = (INFO_BACKUP,)
        if wrong:
            wrong.append(f'status {status}, log {log}')
        return hit[0], wrong + self.end(flat, allows)

    def cut(self, number, disk):
        self.put(disk)
        flat = tree.flat(disk)
        # A name that was removed may be back without what was removed beside it.
        wrong = self.judge.after_stop(flat, True, number is None or number >= self.first_removal)
        if number is None:
            wrong += self.judge.after_success(flat)
        return wrong + self.end(flat)


def main():
    parser = argparse.ArgumentParser(prog='torture')
    parser.add_argument('--part', default='0/1', help='which share of the points to try')
    parser.add_argument('--every', type=int, default=1, help='try only every N-th point of each kind')
    parser.add_argument('--offset', type=int, default=0, help='which ones these are')
    parser.add_argument('--scene', help='try only this one')
    parser.add_argument('--kind', help='try only this one: kill, cut or the name of an error')
    parser.add_argument('--crowd', type=int, default=0, help='let a crowd at it for so many seconds, and nothing else')
    parser.add_argument('--seed', type=int, default=1, help='of what the crowd does')
    arguments = parser.parse_args()
    if not os.path.exists('/run/opalcrt-world'):
        sys.exit('torture: this would destroy the certificates of a real machine')
    if arguments.crowd:
        crowd.main(arguments.crowd, arguments.seed)
        return

    part, parts = map(int, arguments.part.split('/'))
    log = Log()
    for scene in SCENES:
        if arguments.scene not in (None, scene.name):
            continue
        scenery = Scenery(scene, log)
        points = [('kill', point) for point in range(len(scenery.calls))]
        points += [(name, point) for point, call in enumerate(scenery.calls) for name in ERRORS[call.name]]
        points += [('cut', at) for at in range(len(scenery.recorder.cuts))]
        points = [each for each in points if arguments.kind in (None, each[0])]
        first = arguments.offset % arguments.every + part * arguments.every
        for kind, point in points[first::parts * arguments.every]:
            if kind == 'cut':
                point, call, disk = scenery.recorder.cuts[point]
                wrong = scenery.cut(point, disk)
            else:
                call, wrong = scenery.stop(kind, point)
            tell(scene, kind, point, call, wrong)


main()
