"""Many at once: sixteen processes register, repeat, unregister and report over eight subscribers and are killed at
random, while somebody reads both books all the time."""

import fcntl
import glob
import json
import os
import random
import subprocess
import threading
import time

from . import tree
from .checks import INFO, SERVICES, is_whole
from .scenes import ARCHIVE, COMMON, DEFINITIONS, PACKAGES, TOOL, Log, shell

SHARED = [f's{number}' for number in range(4)]  # many work on them at once: whatever is listed is right
OWNED = [f's{number}' for number in range(4, 8)]  # one works on each and knows what the books must say
WORKERS = [(OWNED[i % 4], True) for i in range(4)] + [(SHARED[i % 4], False) for i in range(8)]
REPORTERS = 4
NAMES = ('a', 'b')


class Crowd:
    def __init__(self, seconds):
        self.end = time.monotonic() + seconds
        self.wrong = []
        self.done = {}

    def complain(self, text):
        self.wrong.append(text)

    def is_going_on(self):
        return time.monotonic() < self.end and len(self.wrong) < 20

    def count(self, what):
        self.done[what] = self.done.get(what, 0) + 1


def books():
    """Both books as {(subscriber, service): how often}, or what is wrong with them."""
    lists = []
    for book in (INFO, SERVICES):
        with open(book, 'rb') as file:
            value = json.load(file)
        found = {}
        for services in [each['services'] for each in value.values()] if isinstance(value, dict) else [value]:
            for each in services:
                key = (each['subscriber'], each['service'])
                found[key] = found.get(key, 0) + 1
        lists.append(found)
    return lists


def check_books(crowd):
    try:
        for book, listed in zip((INFO, SERVICES), books()):
            if ('q', 'z') not in listed:
                crowd.complain(f'{book} has lost the stranger')
            for key, times in listed.items():
                if times > 1:
                    crowd.complain(f'{book} lists {key} {times} times')
    except (ValueError, OSError) as error:
        crowd.complain(f'a book cannot be read: {error!r}')


def watch(crowd):
    while crowd.is_going_on():
        check_books(crowd)
        crowd.count('looks at both books')


def define(subscriber):
    services = [{'service': name, 'display_name': f'The {name}'} for name in NAMES]
    text = json.dumps({'owner': 'opalweb', 'isPkg': True, 'services': services})
    fresh = f'{DEFINITIONS}/{subscriber}.{threading.get_ident()}'
    with open(fresh, 'w') as file:
        file.write(text)
    os.rename(fresh, f'{DEFINITIONS}/{subscriber}.cfg')


def start(crowd, command, *arguments, may_kill=True, chance=random):
    """The exit status and the output; None when it was killed."""
    process = subprocess.Popen([f'{TOOL}/{command}', *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    if may_kill and chance.random() < 0.3:
        time.sleep(chance.random() * 0.15)
        process.kill()
    output = process.communicate()[0]
    crowd.count(f'{command}, ' + {0: 'done', 1: 'refused'}.get(process.returncode, 'killed'))
    if process.returncode not in (0, 1, -9):
        crowd.complain(f'{command} ended with {process.returncode}')
    return (None if process.returncode == -9 else process.returncode), output


def work(crowd, subscriber, is_alone, chance):
    known = None  # what the books must list, once a command has said that it did its work
    while crowd.is_going_on():
        names = chance.choice([(), ('a',), ('b',)])
        registers = chance.random() < 0.6
        if registers:
            define(subscriber)
        status, _ = start(crowd, 'opalcrtregister' if registers else 'opalcrtunregister', subscriber, *names,
                          chance=chance)
        if not is_alone:
            continue
        touched = set(names or NAMES)
        if status == 0 and known is not None:
            known = known | touched if registers else known - touched
        elif status == 0 and not names:
            known = set(NAMES) if registers else set()
        else:
            known = None
        check_own(crowd, subscriber, known)


def check_own(crowd, subscriber, known):
    if known is None:
        return
    try:
        for book, listed in zip((INFO, SERVICES), books()):
            mine = {service for name, service in listed if name == subscriber}
            if mine != known:
                crowd.complain(f'{book} lists {sorted(mine)} of {subscriber}, but {sorted(known)} was answered')
    except (ValueError, OSError) as error:
        crowd.complain(f'a book cannot be read: {error!r}')
    for service in known:
        folder = f'{PACKAGES}/{subscriber}/{service}'
        if not is_whole(tree.flat(tree.take([folder])), folder):
            crowd.complain(f'{subscriber}/{service} was answered for, and is not whole')


def report(crowd, chance):
    while crowd.is_going_on():
        status, output = start(crowd, 'opalcrtchecksum', chance=chance)
        if status == 0:
            try:
                json.loads(output)
            except ValueError:
                crowd.complain(f'the report is no JSON: {output[:200]!r}')
        elif status == 1 and output:
            crowd.complain(f'a failed report has printed {output[:200]!r}')


def settle(crowd):
    """No lock is left, and one quiet run for each subscriber brings books and folders to agree."""
    for path in glob.glob('/tmp/*.lock'):
        with open(path) as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                crowd.complain(f'{path} is still held')
    for subscriber in SHARED + OWNED:
        define(subscriber)
        if start(crowd, 'opalcrtregister', subscriber, may_kill=False)[0] != 0:
            crowd.complain(f'the quiet run for {subscriber} fails')
    check_books(crowd)
    wanted = {(subscriber, name) for subscriber in SHARED + OWNED for name in NAMES} | {('q', 'z')}
    flat = tree.flat(tree.take())
    for book, listed in zip((INFO, SERVICES), books()):
        if set(listed) != wanted:
            crowd.complain(f'{book} does not list what was registered last: {sorted(set(listed) ^ wanted)}')
    for subscriber, name in wanted - {('q', 'z')}:
        if not is_whole(flat, f'{PACKAGES}/{subscriber}/{name}'):
            crowd.complain(f'the folder of {subscriber}/{name} is not whole')
    for path in flat:
        if path.startswith((PACKAGES, ARCHIVE)) and path.endswith(('.temp', '.bak', '.new', '.held')):
            crowd.complain(f'{path} stays behind')


class Member(threading.Thread):
    def __init__(self, crowd, does, *arguments):
        super().__init__()
        self.crowd, self.does, self.arguments = crowd, does, arguments

    def run(self):
        try:
            self.does(self.crowd, *self.arguments)
        except Exception as error:  # One that falls over silently would look like one that found nothing.
            self.crowd.complain(f'{self.does.__name__} fell over: {error!r}')


def main(seconds, seed):
    log = Log()
    shell('find /usr/opal /usr/local /tmp -xdev -mindepth 1 -delete\n' + COMMON, log)
    crowd = Crowd(seconds)
    members = [Member(crowd, watch)]
    for number, (subscriber, is_alone) in enumerate(WORKERS):
        members.append(Member(crowd, work, subscriber, is_alone, random.Random(seed * 100 + number)))
    for number in range(REPORTERS):
        members.append(Member(crowd, report, random.Random(seed * 100 + 50 + number)))
    for member in members:
        member.start()
    while any(member.is_alive() for member in members):
        log.drain()
        time.sleep(0.001)
    log.close()  # A full socket would hold up the quiet runs.
    settle(crowd)
    print(json.dumps({'scene': 'crowd', 'kind': 'crowd', 'point': seed, 'call': ', '.join(
        f'{times} {what}' for what, times in sorted(crowd.done.items())), 'wrong': crowd.wrong}), flush=True)
