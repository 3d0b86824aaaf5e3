#!/usr/bin/python3
"""Clients that connect to a TLS server without a pause while its certificate is changed again and again.

    clients.py PORT CA_FILE SERVICES_FILE CHANGE_PROGRAM CHANGES

The certificates are c00, c01, ...; the server starts with c00. Every change must reach all clients within 10 seconds.
A connection fails when it is refused or cut, when the answer is not the server's, when the handshake fails (as it
does when a certificate comes without its key), or when the certificate is of the wrong key type or not yet given out.
"""

import collections
import os
import re
import socket
import ssl
import subprocess
import sys
import threading
import time

PATIENCE = 10
PAUSE = 0.5  # after each change, in which the server's old workers end
RSA, ECC = "ECDHE-RSA-AES128-GCM-SHA256", "ECDHE-ECDSA-AES128-GCM-SHA256"
# What each client offers, and the key types that it may get for that.
OFFERS = {"RSA": (RSA, ["RSA"]), "ECC": (ECC, ["ECC"]), "TLS 1.3": (None, ["RSA", "ECC"])}

port, ca_file, services_file, change_program, changes = sys.argv[1:]
given = 0  # the number of the last certificate that the server may have by now
stopped = threading.Event()
handshakes = collections.Counter()
seen = dict.fromkeys(OFFERS, -1)  # the number of the certificate that a client got last
served = collections.Counter()
failures = []
log = []


def context_for(cipher):
    context = ssl.create_default_context(cafile=ca_file)
    if cipher is None:
        context.minimum_version = ssl.TLSVersion.TLSv1_3
    else:
        context.maximum_version = ssl.TLSVersion.TLSv1_2
        context.set_ciphers(cipher)
    return context


def connect(context, key_types):
    """One connection; the number of the certificate and its key type."""
    with socket.create_connection(("127.0.0.1", int(port)), timeout=PATIENCE) as plain:
        with context.wrap_socket(plain, server_hostname="kestrel") as connection:
            subject = dict(name[0] for name in connection.getpeercert()["subject"])
            connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
            answer = b""
            while piece := connection.recv(4096):
                answer += piece
    number, key_type = int(subject["commonName"][1:]), subject["organizationName"]
    if not answer.endswith(b"\r\n\r\nwhat shop serves\n"):
        raise ValueError(f"answer {answer!r}")
    if key_type not in key_types or number > given:
        raise ValueError(f"certificate c{number:02} {key_type} while c{given:02} is the last one given")
    return number, key_type


def client(name):
    cipher, key_types = OFFERS[name]
    context = context_for(cipher)
    while not stopped.is_set():
        try:
            number, key_type = connect(context, key_types)
        except (OSError, ValueError) as error:
            failures.append(f"{name}, after change {given}: {type(error).__name__} {error}")
            continue
        handshakes[name] += 1
        served[key_type] += 1
        seen[name] = number


def listen_to_log():
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    listener.bind("/dev/log")
    while True:
        log.append(re.sub(r"^<\d+>", "", listener.recv(65536).decode(errors="replace")))


def wait_until_seen(number):
    end = time.monotonic() + PATIENCE
    while any(last < number for last in seen.values()):
        if time.monotonic() > end:
            return False
        time.sleep(0.005)
    return True


def make_changes():
    """The seconds that each change took until all clients had the new certificate; None for one that failed."""
    global given
    if not wait_until_seen(0):
        return [None]
    times = []
    for number in range(1, int(changes) + 1):
        start = time.monotonic()
        given = number
        command = [change_program, f"c{number:02}", f"c{number - 1:02}", services_file, "0"]
        is_good = subprocess.run(command, check=False).returncode == 0
        times.append(time.monotonic() - start if is_good and wait_until_seen(number) else None)
        if times[-1] is None:
            break
        time.sleep(PAUSE)
    return times


if not os.path.exists("/run/opalcrt-world"):
    sys.exit("clients.py is for worlds only")
threading.Thread(target=listen_to_log, daemon=True).start()
threads = [threading.Thread(target=client, args=[name]) for name in OFFERS]
for thread in threads:
    thread.start()
times = make_changes()
stopped.set()
for thread in threads:
    thread.join()
complaints = [line for line in log if "Reload opalrelayd failed." not in line]

made = [seconds for seconds in times if seconds is not None]
print(f"changes made: {len(made)} of {changes}")
if made:
    print(f"seconds from the start of a change until every client had it: {min(made):.2f} to {max(made):.2f}")
print(f"handshakes made: {handshakes.total()} (" + ", ".join(f"{n}: {handshakes[n]}" for n in OFFERS) + ")")
print("certificates served: " + ", ".join(f"{key_type}: {served[key_type]}" for key_type in ("RSA", "ECC")))
print(f"failures: {len(failures)}")
for line in failures[:20] + complaints[:20]:
    print("  " + line)
is_good = len(made) == int(changes) and not failures and not complaints and served["RSA"] and served["ECC"]
sys.exit(0 if is_good else 1)
