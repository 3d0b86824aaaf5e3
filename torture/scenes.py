"""The runs that are tortured: how the disk is arranged, which command runs, and what it was meant to change."""

import os
import socket
import subprocess
from dataclasses import dataclass

from . import tree
from .tracer import Run

TOOL = os.environ['OPALCRT_TOOL_FOLDER']
VERBS = os.path.join(os.path.dirname(__file__), '..', 'tests', 'verbs.sh')
ARCHIVE = '/usr/opal/etc/certificate/_archive'
PACKAGES = '/usr/local/etc/certificate'
DEFINITIONS = '/usr/local/share/certificate.d'

# Service z of subscriber q is a stranger in every run: nothing of it may change.
COMMON = '''mkdir -p $A $P $D /usr/opal/share/certificate.d; cd $A; empty; crt c
opalmail() { sed -i s/opalweb/opalmail/ $D/q.cfg; }
define q z; opalmail; opalcrtregister q
jq '.c.desc = "known to somebody else"' INFO > I; cat I > INFO; rm I
'''


@dataclass
class Scene:
    name: str
    arrange: str
    definition: str  # dropped before every run of the command
    command: list
    services: tuple  # what the command works on
    registers: bool = True


SCENES = [
    Scene('first', '', 'define p a b', ['opalcrtregister', 'p'], ('a', 'b')),
    Scene('again', 'define p a; opalcrtregister p; crt c', 'define p a', ['opalcrtregister', 'p'], ('a',)),
    Scene('mend', 'define p a; opalcrtregister p; rm c/fullchain.pem', 'define p a', ['opalcrtregister', 'p'], ('a',)),
    Scene('unregister-one', 'define p a b; opalcrtregister p', ':', ['opalcrtunregister', 'p', 'a'], ('a',), False),
    Scene('unregister-all', 'define p a b; opalcrtregister p', ':', ['opalcrtunregister', 'p'], ('a', 'b'), False),
]


class Log:
    """Listens where syslog(3) sends to."""

    def __init__(self):
        self.lines = []
        if os.path.exists('/dev/log'):
            os.unlink('/dev/log')
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind('/dev/log')
        self.socket.setblocking(False)

    def drain(self):
        try:
            while True:
                self.lines.append(self.socket.recv(1 << 16).decode(errors='replace'))
        except BlockingIOError:
            pass

    def take(self):
        self.drain()
        lines, self.lines = self.lines, []
        return lines


    def close(self):
        self.socket.close()
        os.unlink('/dev/log')


def shell(text, log):
    process = subprocess.Popen(['/bin/bash', '-c', f'. {VERBS}\nset -e\n{text}'], stdout=subprocess.DEVNULL)
    while True:
        try:
            process.wait(0.002)
            break
        except subprocess.TimeoutExpired:
            log.drain()
    if process.returncode != 0:
        raise RuntimeError(f'the scene failed with {process.returncode}: {text}')
    log.take()


def arrange(scene, log):
    """The disk before the command, as a value."""
    shell('find /usr/opal /usr/local /tmp -xdev -mindepth 1 -delete\n' + COMMON + scene.arrange, log)
    shell(scene.definition, log)
    return tree.take()


def run(scene, log, enter=lambda number, call: None, left=None):
    """The command's exit status and what it logged."""
    traced = Run(tree.ROOTS + ('/tmp/',), enter, left, log.drain)
    status = traced.run([f'{TOOL}/{scene.command[0]}'] + scene.command[1:])
    return status, log.take()


def run_again(scene, log, definitions):
    """Drops the definition once more and runs the command by itself, as the administrator would."""
    for path, node in definitions.items():
        with open(path, 'wb') as file:
            file.write(node.content)
    process = subprocess.Popen([f'{TOOL}/{scene.command[0]}'] + scene.command[1:],
                               stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    while True:
        try:
            return process.wait(0.002), log.take()
        except subprocess.TimeoutExpired:
            log.drain()
