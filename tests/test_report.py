# The report of checksums, the log of OpenSSL's errors, and long log lines.
import json
import re

import pytest
from conftest import A

OPEN = "utils.cpp Open $A/INFO failed. "
FORMAT = "utils.cpp Incorrect format for $A/INFO\n"


def test_reports_every_service_of_every_certificate(w):
    w.crt("b")

    def checksum(id):  # As the openssl program shows it, in our notation.
        text = w.sh(f"openssl x509 -in {id}/cert.pem -noout -fingerprint -sha256")
        return text.split("=")[1].strip().replace(":", "").lower()

    b, c = checksum("b"), checksum("c")
    one = {"service": "one", "subscriber": "ü", "owner": "x"}
    p = {"service": "web", "subscriber": "p"}
    w.write({"c": {"services": [p]}, "x": {"services": []}, "b": {"services": [one, {"service": [1]}]}})
    w.sh("{ echo text; cat c/cert.pem b/cert.pem; } > x; mv x c/cert.pem; chmod 0444 */cert.pem")
    report = (
        f'[{{"checksum":"{b}","service":"one","subscriber":"ü"}},{{"checksum":"{b}","service":[1],"subscriber":null}},'
        f'{{"checksum":"{c}","service":"web","subscriber":"p"}}]\n'
    )
    before = w.tree(A, content=True)
    w.ok("OPENSSL_CONF=/etc/passwd opalcrtchecksum", out=report)
    w.ok("setpriv --reuid=opalmail --clear-groups opalcrtchecksum any thing", out=report)
    w.write(info="{}")
    w.ok("opalcrtchecksum; ls /tmp", out="[]\n")
    w.write({"c": {"services": [p]}, "x": {"services": []}, "b": {"services": [one, {"service": [1]}]}})
    assert w.tree(A, content=True) == before


def test_a_report_over_bytes_that_are_no_utf8_is_json(w):
    entries = (
        b'{"service": "\xff", "subscriber": "\xc3\xbc"}, {"service": "\xed\xa0\x80"}, {"service": "\xc3"}'
    )
    (A / "INFO").write_bytes(b'{"c": {"services": [%s]}}' % entries)
    said = w.run("opalcrtchecksum")
    report = json.loads(said.out.encode(errors="surrogateescape").decode())
    assert said.status == 0 and report[0]["subscriber"] == "ü" and len(report) == 3


# fmt: off
@pytest.mark.parametrize("scene, line", [
    ("> INFO", f"{OPEN}Bad message"),
    ("rm INFO", f"{OPEN}No such file or directory"),
    ("rm INFO; mkfifo INFO", f"{OPEN}Invalid argument"),
    ("echo [] > INFO", FORMAT),
    ("echo '{\"c\": 5}' > INFO", FORMAT),
    ("echo '{\"c\": {\"services\": {}}}' > INFO", FORMAT),
    ("echo '{\"c\": {\"services\": [{}, \"s\"]}}' > INFO", FORMAT),
    ("sed -i 's|c|../_archive/c|' INFO", "utils.cpp Invalid path for $A/c/cert.pem, $A/../_archive/c/cert.pem.\n"),
    ("mv c/cert.pem c/x", "utils.cpp Realpath $A/c/cert.pem failed. No such file or directory"),
    ("mv c/cert.pem c/x; ln -s x c/cert.pem", "utils.cpp Invalid path for $A/c/x, $A/c/cert.pem.\n"),
    ("mv c cc; ln -s cc c", "utils.cpp Invalid path for $A/cc/cert.pem, $A/c/cert.pem.\n"),
    ("cp c/privkey.pem c/cert.pem", "utils.cpp Read X509 failed. [*:PEM routines:*]"),
    ("rm c/cert.pem; mkfifo c/cert.pem", "utils.cpp Open $A/c/cert.pem failed. Invalid argument"),
])
# fmt: on
def test_prints_nothing_where_anything_is_wrong(w, scene, line):
    w.sh(f'echo \'{{"c": {{"services": [{{}}]}}}}\' > INFO; {scene}')
    w.fails("opalcrtchecksum", "", *line.split("*"), timeout=5)


@pytest.mark.parametrize(
    "command, line",
    [
        ("opalcrtchecksum > /dev/full", "Failed to write report (No space left on device)"),
        ("opalcrtchecksum >&-", "Failed to write report (Bad file descriptor)"),
        (
            "{ sleep 0.1; opalcrtchecksum; echo $? > $ROW/status; } | true; sleep 0.2; exit $(cat $ROW/status)",
            "Failed to write report (Broken pipe)",
        ),
        ("opalcrtregister > /dev/full", ""),
    ],
)
def test_fails_where_nobody_takes_the_report(w, command, line):
    w.fails(command, "", line)


def test_a_long_line_loses_what_stands_before_its_end(w):
    w.sh("mkdir -p INFO.temp/x")
    assert not w.call("WriteCrtInfo", {"c": "ü" * 9000})
    line = w.said.log[0]
    assert line.endswith("ü] to [$A/INFO.temp].") and 5900 < len(line.encode()) < 8192
