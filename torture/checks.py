"""What must hold after a run that was killed, that failed or whose disk forgot: each check answers with complaints."""

import functools
import json
import subprocess

from . import tree
from .scenes import ARCHIVE, DEFINITIONS, PACKAGES

OWNER = 64101  # opalweb
INFO, SERVICES = f'{ARCHIVE}/INFO', f'{ARCHIVE}/SERVICES'
SERVICE_FILES = {'cert.pem', 'privkey.pem', 'fullchain.pem', 'info'}
AUTHORITY_FILE = 'opal-ca-cert.pem'


@functools.lru_cache(maxsize=None)
def public_key(text, is_key):
    command = ['pkey', '-pubout'] if is_key else ['x509', '-pubkey', '-noout']
    done = subprocess.run(['/usr/bin/openssl', *command], input=text, capture_output=True)
    return done.stdout if done.returncode == 0 else None


def belong_together(cert, key, chain):
    return public_key(cert, False) is not None and public_key(cert, False) == public_key(key, True) and chain == cert


def below(flat, folder):
    return {path[len(folder) + 1:]: node for path, node in flat.items() if path.startswith(folder + '/')}


def content(flat, folder):
    """A folder as what its reader sees of it: no times, which a copy or a rename may change."""
    return {name: (node.kind, node.mode, node.uid, node.content) for name, node in below(flat, folder).items()}


def parsed(flat, book):
    """None when it is missing or does not parse; "null" would be no book either."""
    try:
        return json.loads(flat[book].content)
    except (KeyError, ValueError):
        return None


def is_whole(flat, folder):
    files = below(flat, folder)
    if folder not in flat or not SERVICE_FILES <= set(files) <= SERVICE_FILES | {AUTHORITY_FILE}:
        return False
    if flat[folder].mode != 0o755 or flat[folder].uid != 0:
        return False
    if any((node.mode, node.uid) != (0o400, OWNER) for name, node in files.items() if name != 'info'):
        return False
    if parsed(files, 'info') is None:
        return False
    return belong_together(*(files[name].content for name in ('cert.pem', 'privkey.pem', 'fullchain.pem')))


