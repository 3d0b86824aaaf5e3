# What a default certificate set is made of, and how: configuration files, openssl's arguments, the serial file.
import re
import ssl

import pytest
from conftest import A, ROW

SSL = "/usr/opal/etc/ssl"
SERIAL, ADDRESS = f"{SSL}/.mkcert.serial", "/proc/sys/kernel/opal_mac_address1"
CSR = f"[ req ]\n{'default_bits':32}= 1024\n{'distinguished_name':32}= req_DN\n"
CSR += f"{'prompt':32}= no\n[ req_DN ]\n"
FIELDS = "country stateOrProvince locality 0.organization organizationalUnit common"
FIELDS = [*(f"{name}Name" for name in FIELDS.split()), "emailAddress"]
EXTENSIONS = "extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\n"
CA = f"""{EXTENSIONS}basicConstraints = CA:true,pathlen:0
nsComment        = "mod_ssl generated custom CA certificate"\nnsCertType       = sslCA\n"""
SERVER = f"""{EXTENSIONS}nsComment        = "mod_ssl generated custom server certificate"
nsCertType       = server
keyUsage         = critical, digitalSignature, keyEncipherment\nextendedKeyUsage = serverAuth, clientAuth\n"""
ALIASES = ["", "kestrel", "", "192.168.1.5", "fe80::1", "1.2.3.4:80", "*.x"]
NAMES = 'subjectAltName = "DNS:kestrel, IP:192.168.1.5, IP:fe80::1, DNS:1.2.3.4:80, DNS:*.x"\n'


@pytest.mark.parametrize("function, arguments, text", [
    ("modifyCsrCfg", [["it's"] * 7], CSR + "".join(f"{name:32}= 'it's'\n" for name in FIELDS)),
    ("modifyCsrCfg", [["", "", "", "", "", "n"]], CSR + f"{'commonName':32}= 'n'\n"),
    ("genCACnf", [], CA), ("genServerCnf", [["", ""]], SERVER), ("genServerCnf", [ALIASES], SERVER + NAMES),
], ids=range(5))  # fmt: skip
def test_configuration_files_byte_for_byte(w, function, arguments, text):
    w.sh("mkdir /usr/opal/full; seq 200 > /usr/opal/old")
    for path in ("/usr/opal/deep/er/new", "/usr/opal/old"):
        assert w.call(function, path, *arguments) == 0 and not w.said.log
        assert w.sh(f"cat {path}") == text
    assert w.sh("cd /usr/opal/deep/er; stat -c %a . new") == "755\n644\n"
    # One that cannot be written whole is removed; what is no file stays, and is not waited for.
    w.tmpfs("/usr/opal/full", "size=4k")
    w.sh("cd /usr/opal/full; cat /dev/zero > fill 2>&1 || mkfifo fifo; mknod full c 1 7; mkdir folder")
    for name, answer in {"new": 0, "fifo": -1, "full": -1, "folder": -1}.items():
        assert w.call(function, f"/usr/opal/full/{name}", *arguments) == answer
        assert bool(answer) == bool(re.match(r"mkcert.cpp f?[Oo]pen \S+ failed\[0x", *w.said.log or [""]))
    assert w.sh("ls /usr/opal/full") == "fifo\nfill\nfolder\nfull\n"


def crt(ca="/tmp/ca", serial="", out="", key="/tmp/f", csr="/tmp/f", days=1):
    return "genCrt", "/tmp/e", csr, ca, serial, out, key, not out, days, "kestrel"


