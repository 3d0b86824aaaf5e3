# What the default certificate set is made of: configuration files, openssl's arguments, the serial file, the set itself.
import re
import ssl

import pytest
from conftest import A, ROW

SSL = "/usr/opal/etc/ssl"
SERIAL, ADDRESS = f"{SSL}/.mkcert.serial", "/proc/sys/kernel/opal_mac_address1"
CSR = """[ req ]
default_bits                    = 1024
distinguished_name              = req_DN
prompt                          = no
[ req_DN ]
"""
SUBJECT = """countryName                     = 'c'
stateOrProvinceName             = 's'
localityName                    = 'l'
0.organizationName              = 'o'
organizationalUnitName          = 'u'
commonName                      = 'it's'
emailAddress                    = 'e'
"""
CA = """extensions = x509v3
[ x509v3 ]
subjectAltName   = email:copy
basicConstraints = CA:true,pathlen:0
nsComment        = "mod_ssl generated custom CA certificate"
nsCertType       = sslCA
"""
SERVER = """extensions = x509v3
[ x509v3 ]
subjectAltName   = email:copy
nsComment        = "mod_ssl generated custom server certificate"
nsCertType       = server
keyUsage         = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth, clientAuth
"""
ALIASES = ["", "kestrel", "", "192.168.1.5", "fe80::1", "1.2.3.4:80", "*.x"]
NAMES = 'subjectAltName = "DNS:kestrel, IP:192.168.1.5, IP:fe80::1, DNS:1.2.3.4:80, DNS:*.x"\n'


@pytest.mark.parametrize(
    "function, arguments, text",
    [
        ("modifyCsrCfg", [["c", "s", "l", "o", "u", "it's", "e"]], CSR + SUBJECT),
        ("modifyCsrCfg", [["", "", "", "", "", "it's"]], CSR + SUBJECT.splitlines(True)[5]),
        ("genCACnf", [], CA),
        ("genServerCnf", [["", ""]], SERVER),
        ("genServerCnf", [ALIASES], SERVER + NAMES),
    ],
)
def test_configuration_files_byte_for_byte(w, function, arguments, text):
    w.sh("umask 0; mkdir /usr/opal/full; echo longer than it was > /usr/opal/old")
    for path in ("/usr/opal/deep/er/new", "/usr/opal/old"):
        assert w.call(function, path, *arguments) == 0 and not w.said.log
        assert w.sh(f"cat {path}") == text
    assert w.sh("umask 0; stat -c %a /usr/opal/deep/er /usr/opal/deep/er/new") == "755\n644\n"
    # One that cannot be written whole is removed; what is no file stays, and is not waited for.
    w.tmpfs("/usr/opal/full", "size=4k")
    w.sh("cd /usr/opal/full; cat /dev/zero > fill 2>/dev/null || mkfifo fifo; mknod null c 1 3; mkdir folder")
    for name, answer in {"new": 0, "fifo": -1, "null": -1, "folder": -1}.items():
        assert w.call(function, f"/usr/opal/full/{name}", *arguments) == answer
        assert w.said.log == [] or re.match(r"mkcert.cpp f?[Oo]pen \S+ failed\[0x", w.said.log[0])
    assert w.sh("ls /usr/opal/full") == "fifo\nfill\nfolder\nnull\n"


NONE = ["", "", "", "", "", ""]


def crt(ca="/tmp/ca", serial="", out="", key="/tmp/f", csr="/tmp/f", days=1):
    return "genCrt", "/tmp/e", csr, ca, serial, out, key, not out, days, "kestrel"


