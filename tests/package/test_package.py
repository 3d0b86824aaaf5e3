# What runs in a fresh Debian: the life of the package, and, where this machine is of the other release, the build and the
# fast rows. mmdebstrap makes a release once, below build/debian; a row sees it through an overlay that is gone with it.
import platform, subprocess

import pytest
from conftest import REPOSITORY, ROW

pytestmark = [pytest.mark.package, pytest.mark.slow]
ROOT = ROW / "debian"
COPY = "mkdir -p $1; tar -C $0 --exclude=./build --exclude=./.git -c . | tar -C $1 -x"
CLEAN = "env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root DEBIAN_FRONTEND=noninteractive"
INSIDE = f'exec {CLEAN} chroot $0 sh -euxc "$1"'
# It needs what debian/tests/control has.
LIFE = """apt-get -qq install --yes --no-install-recommends adduser faketime openssl procps python3
/tmp/opalcrt/tests/package/life /tmp/*.deb"""


def sh(script, *arguments):
    assert subprocess.run(["sh", "-euc", script, *map(str, arguments)]).returncode == 0


# A machine with nothing but the release, with this repository in /tmp. What it fetches stays below build/.
def enter(w, release):
    made, fetched = REPOSITORY / "build/debian" / release, REPOSITORY / "build/debian/packages" / release
    if not made.exists():
        sh("mkdir -p $1; mmdebstrap --variant=minbase $2 $0.new; mv $0.new $0", made, fetched, release)
    sh("! mountpoint -q $0 || umount -R $0; rm -rf $0 $1; mkdir -p $0 $1/upper $1/work", ROOT, ROW / "layers")
    layers = f"lowerdir={made},upperdir={ROW}/layers/upper,workdir={ROW}/layers/work"
    w.mount("-t", "overlay", "-o", layers, "row", ROOT)
    w.mount("-t", "proc", "proc", ROOT / "proc")
    w.mount("--rbind", "/dev", ROOT / "dev")
    w.mount("--bind", fetched, ROOT / "var/cache/apt/archives")
    sh(COPY, REPOSITORY, ROOT / "tmp/opalcrt")
    sh(INSIDE, ROOT, "apt-get -qq update")


@pytest.mark.parametrize("release", ["bookworm", "trixie"])
def test_the_package_lives_and_this_repository_does(w, release):
    built = REPOSITORY / "build/package"
    if release != platform.freedesktop_os_release()["VERSION_CODENAME"]:
        enter(w, release)
        sh(INSIDE, ROOT, "cd /tmp/opalcrt; scripts/test --fast; scripts/package")
        built = ROW / "built"
        sh("cp -R $0 $1", ROOT / "tmp/opalcrt/build/package", built)
    enter(w, release)
    sh("cp $0/*.deb $1/tmp", built, ROOT)
    sh(INSIDE, ROOT, "apt-get -qq install --yes /tmp/*.deb")
    sh(INSIDE, ROOT, LIFE)
