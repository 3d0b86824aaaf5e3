# What a default certificate set is made of, and how: configuration files, openssl's arguments, the serial file.
import re, ssl

import pytest
from conftest import A

SSL = "/usr/opal/etc/ssl"
SERIAL, ADDRESS = f"{SSL}/.mkcert.serial", "/proc/sys/kernel/opal_mac_address1"


@pytest.mark.parametrize("function, arguments", [("genCACnf", []), ("genServerCnf", [["n"]])])
def test_a_configuration_file_is_whole_or_none_and_no_device(w, function, arguments):
    w.sh("mkdir /usr/opal/full; seq 200 > /usr/opal/old")
    for path in ("/usr/opal/deep/er/new", "/usr/opal/old"):
        assert w.call(function, path, *arguments) == 0 and not w.said.log
    w.ok("cd /usr/opal/deep/er; cmp new ../../old && stat -c %a . new", out="755\n644\n")
    # One that cannot be written whole is removed; what is no file stays, and is not waited for.
    w.tmpfs("/usr/opal/full", "size=4k")
    w.sh("cd /usr/opal/full; cat /dev/zero > fill 2>&1 || mkfifo fifo; mknod full c 1 7; mkdir folder")
    for name, answer in {"new": 0, "fifo": -1, "full": -1, "folder": -1}.items():
        assert w.call(function, f"/usr/opal/full/{name}", *arguments) == answer
        told = re.match(r"mkcert.cpp f?[Oo]pen \S+ failed\[0x0200 config", *w.said.log or [""])
        assert bool(answer) == bool(told)
    assert w.sh("ls /usr/opal/full") == "fifo\nfill\nfolder\nfull\n"


# The time, of ten digits, comes before the address's end. Made before 2001 or after 2038 it has nine, or a minus.
@pytest.mark.parametrize("address, serial", [
    ("001132a1b2c3\n", "Tb2c3\n1"), ("001132a1b2c3", "Tb2c3"), ("0011\n", "T"), ("0" * 40, f"T{'0' * 21}1"),
    ("001132a1b2c\n", "0Tb2c\n"), ("001132a1b-c", "0Tbc1\n"),
    ("", f"mkcert.cpp Fetch {ADDRESS} failed (Success)"),
    (None, f"mkcert.cpp Open {ADDRESS} failed (No such file or directory)"),
    ("x", f"mkcert.cpp Open {SERIAL} failed"),
])  # fmt: skip
def test_the_serial_file_is_made_in_a_form_that_openssl_reads(w, address, serial):
    w.sh(f"rm {ADDRESS}" if address is None else f"printf %s '{address}' > {ADDRESS}")
    w.sh(f"mkdir -p {SSL}" if address != "x" else ":")
    assert w.call("genSerialFile") == (-1 if "failed" in serial else 0)
    assert (w.said.log or [re.sub(r"1\d{9}", "T", open(SERIAL).read(), count=1)]) == [serial]


# openssl empties it while it writes, and some clocks and addresses once gave what it cannot read.
BAD = r"echo>|printf '\n12'>|echo 123>|echo -123>|echo xy>|printf 1>|seq -s 1 5000>|mkfifo|ln -s /dev/zero"


@pytest.mark.parametrize("scene, start", [
    ("echo 0A>", 0x0A), ("printf '1701\\n1'>", 0x1701), *[(scene, 0xB2C3) for scene in BAD.split("|")],
])  # fmt: skip
def test_a_serial_file_that_openssl_cannot_read_is_made_anew(w, scene, start):
    w.sh(f"mkdir -p {SSL}; {scene} {SERIAL}; openssl req -new -key c/privkey.pem -subj /CN=x -out /tmp/csr")
    files, numbers = ["/tmp/csr", f"{A}/c/cert.pem", "/tmp/out", f"{A}/c/privkey.pem"], []
    for _ in (1, 2):
        answer = w.call("genServerCrt", *files, 9, "kestrel;;10.0.0.1;fe80::1;1.2.3.4:80")
        assert answer == 0 and not w.said.log
        numbers.append(int(ssl._ssl._test_decode_cert("/tmp/out")["serialNumber"], 16))
    assert (numbers[0] - start) % 65536 in (0, 1) and numbers[1] == numbers[0] + 1
    line = 'subjectAltName = "DNS:kestrel, IP:10.0.0.1, IP:fe80::1, DNS:1.2.3.4:80"\n'
    assert w.sh(f"tail -n 1 {SSL}/cfg.d/server.crt.cfg") == line