class Judge:
    """Knows the disk before a scene's command and after an undisturbed run of it."""

    def __init__(self, scene, old, new):
        self.scene = scene
        self.old, self.new = tree.flat(old), tree.flat(new)
        self.definitions = {path: node for path, node in self.old.items() if path.startswith(DEFINITIONS + '/')}

    def folder_of(self, service):
        return f'{PACKAGES}/p/{service}'

    def folder_state(self, flat, folder):
        if folder not in flat:
            return 'absent'
        if content(flat, folder) == content(self.old, folder) and is_whole(flat, folder):
            return 'old'
        if is_whole(flat, folder) and self.is_of_archive(flat, folder):
            return 'new'
        return 'part'

    def is_of_one_certificate(self, flat, folder):
        """Of what is there in part."""
        cert, key = (flat.get(f'{folder}/{name}') for name in ('cert.pem', 'privkey.pem'))
        return not cert or not key or public_key(cert.content, False) == public_key(key.content, True)

    def is_of_archive(self, flat, folder):
        cert = flat[f'{folder}/cert.pem'].content
        good = [each.get(path) for each, path in ((flat, f'{ARCHIVE}/c/cert.pem'), (self.new, f'{folder}/cert.pem'))]
        return any(node and node.content == cert for node in good)

    def after_stop(self, flat, is_sudden, in_removal):
        """After a kill, a failure or a power cut. `is_sudden`: nobody could roll anything back. `in_removal`: the stop
        fell on the program that removes folders, or what it has removed may have come back in part."""
        wrong = self.books(flat) + self.keys(flat) + self.archive(flat) + self.stranger(flat)
        for service in self.scene.services:
            folder = self.folder_of(service)
            state = self.folder_state(flat, folder)
            was_there = folder in self.old
            backup_holds = content(flat, folder + '.bak') == content(self.old, folder) != {}
            if state in ('old', 'new'):
                continue
            if not self.scene.registers:
                if state == 'absent' or (in_removal and self.is_of_one_certificate(flat, folder)):
                    continue
            elif state == 'absent' and (not was_there or (is_sudden and backup_holds)):
                continue
            elif is_sudden and in_removal and backup_holds and self.is_of_one_certificate(flat, folder):
                continue
            wrong.append(f'{folder} is {state}, its backup is {"whole" if backup_holds else "not whole"}')
        return wrong

    def after_success(self, flat):
        """When the command has answered 0: all is done."""
        wrong = []
        for service in self.scene.services:
            folder = self.folder_of(service)
            state = self.folder_state(flat, folder)
            if state != ('new' if self.scene.registers else 'absent'):
                wrong.append(f'answered 0, but {folder} is {state}')
        for book in (INFO, SERVICES):
            if parsed(flat, book) != parsed(self.new, book):
                wrong.append(f'answered 0, but {book} is not as it should be')
        mark = f'{ARCHIVE}/c/cert_info'
        if parsed(flat, mark) != parsed(self.new, mark):
            wrong.append('answered 0, but the certificate is not marked as it should be')
        return wrong

    def after_end(self, before, flat, status, allows):
        """After the command was run once more, undisturbed. `before`: what this run has found. `allows`: names that may
        stay although nobody asked."""
        listed = {each['service'] for each in self.ours(parsed(before, INFO) or {})}
        info_was_clean = not self.scene.registers and not listed & set(self.scene.services)
        wrong = self.after_stop(flat, False, info_was_clean)  # What it cannot find any more stays.
        if status != 0 and not info_was_clean:
            return wrong + [f'the next run answers {status}']
        if status == 0:
            wrong += self.after_success(flat)
        for path in sorted(flat.keys() - self.new.keys() - self.definitions.keys()):
            if info_was_clean and path.startswith(PACKAGES + '/p'):
                continue
            if not path.startswith(allows):
                wrong.append(f'{path} stays behind')
        return wrong

    def books(self, flat):
        wrong = []
        for book in (INFO, SERVICES):
            now, old, new = (parsed(each, book) for each in (flat, self.old, self.new))
            if now is None:
                wrong.append(f'{book} does not parse')
                continue
            if flat[book].mode & 0o022:
                wrong.append(f'{book} has mode {flat[book].mode:o}')
            if self.without_ours(now) != self.without_ours(old):
                wrong.append(f'{book} has lost what is not of this run')
            ours = self.ours(now)
            names = [each['service'] for each in ours]
            if len(names) != len(set(names)):
                wrong.append(f'{book} lists a service twice')
            good = [self.ours(old), self.ours(new)]
            if book == INFO and self.scene.name == 'first':  # It is written after each service, and one may fail.
                good += [[each] for each in good[1]]
            if ours not in good:
                wrong.append(f'{book} lists neither the old nor the new services')
        return wrong

    def lists(self, book):
        return [entry['services'] for entry in book.values()] if isinstance(book, dict) else [book]

    def ours(self, book):
        return [each for services in self.lists(book) for each in services if each['subscriber'] == 'p']

    def without_ours(self, book):
        book = json.loads(json.dumps(book))
        for services in self.lists(book):
            services[:] = [each for each in services if each['subscriber'] != 'p']
        return book

    def keys(self, flat):
        return [f'{path} has mode {node.mode:o}' for path, node in flat.items()
                if b'PRIVATE KEY' in node.content and node.mode & 0o077]

    def archive(self, flat):
        """A folder that has all the files is taken for a good certificate by the next run."""
        files = below(flat, ARCHIVE + '/c')
        needed = [files.get(name) for name in ('cert.pem', 'privkey.pem', 'fullchain.pem')]
        if all(needed) and not belong_together(*(node.content for node in needed)):
            return ['the certificate looks whole and is not']
        return []

    def stranger(self, flat):
        folder = f'{PACKAGES}/q/z'
        return [] if content(flat, folder) == content(self.old, folder) else [f'{folder} is touched']
