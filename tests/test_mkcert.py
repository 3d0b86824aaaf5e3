# What openssl is told, what it is given to read, and the set that comes out.
import os, ssl, stat
from pathlib import Path

import pytest
from conftest import A, ROW

SSL = Path("/usr/opal/etc/ssl")
SERIAL, MAC = SSL / ".mkcert.serial", Path("/proc/sys/kernel/opal_mac_address1")
KEYS = """countryName stateOrProvinceName localityName 0.organizationName organizationalUnitName commonName
emailAddress"""


# fmt: off
CSR = "[ req ]\n%-32s= 1024\n%-32s= req_DN\n%-32s= no\n[ req_DN ]\n" % ("default_bits", "distinguished_name", "prompt")
EXTENSIONS = "extensions = x509v3\n[ x509v3 ]\nsubjectAltName   = email:copy\n"
COMMENT = 'nsComment        = "mod_ssl generated custom %s certificate"\nnsCertType       = %s\n'
CA = f"{EXTENSIONS}basicConstraints = CA:true,pathlen:0\n" + COMMENT % ("CA", "sslCA")
USAGE = "keyUsage         = critical, digitalSignature, keyEncipherment\nextendedKeyUsage = serverAuth, clientAuth\n"
SERVER = EXTENSIONS + COMMENT % ("server", "server") + USAGE
NAMES = 'subjectAltName = "DNS:kestrel, IP:192.168.1.5, IP:fe80::1, DNS:1.2.3.4:80, DNS:*.x"\n'
ALL, SOME = (dict(zip(KEYS.split(), each)) for each in ("cslount", ["", "", "l", "", "", "it's"]))


@pytest.mark.parametrize("function, arguments, text", [
    *[("modifyCsrCfg", [[*each.values()]], CSR + "".join(f"{key:32}= '{v}'\n" for key, v in each.items() if v))
      for each in (ALL, SOME)],
    ("genCACnf", [], CA), ("genServerCnf", [["", ""]], SERVER),
    ("genServerCnf", [["", "kestrel", "", "192.168.1.5", "fe80::1", "1.2.3.4:80", "*.x"]], SERVER + NAMES),
])
# fmt: on
def test_configuration_files_byte_for_byte(w, function, arguments, text):
    path = Path("/usr/opal/deep/er/file")
    for _ in range(2):  # Made with its folders, then replaced.
        assert w.call(function, str(path), *arguments) == 0
        assert path.read_text() == text and stat.S_IMODE(path.stat().st_mode) == 0o644
    assert w.said.log == [] and stat.S_IMODE(path.parent.stat().st_mode) == 0o755
    # Not written whole it is removed: openssl would sign without what is missing.
    w.tmpfs("/usr/opal/deep", "size=4k")
    w.sh("cat /dev/zero > /usr/opal/deep/fill || :")
    assert w.call(function, "/usr/opal/deep/file", *arguments) == 0
    assert os.listdir("/usr/opal/deep") == ["fill"]


@pytest.mark.parametrize("plant", ["mkfifo $ROW/x", "ln -s /dev/full $ROW/x", "mkdir $ROW/x"])
@pytest.mark.parametrize("function, line", [("modifyCsrCfg", "Open "), ("genCACnf", "fopen ")])
def test_only_a_file_is_written_to(w, plant, function, line):
    w.sh(plant)
    assert w.call(function, f"{ROW}/x", *([[]] if function == "modifyCsrCfg" else [])) == -1
    assert w.said.logged(f"mkcert.cpp {line}{ROW}/x failed[0x0") and os.path.lexists(ROW / "x")


F, NONE, CAFILE = f"{ROW}/file", f"{ROW}/none", f"{ROW}/ca"


def crt(ca=CAFILE, serial="", out="", key=F, days=1):
    return ["genCrt", f"{ROW}/ext", F, ca, serial, out, key, not out, days, "kestrel"]


# fmt: off
@pytest.mark.parametrize("call, trail", [
    (["genDirectory", ""], ["Failed to generate directory with invalid parameters"]),
    (["modifyCsrCfg", "", []], ["modifyCsrCfg sanity failed.[0x"]),
    (["genCACnf", None], ["CA CNF name is null or empty.[0x"]),
    (["genServerCnf", "", []], ["Server CNF name is null or empty.[0x"]),
    (["genServerCnf", F, None], ["alias list is null"]),
    (["genKey", NONE, 0], ["Failed to genKey with invalid parameters"]),
    (["genKey", str(ROW), 2048], ["Error when execute"]),
    (["genKey", f"{F}/k", 2048], [f"Failed to mkdir -p [{F}] (5)", f"Failed to generate directory for {F}/k"]),
    (["genCsr", CAFILE, F, NONE, None], ["Failed to generate csr with invalid paramters"]),
    (["genCsr", CAFILE, NONE, NONE, []], ["Key is not existed"]),
    (["genCsr", str(ROW), F, NONE, []], ["Failed to generate csr config file failed"]),
    (["genCsr", CAFILE, F, NONE, []], ["Create CSR failed, command"]),
    (crt(days=0), ["genCrt params invalid"]), (crt(key=NONE), ["Key is not existed"]),
    (crt(serial=NONE, out=NONE), ["Serial file is not existed"]), (crt(out=NONE), ["genCrt params invalid"]),
    (crt(ca=f"{F}/ca"), ["generate directory failed"]), (crt(), ["Error when execute"]),
    (["genDefaultCrtSet", ""], ["Invalid paramter []", "Generate CA key & crt failed"]),
])
# fmt: on
def test_what_cannot_be_is_told(w, call, trail):
    Path(F).touch()
    assert w.call(*call) == -1 and w.said.logged(*(f"mkcert.cpp {line}" for line in trail))


