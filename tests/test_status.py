# What the administrator's command tells: a healthy store, and each finding of status, made by a real fault.
import functools, json, re, subprocess, tempfile
from pathlib import Path

import pytest
from conftest import D, P, ROW, S

# A root, a CA below it (mid), and what they sign: name of .pem and .key, issuer, first and last day, kind.
MAKE = r"""
printf '[d]\ndatabase=index\npolicy=p\nrand_serial=yes\nunique_subject=no\ncopy_extensions=copy\n[p]\ncommonName=supplied\n' >cfg
: >index; day() { date -u -d "$1 days" +%Y%m%d%H%M%SZ; }
sign() { by="-cert $2.pem -keyfile $2.key"; [ $1 != $2 ] || by="-selfsign -keyfile $1.key"
    openssl ca -batch -notext -config cfg -name d -md sha256 -outdir . $by \
        -startdate $(day $3) -enddate $(day $4) -in csr -out $1.pem; }
make() { openssl req -newkey ${6-ec -pkeyopt ec_paramgen_curve:P-256} -nodes -keyout $1.key -subj /CN=$1 \
        -out csr -addext subjectAltName=DNS:kestrel -addext basicConstraints=critical,CA:${5-false}; sign "$@"; }
make root root -9 999 true; make mid root -9 999 true; make good root -9 99; make leaf mid -9 99
make own own -9 999 true; sign cross root -9 999; make new own -9 99; make bad good -9 99
make rsa mid -9 99 false rsa:2048; make ended root -9 -1; make future root 1 99; make soon root -9 9
openssl pkey -aes128 -passout pass:x -in leaf.key -out locked.key; truncate -s 1048577 big
openssl genpkey -algorithm ed25519 -out ed.key; head -c 300 leaf.pem >cut; printf %s "$(cat leaf.pem)" >bare
cat root.pem leaf.key bare mid.pem | sed 's/$/\r/' >all"""
PUT = """put() (cd ${2-c} && tee cert.pem <$ROW/$1.pem >fullchain.pem && cat $ROW/$1.key >privkey.pem)
edit() { jq -c "$2" $1 >$ROW/book; cat $ROW/book >$1; }\n"""
DONE = "p/web: has c; its hook ended with 0\np/mail: has c; its hook ended with 0\n"


@functools.cache  # once for each worker
def certificates():
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["sh", "-ec", MAKE], cwd=folder, check=True, capture_output=True)
        return {path.name: path.read_bytes() for path in Path(folder).iterdir()}


# A healthy store: the self-made certificate c has two services of p, whose hook ends with what $ROW/end says.
@pytest.fixture
def store(w):
    for name, content in certificates().items():
        (ROW / name).write_bytes(content)
    w.sh(f"{PUT} put good; cp $ROW/root.pem c/opal-ca-cert.pem; echo 0 >$ROW/end")
    w.define("p", {"service": "web", "display_name": "The web", "multiple_cert": True}, "mail")
    w.sh("opalcrtregister p")
    w.replace("/usr/bin/systemctl", "echo $* >>/run/row/ran")
    (D / "p").write_text("#!/bin/sh\necho hook $1 >>/run/row/ran; exit $(cat /run/row/end)\n")
    (D / "p").chmod(0o755)
    return w


# Everything that a look could change, but the time of the last look; and what an administrator cares about.
def every_bit(w):
    return w.sh(r"find $S $P $D /tmp -xdev -printf '%p %i %M %n %U %G %s %T@ %C@\n' | sort")


def stores(w):
    return [w.tree(top, content=True) for top in (S, P)]


# The findings' codes, those of critical ones in capitals.
def codes(report):
    found = re.findall('"code": "([^"]*)", "severity": "([^"]*)"', json.dumps(report))
    return sorted(code.upper() if severity == "critical" else code for code, severity in found)


def status(w, arguments=""):
    before, command = every_bit(w), f"opalcrt status {arguments}"
    said = w.run(f"{command} >$ROW/text & {command} --json; s=$?; wait $!; exit $s")
    assert every_bit(w) == before and not said.log and re.fullmatch('{"format":1,.*}\n', said.out)
    return said.status, json.loads(said.out), (ROW / "text").read_text()


def test_status_tells_what_there_is(store):
    store.sh("mkdir .n.new $P/p/api.temp")  # as a run makes them that is under way
    ended, report, text = status(store)
    (crt,) = report.pop("certificates")
    assert ended == 0 and report == {"format": 1, "worst": "ok", "findings": []}
    assert 98.9 * 86400 < crt.pop("seconds_left") <= 99 * 86400
    look = "openssl x509 -in c/cert.pem -noout -dates -dateopt iso_8601 -fingerprint -sha256"
    begin, end, digest = re.findall("=(.*)", store.sh(look).replace(" ", "T"))
    same = {"subscriber": "p", "state": "current", "findings": []}
    services = [{**same, "service": name, "folder": f"{P}/p/{name}"} for name in ("web", "mail")]
    seen = {"not_before": begin, "not_after": end, "sha256": digest.replace(":", "").lower()}
    names = dict(id="c", default=True, self_made=True, subject="CN=good", names=["kestrel"], findings=[])
    assert crt == {**names, **seen, "services": services}
    head = f"ok: 1 certificates, 2 services\nc: default, self-made, CN=good, for kestrel, ends {end}, "
    tail = f" days left\n  p/web: current, {P}/p/web\n  p/mail: current, {P}/p/mail\n"
    assert text in (f"{head}98{tail}", f"{head}99{tail}")
    assert status(store, "--days 100 c")[0] == 1 and status(store, "c")[0] == 0


