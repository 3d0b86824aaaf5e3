# The report of checksums, the log of OpenSSL's errors, and long log lines.
import errno

import pytest
from conftest import A

OPEN, FORMAT = "utils.cpp Open $A/INFO failed. ", "utils.cpp Incorrect format for $A/INFO\n"


def test_reports_every_service_of_every_certificate(w):
    w.crt("b")
    # As the openssl program shows it, in our notation.
    look = "for id in b c; do openssl x509 -in $id/cert.pem -noout -fingerprint -sha256; done | cut -d= -f2"
    b, c = w.sh(look).lower().replace(":", "").split()
    one, two = {"service": "one", "subscriber": "ü", "owner": "x"}, {"service": [1]}
    listed = {"c": [{"service": "web", "subscriber": "p"}], "x": [], "b": [one, two]}
    w.write({id: {"services": services} for id, services in listed.items()})
    w.sh("{ echo text; cat c/cert.pem b/cert.pem; } > x; mv x c/cert.pem; chmod 0444 */cert.pem")
    report = [(b, '"one"', '"ü"'), (b, "[1]", "null"), (c, '"web"', '"p"')]
    text = ",".join('{"checksum":"%s","service":%s,"subscriber":%s}' % each for each in report)
    before = w.tree("/usr/opal", content=True)
    w.sh("mkfifo $ROW/conf")  # Who opens it waits.
    for by in ("OPENSSL_CONF=$ROW/conf", "setpriv --reuid=opalmail --clear-groups"):
        w.ok(f"{by} opalcrtchecksum any thing; ls /tmp/*.lock 2>&- || :", timeout=5, out=f"[{text}]\n")
    assert w.tree("/usr/opal", content=True) == before
    w.write(info="{}")
    w.ok("opalcrtchecksum", out="[]\n")


# fmt: off
@pytest.mark.parametrize("scene, line", [
    ("> INFO", f"{OPEN}Bad message"),
    ("echo '{\"c\": 5}' > INFO", FORMAT),
    ("echo '{\"c\": {\"services\": [{}, \"s\"]}}' > INFO", FORMAT),
    ("sed -i 's|c|../_archive/c|' INFO", "Invalid path for $A/c/cert.pem, $A/../_archive/c/cert.pem.\n"),
    ("rm c/cert.pem", "utils.cpp Realpath $A/c/cert.pem failed. No such file or directory"),
    ("mv c/cert.pem c/x; ln -s x c/cert.pem", "utils.cpp Invalid path for $A/c/x, $A/c/cert.pem.\n"),
    ("cp c/privkey.pem c/cert.pem", "utils.cpp Read X509 failed. [*:PEM routines:*]"),
    ("rm c/cert.pem; mkfifo c/cert.pem", "utils.cpp Open $A/c/cert.pem failed. Invalid argument"),
    ("exec > /dev/full", "opalcrtregister.cpp Failed to write report (No space left on device)"),
    ("exec >&-", "Failed to write report (Bad file descriptor)"),
    ("mkfifo p; (: < p) & exec > p; sleep 0.1", "Failed to write report (Broken pipe)"),
])
# fmt: on
def test_prints_nothing_where_anything_is_wrong(w, scene, line):
    book = """echo '{"c": {"services": [{}]}}' > INFO"""
    w.fails(f"{book}; {scene}; opalcrtchecksum", "", *line.split("*"), timeout=5)


def test_a_full_disk_leaves_the_old_and_a_long_line_loses_the_end_of_its_long_text(w):
    w.tmpfs(A, "size=8k")
    assert not w.call("WriteCrtInfo", {"c": "ü" * 9000})
    assert (w.answer["errno"], w.answer["state"], w.tree(A)) == (errno.ENOSPC, 0x0200, {})
    line = w.said.log[0]
    assert line.endswith("ü] to [$A/INFO.temp].") and 5900 < len(line.encode()) < 8192
