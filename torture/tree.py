"""The part of the disk that the tool may change, as a value: taken, compared, put back."""

import os
import shutil
import stat
from dataclasses import dataclass

ROOTS = ('/usr/opal/etc', '/usr/opal/share', '/usr/local/etc', '/usr/local/share')


@dataclass(frozen=True)
class Node:
    kind: str  # "folder", "file" or "link"
    mode: int
    uid: int
    gid: int
    mtime: int  # nanoseconds
    content: bytes = b''  # of a link: where it leads


@dataclass
class Disk:
    """nodes: inode to Node. names: a folder's inode to {name: inode}; None holds the roots."""
    nodes: dict
    names: dict


def take(roots=ROOTS):
    disk = Disk({}, {None: {}})
    for root in roots:
        if os.path.lexists(root):
            disk.names[None][root] = take_one(disk, root)
    return disk


def take_one(disk, path):
    status = os.lstat(path)
    inode = (status.st_dev, status.st_ino)
    kind, content = 'file', b''
    if stat.S_ISDIR(status.st_mode):
        kind = 'folder'
        with os.scandir(path) as entries:
            disk.names[inode] = {entry.name: take_one(disk, entry.path) for entry in entries}
    elif stat.S_ISLNK(status.st_mode):
        kind, content = 'link', os.readlink(path).encode()
    elif stat.S_ISREG(status.st_mode):
        with open(path, 'rb') as file:
            content = file.read()
    mtime = status.st_mtime_ns if kind == 'file' else 0
    disk.nodes[inode] = Node(kind, stat.S_IMODE(status.st_mode), status.st_uid, status.st_gid, mtime, content)
    return inode


def put(disk):
    """Makes the real disk look like this one."""
    for root in ROOTS:
        shutil.rmtree(root, ignore_errors=True)
    for root, inode in disk.names[None].items():
        put_one(disk, inode, root)


def put_one(disk, inode, path):
    node = disk.nodes[inode]
    if node.kind == 'link':
        os.symlink(node.content, path)
        return
    if node.kind == 'folder':
        os.makedirs(path)
        for name, below in disk.names.get(inode, {}).items():
            put_one(disk, below, f'{path}/{name}')
    else:
        with open(path, 'wb') as file:
            file.write(node.content)
        os.utime(path, ns=(node.mtime, node.mtime))
    os.chown(path, node.uid, node.gid)
    os.chmod(path, node.mode)


def flat(disk):
    """{path: Node}, which is what the checks look at."""
    found = {}

    def walk(inode, path):
        found[path] = disk.nodes[inode]
        for name, below in disk.names.get(inode, {}).items():
            walk(below, f'{path}/{name}')

    for root, inode in disk.names[None].items():
        walk(inode, root)
    return found
