"""The stores that are measured, on the tool's real paths, in a world of their own."""

import functools
import json
import os
import pathlib
import pwd
import shutil
import subprocess

SYSTEM = pathlib.Path("/usr/opal/etc/certificate")
ARCHIVE = SYSTEM / "_archive"
PACKAGES = pathlib.Path("/usr/local/etc/certificate")
DEFINITIONS = pathlib.Path("/usr/local/share/certificate.d")


@functools.cache
def certificate():
    """The key and the certificate that all folders of the archive get."""
    folder = pathlib.Path("/tmp")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "99", "-subj",
                    "/CN=bench", "-keyout", folder / "key.pem", "-out", folder / "cert.pem"], check=True, capture_output=True)
    return (folder / "key.pem").read_text(), (folder / "cert.pem").read_text()


def clear():
    for folder in (SYSTEM, PACKAGES, DEFINITIONS, pathlib.Path("/usr/opal/share/certificate.d")):
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
    for lock in pathlib.Path("/tmp").glob("*.lock"):
        lock.unlink()
    add_certificate("factory")


def add_certificate(name):
    key, cert = certificate()
    folder = ARCHIVE / name
    folder.mkdir(parents=True)
    (folder / "privkey.pem").write_text(key)
    (folder / "cert.pem").write_text(cert)
    (folder / "fullchain.pem").write_text(cert)


def service(number):
    return {"display_name": f"The service {number}", "isPkg": True, "owner": "opalweb", "service": f"s{number}",
            "subscriber": f"p{number}"}


def write_books(info, services):
    (ARCHIVE / "DEFAULT").write_text("factory\n")
    (ARCHIVE / "INFO").write_text(json.dumps(info, indent="\t") + "\n")
    (ARCHIVE / "SERVICES").write_text(json.dumps(services, indent="\t") + "\n")


def list_others(count):
    """Books that list this many services of other packages; p has none and no folder."""
    shutil.rmtree(PACKAGES / "p", ignore_errors=True)
    others = [service(number) for number in range(count)]
    write_books({"factory": {"services": others}}, others)


def add_copy(one):
    """The folder of a service, as a deployment leaves it."""
    folder, owner = PACKAGES / one["subscriber"] / one["service"], pwd.getpwnam(one["owner"])
    shutil.copytree(ARCHIVE / "factory", folder)
    for path in folder.iterdir():
        path.chmod(0o400)
        os.chown(path, owner.pw_uid, owner.pw_gid)
    paths = {"cert": f"{folder}/cert.pem", "key": f"{folder}/privkey.pem", "chain": f"{folder}/fullchain.pem"}
    names = {name: one[name] for name in ("subscriber", "service")}
    (folder / "info").write_text(json.dumps({**names, "certs": [paths]}))


def list_certificates(count, services, copies=False):
    """Certificates with some services each; returns the lines "ID SUBSCRIBER SERVICE". With `copies` the services
    have their folders."""
    clear()
    info, lines = {"factory": {"services": []}}, []
    for number in range(count):
        name = f"c{number:05}"
        add_certificate(name)
        info[name] = {"services": [service(number * services + place) for place in range(services)]}
        lines += [f"{name} {one['subscriber']} {one['service']}\n" for one in info[name]["services"]]
    listed = [one for entry in info.values() for one in entry["services"]]
    for one in listed if copies else ():
        add_copy(one)
    write_books(info, listed)
    return lines


def drop_definition(count):
    services = [{"service": f"s{number}", "display_name": f"The service {number}"} for number in range(count)]
    (DEFINITIONS / "p.cfg").write_text(json.dumps({"owner": "opalweb", "isPkg": True, "services": services}))
