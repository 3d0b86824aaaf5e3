"""A disk that forgets: what may be left of a run when the power is cut between two of its calls.

A file's content and a folder's names are safe once they were synced, and only then; every change of names since may
be lost or kept by itself, but a rename is one change. Of a file that was never synced an empty one may be left, of one
that was synced before, what it held then.
"""

from . import tree


class Recorder:
    """Follows a run from one changing call to the next, and yields the disks that a cut may leave at each."""

    def __init__(self):
        self.now = tree.take()
        self.safe_nodes = dict(self.now.nodes)  # as they were when last synced, or when they came to be
        self.every_node = dict(self.now.nodes)  # also those that have no name any more
        self.safe_names = {folder: dict(names) for folder, names in self.now.names.items()}
        self.changes = []  # since the folders were synced: lists of (folder, name, old inode, new inode)
        self.cuts = []  # (number of the call after which the power goes, None at the end; the call; the disk then left)
        self.seen = set()

    def left(self, number, call, result):
        if result < 0:
            return
        before, self.now = self.now, tree.take()
        for inode, node in self.now.nodes.items():
            is_new = inode not in self.every_node
            self.every_node[inode] = node
            if is_new:  # Its names and its content are not on the disk yet.
                self.safe_nodes[inode] = tree.Node(node.kind, node.mode, node.uid, node.gid, node.mtime)
                self.safe_names.setdefault(inode, {})
        change = [(folder, name, before.names.get(folder, {}).get(name), self.now.names.get(folder, {}).get(name))
                  for folder in before.names.keys() | self.now.names.keys()
                  for name in before.names.get(folder, {}).keys() | self.now.names.get(folder, {}).keys()]
        change = [each for each in change if each[2] != each[3]]
        if change:
            self.changes.append(change)
        if call.name in ('fsync', 'fdatasync'):
            self.sync(call.inode)
        self.cut(number, call)

    def sync(self, inode):
        self.safe_nodes[inode] = self.every_node[inode]
        if inode in self.now.names:
            self.safe_names[inode] = dict(self.now.names[inode])
            self.changes = [kept for change in self.changes
                            if (kept := [each for each in change if each[0] != inode])]

    def end(self):
        """The run has answered: what it has done must stay done."""
        self.seen.clear()
        self.cut(None, 'the end')

    def cut(self, number, call):
        unsafe = [inode for inode, node in self.every_node.items()
                  if node.kind == 'file' and self.safe_nodes[inode] != node]
        everything = range(len(self.changes))
        self.leave(number, call, everything, unsafe)
        self.leave(number, call, everything, [])
        self.leave(number, call, [], unsafe)
        for index in everything:
            self.leave(number, call, self.with_later(index), [])
        for inode in unsafe:
            self.leave(number, call, [], [inode])

    def with_later(self, index):
        """A change cannot be lost while a later one of the same name is kept."""
        lost, places = [], set()
        for at in range(index, len(self.changes)):
            here = {(folder, name) for folder, name, _, _ in self.changes[at]}
            if at == index or here & places:
                lost.append(at)
                places |= here
        return lost

    def leave(self, number, call, lost_changes, lost_files):
        names = {folder: dict(below) for folder, below in {**self.safe_names, **self.now.names}.items()}
        for at in sorted(lost_changes, reverse=True):
            for folder, name, old, _ in self.changes[at]:
                names.setdefault(folder, {}).pop(name, None)
                if old is not None:
                    names[folder][name] = old
        nodes = dict(self.every_node)
        nodes.update((inode, self.safe_nodes[inode]) for inode in lost_files)
        disk = tree.Disk(nodes, names)
        identity = frozenset(tree.flat(disk).items())
        if identity not in self.seen:
            self.seen.add(identity)
            self.cuts.append((number, call, disk))