LOOK = """for i in cert opal-ca-cert; do openssl x509 -in $i.pem -noout -text -nameopt RFC2253
    for s in 31622300 31622401; do openssl x509 -in $i.pem -noout -checkend $s; done; done | grep -oE \
    'Sign.*: sha.*|(Issuer|Subject): .*|[0-9]+ bit|DNS:.*|CA:T.*|.*expire|(mod_ssl|SSL|Digital|TLS) .*|crit.*' |
    sort | uniq -c | cut -c7-"""
PLACE = "O=Kestrel Inc.,L=Taipel,C=TW"
SEEN = f"""2 2048 bit\n1 CA:TRUE, pathlen:0\n2 Certificate will expire\n2 Certificate will not expire
1 DNS:kestrel\n1 Digital Signature, Key Encipherment\n2 Issuer: CN=Kestrel Inc. CA,{PLACE}
1 SSL CA\n1 SSL Server\n4 Signature Algorithm: sha256WithRSAEncryption
1 Subject: CN=Kestrel Inc. CA,{PLACE}\n1 Subject: CN=kestrel,{PLACE}
1 TLS Web Server Authentication, TLS Web Client Authentication\n1 critical
1 mod_ssl generated custom CA certificate\n1 mod_ssl generated custom server certificate\n"""
FILES = ".gen/server.csr .mkcert.serial cfg.d/ca.cfg cfg.d/ca.crt.cfg cfg.d/server.cfg cfg.d/server.crt.cfg"


def test_the_set_is_one_that_verifies(w):
    assert w.call("genDefaultCrtSet", "/tmp/s") == 0 and not w.said.log
    verify = "openssl verify -CAfile opal-ca-cert.pem -verify_hostname kestrel -purpose sslserver cert.pem"
    w.sh(f"cd /tmp/s; cmp cert.pem fullchain.pem && {verify}")
    assert w.sh(f"cd /tmp/s; {LOOK}") == SEEN
    assert w.sh(f"cd {SSL}; find . -type f | sort | cut -c3-").split() == [*FILES.split(), "ssl.csr/ca.csr"]
    made = {f"{name}.pem" for name in ("cert", "fullchain", "privkey", "opal-ca-cert", "opal-ca-privkey")}
    assert w.tree("/tmp/s") == dict.fromkeys(made, "-r-------- root root")


@pytest.mark.parametrize("crt, key, answer, log", [
    ("c/cert.pem", "c/privkey.pem", 0, []), ("c/cert.pem", "a/privkey.pem", 1, []),
    ("a/privkey.pem", "c/privkey.pem", -1, ["mkcert.cpp Failed to read cert from $A/a/privkey.pem"]),
    ("c/cert.pem", "a/cert.pem", -1, ["mkcert.cpp Failed to read private key from $A/a/cert.pem"]),
    ("c/cert.pem", "c/locked", -1, ["mkcert.cpp Failed to read private key from $A/c/locked"]),
])  # fmt: skip
def test_compares_keys_and_certificates(w, crt, key, answer, log):
    w.crt("a")
    w.sh("openssl pkey -aes128 -passout pass:x -in c/privkey.pem -out c/locked")
    plain = w.tree(A, content=True)
    for path in (A / crt, A / key):
        path.write_bytes(b"\xef\xbb\xbf" + path.read_bytes())
    assert w.call("checkCrtKeyMatch", f"{A}/{crt}", f"{A}/{key}") == answer and w.said.log == log
    assert w.tree(A, content=True) == plain
