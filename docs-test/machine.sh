#!/bin/bash
# The machine that the examples of the documents find, and the run of one document's blocks on it:
#
#     machine.sh FOLDER BLOCK...
#
# Runs the files BLOCK of FOLDER one after the other in this shell; what a block prints goes to BLOCK.out. The first
# one to fail ends it, and is shown.
#
# The machine has a store whose default certificate, factory, was made by the tool; the package shop with the services
# web and api, which come from /usr/local/share/shop/certificate.cfg; shop's server on port 4433, running as opalweb;
# and a new certificate in ~/bought (of a home in the world). There is no systemd and no journal in a world, so
# `systemctl` restarts shop's server, and `journalctl -t NAME` tells what came through /dev/log.
set -euo pipefail
export LC_ALL=C HOME=/tmp/home

[ -e /run/opalcrt-world ] || { echo "machine.sh is for worlds only" >&2; exit 1; }

# The blocks have variables of their own.
machine_folder=$PWD/$1
shift
machine_block=0000
finish() {
    local status=$?
    if [ $status != 0 ]; then
        echo "status $status at line $((10#$machine_block)), which printed:"
        cat "$machine_folder/$machine_block.out"
    fi
} >&3
trap finish EXIT
exec 3>&1 >"$machine_folder/$machine_block.out" 2>&1

ip link set lo up
cmake --install build/release --prefix /usr/opal >/dev/null
PATH=/usr/opal/bin:$PATH

perl -MSocket -e '
    socket($log, AF_UNIX, SOCK_DGRAM, 0) && bind($log, pack_sockaddr_un("/dev/log")) or die "/dev/log: $!";
    $| = 1;
    while (defined recv($log, $line, 65536, 0)) { print "$line\n" }' >/tmp/log 3>&- &
until [ -S /dev/log ]; do sleep 0.01; done
journalctl() {
    [ "$1" = -t ] && sleep 0.2 && grep " $2: " /tmp/log | sed 's/^<[0-9]*>//'
}

mkdir -p /usr/opal/etc/certificate/_archive/factory /usr/local/share/certificate.d /usr/opal/share/certificate.d
cd /usr/opal/etc/certificate/_archive
echo factory >DEFAULT
echo '{"factory": {"services": []}}' >INFO
echo '[]' >SERVICES

mkdir /usr/local/share/shop
cat >/usr/local/share/shop/certificate.cfg <<'EOF'
{
  "owner": "opalweb",
  "isPkg": true,
  "services": [
    { "service": "web", "display_name": "Web shop" },
    { "service": "api", "display_name": "Shop for programs" }
  ]
}
EOF
cp /usr/local/share/shop/certificate.cfg /usr/local/share/certificate.d/shop.cfg
opalcrtregister shop

start_server() {
    local info=/usr/local/etc/certificate/shop/web/info
    : >/tmp/server.out
    setpriv --reuid opalweb --regid opalweb --clear-groups openssl s_server -accept 127.0.0.1:4433 \
        -cert "$(jq -r '.certs[0].cert' $info)" -cert_chain "$(jq -r '.certs[0].chain' $info)" \
        -key "$(jq -r '.certs[0].key' $info)" -www </dev/null >>/tmp/server.out 2>&1 3>&- &
    machine_server=$!
    until grep -q '^ACCEPT' /tmp/server.out; do
        kill -0 "$machine_server" || { cat /tmp/server.out; return 1; }
        sleep 0.02
    done
}
systemctl() {
    [ "$*" = "reload shop" ] || { echo "no such unit here: $*"; return 1; }
    kill "$machine_server"
    wait "$machine_server" || true
    start_server
}
start_server

mkdir -p ~/bought
cd ~/bought
openssl req -x509 -newkey rsa:2048 -nodes -subj "/CN=Authority" -days 2 -keyout ca.key -out chain.pem 2>/dev/null
openssl req -x509 -CA chain.pem -CAkey ca.key -newkey rsa:2048 -nodes -subj "/CN=shop.example" -days 90 \
    -addext basicConstraints=critical,CA:false -keyout privkey.pem -out cert.pem 2>/dev/null
rm ca.key
cd /

for machine_block; do
    # shellcheck source=/dev/null
    . "$machine_folder/$machine_block" >"$machine_folder/$machine_block.out" 2>&1 </dev/null
done
kill "$machine_server"
