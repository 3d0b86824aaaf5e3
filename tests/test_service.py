# A real server, nginx, set up from nothing but its info, goes on serving while another certificate is installed twenty
# times and services are registered and taken back: nothing of that fails, no connection does, and each client gets the
# new certificate soon. nginx runs as the service's owner, and refuses a certificate without its key.
import concurrent.futures, json, signal, socket, ssl, threading, time

import pytest
from conftest import A, D, P, ROW

CHANGES, PATIENCE, PORT = 20, 10, 4433
KEYS = {"RSA": "rsa:2048", "ECC": "ec -pkeyopt ec_paramgen_curve:P-256"}
# What clients offer. The subject of each certificate says the type of its key, and its number.
OFFERS = {"RSA": "ECDHE-RSA-AES128-GCM-SHA256", "ECC": "ECDHE-ECDSA-AES128-GCM-SHA256", "any": None}
NEW = """openssl req -x509 -days 99 -newkey {how} -nodes -subj /O={key}/CN=c{number} \
    -addext subjectAltName=DNS:kestrel -keyout $ROW/{key}{number}.key -out $ROW/{key}{number}.pem 2>/dev/null
"""
NGINX = """worker_processes 2; pid /run/row/nginx.pid; error_log /run/row/nginx.log warn;
events { worker_connections 256; }
http {
    access_log off;
    server { listen 127.0.0.1:%d ssl; ssl_protocols TLSv1.2 TLSv1.3; %s location / { return 200 "shop"; } }
}"""


def install(w, number):
    pairs = [f"--key $ROW/{key}{number}.key --cert $ROW/{key}{number}.pem" for key in KEYS]
    w.sh(f"opalcrt install c {' '.join(pairs)}")


# Registers and takes back services of another subscriber, again and again.
def neighbour(w, is_over):
    rounds = 0
    while not is_over.is_set():
        rounds += 1
        w.define("new", "a", "b")
        child = w.start("opalcrtregister new")
        assert (child.communicate()[0], child.returncode) == (b"", 0)
        # Taking back may meet the moment in which the folder is exchanged, and then answers 1.
        w.start("opalcrtunregister new b").communicate()
    return rounds


# Connects again and again, and tells in `seen` the number of the newest certificate that it was shown.
def client(offer, seen, is_over):
    context = ssl.create_default_context(cafile=ROW / "trusted")
    context.verify_flags &= ~ssl.VERIFY_X509_STRICT  # asks our certificates for more than browsers do
    if OFFERS[offer]:
        context.maximum_version = ssl.TLSVersion.TLSv1_2
        context.set_ciphers(OFFERS[offer])
    while not is_over.is_set():
        with socket.create_connection(("127.0.0.1", PORT), PATIENCE) as plain:
            with context.wrap_socket(plain, server_hostname="kestrel") as connection:
                subject = dict(name[0] for name in connection.getpeercert()["subject"])
                connection.sendall(b"GET / HTTP/1.0\r\n\r\n")
                answer = connection.makefile("rb").read()
        assert answer.endswith(b"shop") and offer in ("any", subject["organizationName"])
        seen[offer] = max(seen[offer], int(subject["commonName"][1:]))


@pytest.mark.slow
@pytest.mark.service
def test_a_server_serves_while_its_certificate_is_changed_twenty_times(w):
    new = [NEW.format(how=KEYS[key], key=key, number=at) for at in range(CHANGES + 1) for key in KEYS]
    w.sh("".join(new))
    w.sh("cat $ROW/*.pem >$ROW/trusted; rm c/*")
    w.tmpfs("/var/lib/nginx", "mode=0777")
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
    seen, is_over = dict.fromkeys(OFFERS, -1), threading.Event()
    with concurrent.futures.ThreadPoolExecutor() as pool:
        others = [pool.submit(client, offer, seen, is_over) for offer in OFFERS]
        others.append(pool.submit(neighbour, w, is_over))
        try:
            for number in range(1, CHANGES + 1):
                install(w, number)
                end = time.monotonic() + PATIENCE
                while {*seen.values()} != {number}:
                    ended = [each.result() for each in others if each.done()]
                    assert time.monotonic() < end and not ended
                    time.sleep(0.005)
                time.sleep(0.3)  # in which the old workers end
        finally:
            is_over.set()
    assert [each.result() for each in others][-1] > CHANGES
    nginx.send_signal(signal.SIGQUIT)
    nginx.wait(PATIENCE)
    assert (ROW / "nginx.log").read_text() == "" and not (A / "c/cert_info").exists()
    assert w.sh("opalcrt status").startswith("ok: ") and w.books()["c"][0] == "shop/web"