@pytest.mark.parametrize("call, line", [
    (("genCACnf", None), "CA CNF name is null or empty.[0x"), 
    (("genServerCnf", "/tmp/x", None), "alias list is null"),
    (("genServerCnf", None, []), "Server CNF name is null or empty.[0x"),
    (("genCACnf", "/tmp/f/x"), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp generate directory failed"),
    (("genKey", "/tmp/d", 512), "Error when execute"), (("genKey", "/tmp/p", 512), "Error when execute"),
    (("genCsr", "/tmp/x", "/tmp/f", "/tmp/c", None), "Failed to generate csr with invalid paramters"),
    (("genCsr", "/tmp/x", "/tmp/none", "/tmp/c", []), "Key is not existed"),
    (("genCsr", "/tmp/d", "/tmp/f", "/tmp/c", []), "Open /tmp/d failed[0x0200 config_files.cpp:"),
    (crt(days=0), "genCrt params invalid"), (crt(csr="/tmp/none"), "Csr is not existed"),
    (crt(key="/tmp/none"), "Key is not existed"), (crt(out="/tmp/o", serial="x"), "Serial file is not"),
    (crt(ca="/tmp/f/ca"), "Failed to mkdir -p [/tmp/f] (5)\nmkcert.cpp generate directory failed"),
    (("genDefaultCrtSet", ""), "Invalid paramter []\nmkcert.cpp Generate CA key & crt failed"),
])  # fmt: skip
def test_what_cannot_be_made_is_told(w, call, line):
    w.sh("mkdir -p /tmp/d; touch /tmp/f; mkfifo /tmp/p")
    assert w.call(*call) == -1 and w.said.logged("mkcert.cpp " + line)
    assert w.sh("stat -c %F%s /tmp/f /tmp/p") == "regular empty file0\nfifo0\n" and not w.sh("ls /tmp/d")


# The time, of ten digits, comes before the address's end. Made before 2001 or after 2038 it has nine, or a minus.
@pytest.mark.parametrize("address, serial", [
    ("001132a1b2c3\n", "Tb2c3\n1"), ("001132a1b2c3", "Tb2c3"), ("0011\n", "T"), ("0" * 40, f"T{'0' * 21}1"),
    ("001132a1b2c\n", "0Tb2c\n"), ("001132a1b-c", "0Tbc1\n"),
    ("", f"mkcert.cpp Fetch {ADDRESS} failed (Success)"),
    (None, f"mkcert.cpp Open {ADDRESS} failed (No such file or directory)"),
    ("x", f"mkcert.cpp Open {SERIAL} failed"),
])  # fmt: skip
def test_the_serial_file_is_made_in_a_form_that_openssl_reads(w, address, serial):
    w.sh(f"mkdir -p {SSL}; rm {ADDRESS}" if address != "x" else "true")
    if address is not None:
        w.sh(f"printf %s '{address}' > {ADDRESS}")
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
        assert w.call("genServerCrt", *files, 9, "kestrel;;10.0.0.1") == 0 and not w.said.log
        numbers.append(int(ssl._ssl._test_decode_cert("/tmp/out")["serialNumber"], 16))
    assert (numbers[0] - start) % 65536 in (0, 1) and numbers[1] == numbers[0] + 1
    assert w.sh(f"tail -n 1 {SSL}/cfg.d/server.crt.cfg") == 'subjectAltName = "DNS:kestrel, IP:10.0.0.1"\n'


RUNS = f"""genrsa -rand /dev/urandom -out opal-ca-privkey.pem 2048
req -config {SSL}/cfg.d/ca.cfg -new -sha256 -key opal-ca-privkey.pem -out {SSL}/ssl.csr/ca.csr
x509 -extfile {SSL}/cfg.d/ca.crt.cfg -days 366 -in {SSL}/ssl.csr/ca.csr -req -sha256 -out opal-ca-cert.pem \
-signkey opal-ca-privkey.pem
genrsa -rand /dev/urandom -out privkey.pem 2048
req -config {SSL}/cfg.d/server.cfg -new -sha256 -key privkey.pem -out {SSL}/.gen/server.csr
x509 -extfile {SSL}/cfg.d/server.crt.cfg -days 366 -in {SSL}/.gen/server.csr -req -sha256 -out cert.pem \
-CAserial {SERIAL} -CA opal-ca-cert.pem -CAkey opal-ca-privkey.pem
"""


def test_the_set_is_one_that_verifies(w):
    w.replace("/usr/bin/openssl", f'echo "$@" >> {ROW}/runs; exec $REAL "$@"')
    assert w.call("genDefaultCrtSet", "/tmp/s") == 0 and not w.said.log
    assert (ROW / "runs").read_text().replace("/tmp/s/", "") == RUNS
    verify = "openssl verify -CAfile opal-ca-cert.pem -verify_hostname kestrel -purpose sslserver cert.pem"
    w.sh(f"cd /tmp/s; cmp cert.pem fullchain.pem && {verify}")
    made = {f"{name}.pem" for name in ("cert", "fullchain", "privkey", "opal-ca-cert", "opal-ca-privkey")}
    assert w.tree("/tmp/s") == dict.fromkeys(made, "-r-------- root root")
    crt, ca = (ssl._ssl._test_decode_cert(f"/tmp/s/{name}cert.pem") for name in ("", "opal-ca-"))
    names = crt["subject"], crt["issuer"], ca["subject"], ca["issuer"]
    names = [",".join("=".join(part[0]) for part in name) for name in names]
    place = "countryName=TW,localityName=Taipel,organizationName=Kestrel Inc.,commonName="
    assert names == [place + "kestrel", *[place + "Kestrel Inc. CA"] * 3]
    assert crt["subjectAltName"] == (("DNS", "kestrel"),)


@pytest.mark.parametrize("crt, key, answer, log", [
    ("c/cert.pem", "c/privkey.pem", 0, []), ("c/cert.pem", "a/privkey.pem", 1, []),
    ("c/none", "c/privkey.pem", -1, ["mkcert.cpp Failed to strip utf8 BOM"]),
    ("a/privkey.pem", "c/privkey.pem", -1, ["mkcert.cpp Failed to read cert from $A/a/privkey.pem"]),
    ("c/cert.pem", "a/cert.pem", -1, ["mkcert.cpp Failed to read private key from $A/a/cert.pem"]),
    ("c/cert.pem", "c/locked", -1, ["mkcert.cpp Failed to read private key from $A/c/locked"]),
])  # fmt: skip
def test_compares_keys_and_certificates(w, crt, key, answer, log):
    w.crt("a")
    w.sh("openssl pkey -aes128 -passout pass:x -in c/privkey.pem -out c/locked")
    plain = w.tree(A, content=True)
    for path in filter(A.joinpath("c/none").__ne__, (A / crt, A / key)):
        path.write_bytes(b"\xef\xbb\xbf" + path.read_bytes())
    assert w.call("checkCrtKeyMatch", f"{A}/{crt}", f"{A}/{key}") == answer and w.said.log == log
    assert w.tree(A, content=True) == plain or crt == "c/none"