# fmt: off
@pytest.mark.parametrize("mac, serial", [
    ("001132a1b2c3\n", "b2c3\n1"), ("001132a1b2c3", "b2c3"), ("0011\n", ""), ("0" * 38, "0" * 21 + "1"),
    ("00:11:32:a1:b2:c3\n", ":a1:b2:c3\n"),
])
def test_the_ordinary_serial_file_byte_for_byte(w, mac, serial):
    SSL.mkdir()
    MAC.write_text(mac)
    assert w.call("genSerialFile") == 0
    assert (text := SERIAL.read_text())[:10].isdigit() and text[10:] == serial


@pytest.mark.parametrize("scene, line", [
    ("mkdir $L; : > $M", f"Fetch {MAC} failed ("), ("mkdir $L; rm $M", f"Open {MAC} failed ("),
    (":", f"Open {SERIAL} failed"),
])
# fmt: on
def test_a_serial_file_that_cannot_be_made(w, scene, line):
    w.sh(f"L={SSL} M={MAC}; {scene}")
    assert w.call("genSerialFile") == -1 and w.said.logged("mkcert.cpp " + line)


# One that openssl cannot read would fail every signature for ever; one that it can goes on counting.
@pytest.mark.slow
def test_a_set_is_made_whatever_serial_stands_there(w):
    assert w.call("genDefaultCrtSet", str(A / "c")) == 0
    first = int(SERIAL.read_text(), 16)
    key, cert, request = A / "c/opal-ca-privkey.pem", A / "c/opal-ca-cert.pem", SSL / ".gen/server.csr"
    sign = ["genServerCrt", str(request), str(cert), f"{ROW}/out", str(key), 9, "kestrel"]
    for bad in ("", "123\n", "-12\n", "xy\n", "12 34 \\\n", None):
        SERIAL.unlink()
        SERIAL.write_text(bad) if bad is not None else os.mkfifo(SERIAL)
        assert w.call(*sign) == 0 and int(SERIAL.read_text().split("\n")[0], 16) > 2**32, bad
    SERIAL.write_text("0A\n")
    assert w.call(*sign) == 0 and SERIAL.read_text() == "0B\n" and first > 2**32


def test_the_set_is_what_a_client_trusts(w):
    names = {"countryName": "TW", "localityName": "Taipel", "organizationName": "Kestrel Inc."}
    w.sh("touch c/keep")
    assert w.call("genDefaultCrtSet", str(A / "c")) == 0 and w.said.log == []
    tree = w.tree(A / "c")
    assert tree.pop("keep") and {*tree.values()} == {"-r-------- root root"}
    assert [*tree] == ["cert.pem", "fullchain.pem", "opal-ca-cert.pem", "opal-ca-privkey.pem", "privkey.pem"]
    server, ca = (ssl._ssl._test_decode_cert(f"{A}/c/{name}") for name in ("cert.pem", "opal-ca-cert.pem"))
    said = [dict(pair for each in name for pair in each) for name in (ca["subject"], server["subject"])]
    assert said == [{**names, "commonName": "Kestrel Inc. CA"}, {**names, "commonName": "kestrel"}]
    assert ca["issuer"] == server["issuer"] == ca["subject"]
    assert server["subjectAltName"] == (("DNS", "kestrel"),)
    for each in (server, ca):
        begin, end = (ssl.cert_time_to_seconds(each[when]) for when in ("notBefore", "notAfter"))
        assert end - begin == 366 * 86400
    verify = "openssl verify -CAfile c/opal-ca-cert.pem -verify_hostname kestrel -purpose sslserver"
    w.sh(f"cmp c/cert.pem c/fullchain.pem && {verify} c/cert.pem")
    for cert in ("cert", "opal-ca-cert"):
        text = w.sh(f"openssl x509 -in c/{cert}.pem -noout -text")
        assert "Public-Key: (2048 bit)" in text and text.count("sha256WithRSA") == 2


def test_keys_and_certificates_are_compared(w):
    w.crt("a")
    c = str(A / "c")
    (A / "c/bom.pem").write_bytes(b"\xef\xbb\xbf" + (A / "c/cert.pem").read_bytes())
    (A / "c/bom.pem").chmod(0o400)
    w.sh("openssl pkey -aes128 -passout pass:x -in c/privkey.pem -out c/locked")
    assert w.call("checkCrtKeyMatch", f"{c}/bom.pem", f"{c}/privkey.pem") == 0
    assert w.tree(A / "c", True)["bom.pem"] == w.tree(A / "c", True)["cert.pem"]
    assert w.call("checkCrtKeyMatch", f"{c}/cert.pem", f"{c}/../a/privkey.pem") == 1 and w.said.log == []
    # fmt: off
    for crt, key, line in [
        ("none", "privkey.pem", "Failed to strip utf8 BOM"),
        ("privkey.pem", "privkey.pem", "Failed to read cert from $A/c/privkey.pem"),
        ("cert.pem", "cert.pem", "Failed to read private key from $A/c/cert.pem"),
        ("cert.pem", "locked", "Failed to read private key from $A/c/locked"),
    ]:
        # fmt: on
        assert w.call("checkCrtKeyMatch", f"{c}/{crt}", f"{c}/{key}") == -1
        assert w.said.log == [f"mkcert.cpp {line}"]
