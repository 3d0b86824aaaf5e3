# A real server, nginx, set up from nothing but its info, goes on serving while another certificate is installed twenty
# times and services are registered and taken back: nothing of that fails, no connection does, and each client gets the
# new certificate soon. nginx runs as the service's owner, and refuses a
# certificate without its key.
import json, signal, socket, ssl, threading, time

import pytest
from conftest import A, D, P, ROW

CHANGES, PATIENCE, PORT = 20, 10, 4433
# What a client offers. The subject of each certificate says its number, and the type of its key.
OFFERS = {"RSA": "ECDHE-RSA-AES128-GCM-SHA256", "ECC": "ECDHE-ECDSA-AES128-GCM-SHA256", "": None}
CERTIFICATES = """
openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=CA -days 99 -keyout $ROW/ca.key -out $ROW/ca.pem
for id in $(seq -w 0 20); do
    mkdir $ROW/c$id; cd $ROW/c$id
    for type in RSA=rsa_keygen_bits:2048 ECC=ec_paramgen_curve:P-256; do
        option=${type#*=} type=${type%=*}
        openssl req -x509 -CA $ROW/ca.pem -CAkey $ROW/ca.key -newkey ${option%%_*} -pkeyopt $option -nodes -days 99 \
            -subj /O=$type/CN=c$id -addext subjectAltName=DNS:kestrel -addext basicConstraints=critical,CA:false \
            -keyout $type-privkey.pem -out $type-cert.pem
        cat $type-cert.pem $ROW/ca.pem >$type-fullchain.pem
    done
done 2>$ROW/errors"""
NGINX = """worker_processes 2; pid /run/row/nginx.pid; error_log /run/row/nginx.log warn;
events { worker_connections 256; }
http {
    access_log off; client_body_temp_path /run/row/body; proxy_temp_path /run/row/proxy;
    fastcgi_temp_path /run/row/fastcgi; uwsgi_temp_path /run/row/uwsgi; scgi_temp_path /run/row/scgi;
    server { listen 127.0.0.1:%d ssl; ssl_protocols TLSv1.2 TLSv1.3; %s location / { return 200 "shop"; } }
}"""


def install(w, number, how=""):
    pairs = (
        f"--key $ROW/c{number:02}/{key}-privkey.pem --cert $ROW/c{number:02}/{key}-fullchain.pem"
        for key in OFFERS
        if key
    )
    w.sh(f"opalcrt install c {how} {' '.join(pairs)}")


# Registers and takes back services of another subscriber, again and again.
class Neighbour(threading.Thread):
    def __init__(self, w):
        super().__init__()
        self.w, self.statuses, self.is_over = w, [], False

    def run(self):
        while not self.is_over:
            self.w.define("new", "a", "b")
            for command in ("opalcrtregister new", "opalcrtunregister new b"):
                child = self.w.start(command)
                ended = child.communicate()[0], child.returncode
                # Taking back may meet the moment in which the folder is exchanged, and then answers 1.
                self.statuses += [ended] if command.startswith("opalcrtregister") else []


class Client(threading.Thread):
    def __init__(self, offer, cipher):
        super().__init__()
        self.offer, self.seen, self.wrong, self.is_over = offer, -1, [], False
        self.context = ssl.create_default_context(cafile=ROW / "ca.pem")
        self.context.verify_flags &= ~ssl.VERIFY_X509_STRICT  # asks our CA for more than browsers do
        if cipher:
            self.context.maximum_version = ssl.TLSVersion.TLSv1_2
            self.context.set_ciphers(cipher)

    def run(self):
        while not self.is_over:
            try:
                with socket.create_connection(("127.0.0.1", PORT), PATIENCE) as plain:
                    with self.context.wrap_socket(plain, server_hostname="kestrel") as connection:
                        subject = dict(name[0] for name in connection.getpeercert()["subject"])
                        connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
                        while piece := connection.recv(4096):
                            answer = piece
                assert answer.endswith(b"shop") and self.offer in ("", subject["organizationName"])
                self.seen = max(self.seen, int(subject["commonName"][1:]))
            except (OSError, AssertionError) as error:
                self.wrong.append(repr(error))


@pytest.mark.slow
@pytest.mark.service
def test_a_server_serves_while_its_certificate_is_changed_twenty_times(w):
    w.sh(CERTIFICATES)
    w.sh("rm -r c")
    install(w, 0)
    w.define("shop", {"service": "web", "display_name": "The web", "multiple_cert": True})
    w.ok("opalcrtregister shop")
    certs = json.loads((P / "shop/web/info").read_text())["certs"]
    lines = [f"ssl_certificate {each['chain']}; ssl_certificate_key {each['key']};" for each in certs]
    (ROW / "nginx.conf").write_text(NGINX % (PORT, " ".join(lines)))
    (D / "shop").write_text("#!/bin/sh\nkill -HUP $(cat /run/row/nginx.pid)\n")
    (D / "shop").chmod(0o755)
    as_owner = "setpriv --reuid opalweb --regid opalweb --clear-groups"
    nginx = w.start(f"exec {as_owner} nginx -e /run/row/nginx.log -c /run/row/nginx.conf -g 'daemon off;'")
    w.sh("until [ -s $ROW/nginx.pid ]; do sleep 0.05; done")
    clients = [Client(*offer) for offer in OFFERS.items()]
    neighbour = Neighbour(w)
    for thread in (*clients, neighbour):
        thread.start()
    try:
        for number in range(CHANGES + 1):
            if number > 0:
                install(w, number)
            end = time.monotonic() + PATIENCE
            while any(client.seen < number for client in clients) and time.monotonic() < end:
                time.sleep(0.005)
            assert [client.seen for client in clients] == [number] * len(clients)
            time.sleep(0.3)  # in which the old workers end
    finally:
        for thread in (*clients, neighbour):
            thread.is_over = True
            thread.join()
    assert {*neighbour.statuses} == {(b"", 0)} and len(neighbour.statuses) > CHANGES
    assert [client.wrong for client in clients] == [[]] * len(clients)
    nginx.send_signal(signal.SIGQUIT)
    nginx.wait(PATIENCE)
    assert (ROW / "nginx.log").read_text() == "" and not (A / "c/cert_info").exists()
    assert w.sh("opalcrt status").startswith("ok: ") and w.books()["c"][0] == "shop/web"
