"""What a registration does, seen by strace."""

import collections
import itertools
import re
import subprocess

SHARED = ("rename(", "fsync(", "fchown(", "fchmod(")


def trace(command):
    """The system calls of the process itself, and the programs that it starts, in order."""
    subprocess.run(["strace", "-f", "-y", "-s", "200", "-o", "/tmp/trace", *map(str, command)], check=True,
                   stdout=subprocess.DEVNULL)
    with open("/tmp/trace") as file:
        lines = [line.rstrip("\n").split(None, 1) for line in file]
    own = [text for process, text in lines if process == lines[0][0] and re.match(r"\w+\(", text)]
    programs = [re.search(r"\[.*\]", text)[0] for _, text in lines if text.startswith("execve(")]
    return own, programs[1:]


def difference(one, other):
    """The first place where two traces differ in programs, renames, modes, owners or syncs; None when nowhere."""
    def shared(own):  # "fsync(5</usr/local>) = 0" becomes "fsync(</usr/local>)"
        return [re.sub(r"^(\w+\()\d+", r"\1", re.sub(r"\s+=.*", "", text)) for text in own if text.startswith(SHARED)]

    pairs = itertools.chain(itertools.zip_longest(shared(one[0]), shared(other[0])),
                            itertools.zip_longest(one[1], other[1]))
    return next((pair for pair in pairs if pair[0] != pair[1]), None)


def count_calls(own, programs):
    """Calls from the first thing that is ours on, without the loading of the program and its libraries."""
    start = next(at for at, text in enumerate(own) if text.startswith("fcntl(0"))
    names = collections.Counter(text.split("(")[0] for text in own[start:])
    synced = collections.Counter(re.search(r"<(.*)>", text)[1] for text in own if text.startswith("fsync("))
    return {"calls": sum(names.values()), "loading": start, "syncs": names["fsync"], "children": len(programs),
            "names": dict(names.most_common()), "synced": dict(synced)}
