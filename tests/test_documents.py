# README, docs/ and man/: what they tell a reader to type does what they say, and what they list is there.
#
# Blocks of shell (```sh, in a page .Bd -literal below EXAMPLES) are run as they stand, those of a page or a section in one
# shell; the first one that fails ends it. A block of text after them (```text, .Bd -unfilled) is what the last of them must
# have printed, "..." in it stands for anything. What the first section of a document does is done before each of the
# others. What a reader should not do, the mishap that a text is about, hides in a comment: <!-- sh, the commands, -->.
import re

import pytest
from conftest import REPOSITORY, ROW

pytestmark = pytest.mark.documents
PAGES = sorted(REPOSITORY.glob("man/*"))
DOCUMENTS = [REPOSITORY / "README.md", *sorted(REPOSITORY.glob("docs/*.md"))]
SHELL = ("sh", "literal")
ROFF = {r"\&": "", r"\(aq": "'", r"\(dq": '"', r"\e": "\\"}

# The package shop with the services web and api, a server of web's on port 4433, and a bought certificate in ~/bought.
MACHINE = r"""
export LC_ALL=C HOME=/tmp/home
mkdir -p /usr/local/share/shop ~/bought
cp $D/shop.cfg /usr/local/share/shop/certificate.cfg; opalcrtregister shop
journalctl() { sleep 0.2; grep " $2: " /run/row/journal | sed 's/^<[0-9]*>//'; }
systemctl() { # reload shop
    [ "$2" = shop ] || { echo "no such unit here: $*"; return 1; }
    [ "$1" = start ] || { kill $server; wait $server 2>/dev/null || :; }; rm -f /run/row/server
    openssl s_server -accept 4433 -www -cert $P/shop/web/cert.pem -cert_chain $P/shop/web/fullchain.pem \
        -key $P/shop/web/privkey.pem >/run/row/server 2>&1 &
    server=$!
    until grep -qs ^ACCEPT /run/row/server; do kill -0 $server; sleep 0.02; done
}
trap 'kill $server' EXIT; ip link set lo up; systemctl start shop
req() { openssl req -x509 -newkey rsa:2048 -nodes -days 90 "$@" 2>/dev/null; }
cd ~/bought; req -subj /CN=Authority -keyout ca.key -out chain.pem
req -CA chain.pem -CAkey ca.key -subj /CN=shop.example -addext basicConstraints=critical,CA:false \
    -keyout privkey.pem -out cert.pem; cd /
"""


# {title: [(kind, lines)]}
def sections_of(path):
    text = path.read_text()
    if path.suffix == ".md":
        block = re.compile(r"^(?:```|<!-- )(sh|text)\n(.*?)^(?:```|-->)$", re.M | re.S)
        return {each.split("\n")[0]: block.findall(each) for each in re.split("^## ", text, flags=re.M)}
    for roff, plain in ROFF.items():
        text = text.replace(roff, plain)
    examples = text.partition("\n.Sh EXAMPLES")[2].partition("\n.Sh ")[0]
    return {"EXAMPLES": re.findall(r"^\.Bd -(literal|unfilled).*?\n(.*?)^\.Ed$", examples, re.M | re.S)}


def examples():
    for path in PAGES + DOCUMENTS:
        first = []
        for title, blocks in sections_of(path).items():
            if blocks:
                yield pytest.param(first + blocks, id=f"{path.name}: {title}")
                first = first or blocks


@pytest.mark.slow
@pytest.mark.parametrize("blocks", examples())
def test_an_example_does_what_is_told(w, blocks):
    w.sh("cd /; rm -r $A; opalcrt init; cd $A; mv $(cat DEFAULT) factory")
    w.sh("sed -i s/$(cat DEFAULT)/factory/ [A-Z]*")
    w.define("shop", "web", "api")
    script = MACHINE + "".join(f"printf '\\1'\n{lines}" for kind, lines in blocks if kind in SHELL)
    (ROW / "script").write_text(script)
    said = w.run("unshare --net bash -eu -o pipefail /run/row/script")
    assert said.status == 0
    printed = iter(said.out.split("\1")[1:])
    for kind, lines in blocks:
        if kind in SHELL:
            last = next(printed)
        else:
            wanted = ".*".join(map(re.escape, lines.strip().split("...")))
            assert re.fullmatch(wanted, last.strip(), re.S)


# A text, which may be cut up, and whether openssl's own is printed after it.
BEGIN = r"\b(?:LOG_[A-Z_]+\(|LogLine\(LOG_ERR, \S+ __LINE__, false,|printf\(|(LogOpenSSLError)\()\s*"
MESSAGE = BEGIN + r"""((?:"(?:[^"\\]|\\.)*"\s*)+)"""


# Without what differs from line to line, and in the way it is written.
def plain(text):
    return re.sub(r'\s|\\[&n]|"', "", re.sub(r"(%\w|<[^>]*>)+", "@", text))


def test_every_message_is_in_a_manual_page_and_the_other_way_round():
    pages = "".join(page.read_text().partition("\n.Sh DIAGNOSTICS")[2] for page in PAGES)
    listed = {plain(item) for item in re.findall(r"^\.It (.*)", pages, re.M)}
    paths = {*REPOSITORY.glob("src/*/*.cpp")} - {*REPOSITORY.glob("src/admin/*.cpp")}
    found = re.findall(MESSAGE, "".join(path.read_text() for path in paths))
    said = {plain(text) + "[@]" * bool(openssl) for openssl, text in found}
    assert said ^ listed == {"@[@]", plain("Certificate service tool")}