@pytest.mark.parametrize(
    "call, line",
    [
        (("genDirectory", ""), "Failed to generate directory with invalid parameters"),
        (("modifyCsrCfg", "", NONE), "modifyCsrCfg sanity failed.[0x"),
        (("genCACnf", None), "CA CNF name is null or empty.[0x"),
        (("genServerCnf", None, []), "Server CNF name is null or empty.[0x"),
        (("genServerCnf", "/tmp/x", None), "alias list is null"),
        (("genCACnf", "/tmp/f/x"), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp generate directory failed"),
        (("genKey", "/tmp/k", 0), "Failed to genKey with invalid parameters"),
        (("genKey", "/tmp/f/k", 9), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp Failed to generate directory for /tmp/f/k"),
        (("genKey", "/tmp/d", 512), "Error when execute"),
        (("genKey", "/tmp/p", 512), "Error when execute"),
        (("genCsr", "/tmp/x", "/tmp/f", "/tmp/c", None), "Failed to generate csr with invalid paramters"),
        (("genCsr", "/tmp/x", "/tmp/none", "/tmp/c", NONE), "Key is not existed"),
        (("genCsr", "/tmp/d", "/tmp/f", "/tmp/c", NONE), "Open /tmp/d failed[0x0200 config_files.cpp:"),
        (("genCsr", "/tmp/x", "/tmp/f", "/tmp/p", NONE), "Create CSR failed, command"),
        (crt(days=0), "genCrt params invalid"),
        (crt(csr="/tmp/none"), "Csr is not existed"),
        (crt(key="/tmp/none"), "Key is not existed"),
        (crt(out="/tmp/o"), "genCrt params invalid"),
        (crt(out="/tmp/o", serial="/tmp/none"), "Serial file is not existed"),
        (crt(ca="/tmp/f/ca"), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp generate directory failed"),
        (crt(ca="/tmp/p"), "Error when execute"),
        (("genDefaultCrtSet", ""), "Invalid paramter []\nmkcert.cpp Generate CA key & crt failed"),
    ],
)  # fmt: skip
def test_what_cannot_be_made_is_told(w, call, line):
    w.sh("mkdir -p /tmp/d; touch /tmp/f; mkfifo /tmp/p")
    assert w.call(*call) == -1 and w.said.logged("mkcert.cpp " + line)
    assert (
        w.sh("ls /tmp; ls /tmp/d").startswith("d\n")
        and w.sh("stat -c %s%F /tmp/f /tmp/p").split("\n")[1] == "0fifo"
    )


# ADDRESS's end follows the time, which has ten digits for 260 years to come; openssl reads an even number of hexadecimal ones.
@pytest.mark.parametrize(
    "address, serial",
    [
        ("001132a1b2c3\n", "Tb2c3\n1"),
        ("001132a1b2c3", "Tb2c3"),
        ("0011\n", "T"),
        ("0" * 40, "T" + "0" * 21 + "1"),
        ("001132a1b2c\n", "0Tb2c\n"),  # as it stands with a clock before 2001: an odd number of digits
        ("001132a1b-c", "0Tbc1\n"),  # and after 2038: a minus
        ("", "mkcert.cpp Fetch /proc/sys/kernel/opal_mac_address1 failed (Success)"),
        (None, "mkcert.cpp Open /proc/sys/kernel/opal_mac_address1 failed (No such file or directory)"),
    ],
)
def test_the_serial_file_is_made_in_a_form_that_openssl_reads(w, address, serial):
    w.sh(
        f"mkdir -p {SSL}; {'rm' if address is None else f'printf %s {chr(39)}{address}{chr(39)} >'} {ADDRESS}"
    )
    assert w.call("genSerialFile") == (0 if "T" in serial[:2] else -1)
    text = w.said.log or [re.sub(r"1\d{9}", "T", open(SERIAL).read(), count=1)]
    assert text == [serial]


def test_a_serial_file_needs_its_folder(w):
    assert w.call("genSerialFile") == -1 and w.said.log == [f"mkcert.cpp Open {SERIAL} failed"]


# openssl cuts it off when it is killed, and some clocks and addresses once gave what it cannot read.
@pytest.mark.parametrize(
    "scene, start",
    [
        ("echo 0A >", 0x0A),
        ("printf '170000000001\\n1' >", 0x170000000001),
        *[(f"printf '{text}' >", 0xB2C3) for text in ("", "\\n12", "123\\n", "-123\\n", "xy\\n", "1")],
        ("seq -s '' 5000 >", 0xB2C3),
        ("mkfifo", 0xB2C3),
        ("ln -s /dev/zero", 0xB2C3),
    ],
)
def test_a_serial_file_that_openssl_cannot_read_is_made_anew(w, scene, start):
    w.sh(f"mkdir -p {SSL}; {scene} {SERIAL}; openssl req -new -key c/privkey.pem -subj /CN=x -out /tmp/csr")
    numbers = []
    for _ in (1, 2):
        files = ["/tmp/csr", f"{A}/c/cert.pem", "/tmp/out", f"{A}/c/privkey.pem"]
        assert w.call("genServerCrt", *files, 9, "kestrel;;10.0.0.1") == 0 and not w.said.log
        numbers.append(int(ssl._ssl._test_decode_cert("/tmp/out")["serialNumber"], 16))
    assert (numbers[0] - start) % 65536 in (0, 1) and numbers[1] == numbers[0] + 1
    assert w.sh(f"tail -n 1 {SSL}/cfg.d/server.crt.cfg") == 'subjectAltName = "DNS:kestrel, IP:10.0.0.1"\n'


RUNS = f"""genrsa -rand /dev/urandom -out /tmp/s/opal-ca-privkey.pem 2048
req -config {SSL}/cfg.d/ca.cfg -new -sha256 -key /tmp/s/opal-ca-privkey.pem -out {SSL}/ssl.csr/ca.csr
x509 -extfile {SSL}/cfg.d/ca.crt.cfg -days 366 -in {SSL}/ssl.csr/ca.csr -req -sha256 \
-out /tmp/s/opal-ca-cert.pem -signkey /tmp/s/opal-ca-privkey.pem
genrsa -rand /dev/urandom -out /tmp/s/privkey.pem 2048
req -config {SSL}/cfg.d/server.cfg -new -sha256 -key /tmp/s/privkey.pem -out {SSL}/.gen/server.csr
x509 -extfile {SSL}/cfg.d/server.crt.cfg -days 366 -in {SSL}/.gen/server.csr -req -sha256 -out /tmp/s/cert.pem \
-CAserial {SERIAL} -CA /tmp/s/opal-ca-cert.pem -CAkey /tmp/s/opal-ca-privkey.pem
"""


def test_the_set_is_one_that_verifies_and_is_new_each_time(w):
    w.replace("/usr/bin/openssl", f'echo "$@" >> {ROW}/runs; exec $REAL "$@"')
    seen = set()
    for _ in (1, 2):
        (ROW / "runs").unlink(missing_ok=True)
        assert w.call("genDefaultCrtSet", "/tmp/s") == 0 and not w.said.log
        assert (ROW / "runs").read_text() == RUNS
        w.sh("cd /tmp/s; cmp cert.pem fullchain.pem; openssl verify -CAfile opal-ca-cert.pem -verify_hostname kestrel "
             "-purpose sslserver cert.pem; openssl verify -CAfile opal-ca-cert.pem opal-ca-cert.pem")  # fmt: skip
        names = ["cert.pem", "fullchain.pem", "opal-ca-cert.pem", "opal-ca-privkey.pem", "privkey.pem"]
        assert w.tree("/tmp/s") == {name: "-r-------- root root" for name in names}
        crt, ca = (ssl._ssl._test_decode_cert(f"/tmp/s/{name}cert.pem") for name in ("", "opal-ca-"))
        place = (
            (("countryName", "TW"),),
            (("localityName", "Taipel"),),
            (("organizationName", "Kestrel Inc."),),
        )
        assert crt["subject"] == (*place, (("commonName", "kestrel"),))
        assert (
            crt["issuer"] == ca["subject"] == ca["issuer"] == (*place, (("commonName", "Kestrel Inc. CA"),))
        )
        assert crt["subjectAltName"] == (("DNS", "kestrel"),)
        for each in (crt, ca):
            begin, end = (ssl.cert_time_to_seconds(each[name]) for name in ("notBefore", "notAfter"))
            assert end - begin == 366 * 86400
        seen |= {crt["serialNumber"]}
        for name in names[3:]:
            modulus = w.sh(f"openssl rsa -in /tmp/s/{name} -noout -modulus").strip().split("=")[1]
            assert len(modulus) == 2048 / 4
            seen |= {modulus}
    assert len(seen) == 6


@pytest.mark.parametrize(
    "crt, key, answer, line",
    [
        ("c/cert.pem", "c/privkey.pem", 0, None),
        ("c/cert.pem", "a/privkey.pem", 1, None),
        ("c/none", "c/privkey.pem", -1, "Failed to strip utf8 BOM"),
        ("c/privkey.pem", "c/privkey.pem", -1, "Failed to read cert from $A/c/privkey.pem"),
        ("c/cert.pem", "c/cert.pem", -1, "Failed to read private key from $A/c/cert.pem"),
        ("c/cert.pem", "c/locked", -1, "Failed to read private key from $A/c/locked"),
    ],
)
def test_compares_keys_and_certificates(w, crt, key, answer, line):
    w.crt("a")
    w.sh("openssl pkey -aes128 -passout pass:x -in c/privkey.pem -out c/locked")
    for each in (crt, key):
        if (A / each).exists():
            (A / each).write_bytes(b"\xef\xbb\xbf" + (A / each).read_bytes())
    assert w.call("checkCrtKeyMatch", f"{A}/{crt}", f"{A}/{key}") == answer
    assert w.said.log == ([f"mkcert.cpp {line}"] if line else [])
    assert (
        answer < 0
        or w.sh("head -qc 9 c/cert.pem c/privkey.pem; stat -c %a c/cert.pem") == "-----BEGI-----BEGI400\n"
    )