# fmt: off
CRT_FAULTS = [  # In the folder of a certificate that no service has
    ("put ended .", "EXPIRED"), ("put future .", "NOT-YET-VALID"), ("put soon .", "expires-soon"),
    ("rm privkey.pem", "INCOMPLETE"), ("rm -r $PWD", "INCOMPLETE"), ("echo x >cert.pem", "UNREADABLE"),
    ("rm cert.pem; mkfifo cert.pem", "UNREADABLE"), ("cat $ROW/locked.key >privkey.pem", "UNREADABLE"),
    ('printf %s "$(cat $ROW/mid.pem)" | cat cert.pem - $ROW/root.pem >fullchain.pem', "UNREADABLE"),
    ("cat $ROW/leaf.key >privkey.pem", "KEY-MISMATCH"), ("cat $ROW/mid.pem >fullchain.pem", "CHAIN-MISMATCH"),
    ("echo '{\"is_broken\": true}' >cert_info", "mended"), ("touch .mending", "mend-unfinished"),
    ("echo '{\"key_types\": \"ECC\"}' >renew.json", "mended-for-ever"),
    ("mv $PWD $S/n; ln -s $S/n $PWD", "mended-for-ever"),
]
FAULTS = [  # The services' copies are old where the archive's folder was changed.
    ("rm -r c", "DEFAULT-UNUSABLE INCOMPLETE old-copy old-copy"),
    ("rm DEFAULT SERVICES; mkdir .c.new $P/p/o", "BOOK-BROKEN DEFAULT-UNUSABLE orphan-folder orphan-folder"),
    ("rm INFO; mkfifo INFO", "BOOK-BROKEN DEFAULT-UNUSABLE" + " not-in-info" * 2 + " orphan-folder" * 3),
    ("cd $P/p; rm -r web; cat $ROW/leaf.key >mail/privkey.pem", "COPY-MISMATCH COPY-MISSING old-copy"),
    ("cd $P/p; rm web/privkey.pem; chown opalmail mail/*", "COPY-EXPOSED COPY-MISSING old-copy"),
    ("put ended $P/p/web; chmod 440 $P/p/mail/*", "COPY-EXPOSED EXPIRED old-copy"),
    ("cat $ROW/leaf.key | tee $P/p/*/privkey.pem >c/privkey.pem", "COPY-MISMATCH COPY-MISMATCH KEY-MISMATCH"),
    ("cat $ROW/mid.pem | tee $P/p/*/fullchain.pem >c/fullchain.pem", "CHAIN-MISMATCH"),
    ("cp -a c d; edit INFO '.d.services = [.c.services[0]]'", "listed-twice listed-twice"),
    ("rm c/opal*; edit SERVICES '.[:1] + [{service: \"x\", subscriber: \"p\"}]'",
     "not-in-info not-in-services old-copy old-copy"),
    ("edit INFO '.c.services += [{subscriber: \"p\", service: 5}]'; edit SERVICES '. + [6]'",
     "BOOK-BROKEN BOOK-BROKEN"),
    ("edit INFO '.d = 5'; sed -i 's/\"d\"/\"\\xff\\x1b[\"/' INFO", "BOOK-BROKEN"),
]
# fmt: on


def test_status_finds_what_is_wrong_with_a_certificate(store):
    for at, (fault, _) in enumerate(CRT_FAULTS):
        store.sh(f"{PUT} mkdir n{at}; put good n{at}; edit INFO '.n{at}.services = []'; cd n{at}; {fault}")
    ended, report, _ = status(store)
    found = {crt["id"]: codes(crt) for crt in report.pop("certificates")}
    assert found == {"c": []} | {f"n{at}": right.split() for at, (_, right) in enumerate(CRT_FAULTS)}
    assert ended == 2 and report == {"format": 1, "worst": "critical", "findings": []}


@pytest.mark.parametrize("fault, found", FAULTS)
def test_status_finds(store, fault, found):
    # What is younger may belong to a registration under way.
    store.sh(f"{PUT} set -e; {fault}; find $A $P/p -maxdepth 1 -exec touch -hd '9 minutes ago' {{}} +")
    ended, report, text = status(store)
    worst = (2, "critical") if found[0].isupper() else (1, "warning")
    assert codes(report) == found.split() and (ended, report["worst"]) == worst
    assert text.startswith(f"{worst[1]}: ") and "\x1b" not in text
    assert all(f"{code}: " in text for code in found.lower().split())
