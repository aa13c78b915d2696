"""TLS with other implementations at both ends: nginx, openssl's programs, Python's ssl, curl."""
import contextlib
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys
import unittest

from peers import PICTURE, PeerTest, TOOL, free_port, process, tool, wait_for_port, watch

OUR_SERVER = sys.argv.pop(1) if len(sys.argv) > 1 else "tls_server"
EXAMPLE = sys.argv.pop(1) if len(sys.argv) > 1 else "example_https_get"
SERVER_EXAMPLE = sys.argv.pop(1) if len(sys.argv) > 1 else "example_https_server"

NGINX = """
  types {{ image/jpeg jpg; text/plain txt; }}
  root {folder}/www;
  keepalive_requests 3;
  ssl_certificate {folder}/cam.pem;
  ssl_certificate_key {folder}/cam.pem;
  server {{ listen 127.0.0.1:TLS12 ssl; ssl_protocols TLSv1.2; }}
  server {{ listen 127.0.0.1:TLS13 ssl; ssl_protocols TLSv1.3; }}
  server {{
    listen 127.0.0.1:ASKS ssl;
    ssl_client_certificate {folder}/ca.pem;
    ssl_verify_client on;
  }}
}}
"""

AUTHORITY = """
[ca]
default_ca = authority
[authority]
database = {folder}/index
new_certs_dir = {folder}
default_md = sha256
policy = any
copy_extensions = copy
rand_serial = yes
[any]
commonName = supplied
"""


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True)


class Tls(PeerTest):
    def setUp(self):
        super().setUp()
        self.write("www/hello.txt", "hello\n")
        self.write("www/large.txt", "x" * 20000000)
        self.write("www/picture.jpg", PICTURE)
        self.write("index", "")
        self.config = self.write("authority.cnf", AUTHORITY.format(folder=self.folder))
        self.authority("ca")
        self.cam = self.certificate("cam", "DNS:localhost,IP:127.0.0.1")
        self.ca = self.path("ca.pem")

    def authority(self, name):
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout",
                self.path(name + ".key"), "-out", self.path(name + ".pem"), "-days", "10", "-subj", "/CN=authority " + name)

    def certificate(self, name, hosts, ca="ca", dates=()):
        key, request, signed = (self.path(name + end) for end in (".key", ".csr", ".crt"))
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", key, "-out", request,
                "-subj", "/CN=" + name, "-addext", "subjectAltName=" + hosts)
        openssl("ca", "-batch", "-config", self.config, "-cert", self.path(ca + ".pem"), "-keyfile", self.path(ca + ".key"),
                "-in", request, "-out", signed, "-notext", *(dates or ("-days", "5")))
        return self.joined(name, signed, key)

    def joined(self, name, *files):
        return self.write(name + ".pem", b"".join(pathlib.Path(file).read_bytes() for file in files))

    def start_nginx(self):
        ports = [free_port() for _ in range(3)]
        self.nginx(ports[0], NGINX.replace("TLS12", str(ports[0])).replace("TLS13", str(ports[1])).replace("ASKS", str(ports[2])))
        return ports

    @contextlib.contextmanager
    def s_server(self, certificate, *arguments, **options):
        port = free_port()
        with process(["openssl", "s_server", "-accept", f"127.0.0.1:{port}", "-cert", certificate, "-key", certificate,
                      *arguments], **options) as child:
            wait_for_port(port)
            yield port, child

    def get(self, code, port, *arguments, host="127.0.0.1", path="/hello.txt", trusted=True):
        return self.check_tool(code, "get", f"https://{host}:{port}{path}", *(("--ca", self.ca) if trusted else ()), *arguments)

    def check_refusal(self, code, port, *words, trusted=True):
        out, errors = self.get(code, port, trusted=trusted)
        self.assertEqual((out, errors.count("\n")), (b"", 1), "one sentence: " + errors)
        for word in words:
            self.assertIn(word, errors)

    def test_nginx_of_each_protocol(self):
        ports = self.start_nginx()
        for port in ports[:2]:
            for host in ("127.0.0.1", "localhost"):
                self.assertEqual(self.get(0, port, host=host)[0], b"hello\n")
            self.assertEqual(len(self.get(0, port, path="/large.txt")[0]), 20000000)
        self.check_refusal(60, ports[0], "was issued by CN=authority ca, which is not trusted", trusted=False)
        self.assertEqual(self.get(0, ports[0], "--insecure", trusted=False)[0], b"hello\n")
        self.get(22, ports[2])  # nginx answers 400 when our certificate is missing
        client = self.certificate("recorder", "DNS:recorder")
        self.assertEqual(self.get(0, ports[2], "--cert", client)[0], b"hello\n")

    def test_the_example(self):
        port = self.start_nginx()[1]
        environment = dict(os.environ, QT_LOGGING_RULES="nuvika.*=false")
        for ca, code, words in ((self.ca, 0, b"200, 6 bytes\nhello\n"), (self.cam, 0, b"CN=cam, valid until"),
                                (os.devnull, 1, b"cannot read trusted certificates")):
            result = subprocess.run([EXAMPLE, "localhost", str(port), "/hello.txt", ca], capture_output=True, env=environment, timeout=30)
            self.assertEqual(result.returncode, code, result.stderr)
            self.assertIn(words, result.stdout + result.stderr)

    def test_watch(self):
        url = f"https://localhost:{self.start_nginx()[1]}/picture.jpg"
        self.check_watch(5, 4, url, "--ca", self.ca)
        _, _, code, text = watch(url, 2)
        self.assertIn("not trusted", text)
        self.assertEqual(code, 1)

    def test_certificates_that_are_refused(self):
        self.authority("stranger")
        expired = self.certificate("old", "IP:127.0.0.1", dates=("-startdate", "20200101000000Z", "-enddate", "20210203000000Z"))
        other = self.certificate("other", "DNS:other.example")
        unknown = self.certificate("unknown", "IP:127.0.0.1", ca="stranger")
        openssl("x509", "-req", "-in", self.path("cam.csr"), "-signkey", self.path("cam.key"), "-days", "5", "-out", self.path("self.crt"))
        own = self.joined("self", self.path("self.crt"), self.path("cam.key"))
        for certificate, words in ((expired, "expired on 2021-02-03 00:00 UTC"), (other, "another host: other.example"),
                                   (unknown, "issued by CN=authority stranger, which is not trusted"), (own, "is self-signed")):
            for protocol in ("-tls1_2", "-tls1_3"):
                with self.s_server(certificate, protocol, "-www") as (port, _):
                    self.check_refusal(60, port, "the certificate of 127.0.0.1", words)
                    self.get(0, port, "--insecure", path="/", trusted=False)

    def test_a_client_certificate_is_required(self):
        for protocol in ("-tls1_2", "-tls1_3"):
            with self.s_server(self.cam, protocol, "-www", "-Verify", "1", "-verify_return_error", "-CAfile", self.ca) as (port, _):
                result = tool("get", f"https://127.0.0.1:{port}/", "--ca", self.ca)
                self.assertIn(result.returncode, (35, 60))
                self.assertIn("a certificate of ours", result.stderr.decode())
                client = self.certificate("client" + protocol, "DNS:recorder")
                self.get(0, port, "--cert", client, path="/")

    def test_no_common_protocol_and_no_tls(self):
        with self.s_server(self.cam, "-tls1_1", "-cipher", "DEFAULT:@SECLEVEL=0", "-www") as (port, _):
            self.check_refusal(35, port, "none of the TLS versions")
        with process([sys.executable, "-m", "http.server", "--bind", "127.0.0.1", str(port := free_port())]):
            wait_for_port(port)
            self.check_refusal(35, port, "does not speak TLS on this port")

    def test_a_server_that_stalls_in_the_handshake(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.check_refusal(28, silent.getsockname()[1], "did not finish the TLS handshake within 10 seconds")

    def test_the_server_learns_the_name(self):
        other = self.certificate("other", "DNS:other.example")
        with self.s_server(other, "-www", "-servername", "localhost", "-cert2", self.cam, "-key2", self.cam) as (port, _):
            self.get(0, port, host="localhost", path="/")
            self.check_refusal(60, port, "another host: other.example")

    def check_resumption(self, port, session):
        for store, words in (("-sess_out", b"New, TLSv1.2"), ("-sess_in", b"Reused, TLSv1.2")):
            out = subprocess.run(["openssl", "s_client", "-connect", f"localhost:{port}", "-CAfile", self.ca, "-tls1_2",
                                  "-verify_return_error", store, session], stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
            self.assertEqual(out.returncode, 0, out.stderr)
            self.assertIn(words, out.stdout)

    def test_our_server_with_curl_and_openssl(self):
        client = self.certificate("recorder", "DNS:recorder")
        with process([OUR_SERVER, self.cam], stdout=subprocess.PIPE, text=True) as server:
            port = server.stdout.readline().strip()
            url = f"https://localhost:{port}"
            for protocol in ("--tlsv1.2", "--tlsv1.3"):
                curl = ["curl", "-sS", "--cacert", self.ca, protocol, "--tls-max", protocol[-3:]]
                out = subprocess.run(curl + [url + "/", url + "/"], capture_output=True, timeout=30)
                self.assertEqual((out.returncode, out.stdout), (0, b"xxxxxxxxxx"), out.stderr)
                self.assertEqual(server.stdout.readline(), f"connected TLSv{protocol[-3:]}\n")
                self.assertEqual(server.stdout.readline(), "disconnected 0\n")
            out = subprocess.run(curl + [url + "/large"], capture_output=True, timeout=60)
            self.assertEqual(len(out.stdout), 20000000, out.stderr)
            self.assertEqual([server.stdout.readline() for _ in range(2)], ["connected TLSv1.3\n", "disconnected 0\n"])
            session = self.path("session")
            context = ssl.create_default_context(cafile=self.ca)
            with context.wrap_socket(socket.create_connection(("127.0.0.1", int(port))), server_hostname="localhost"):
                self.check_resumption(port, session)
        with process([OUR_SERVER, self.cam, self.ca], stdout=subprocess.PIPE, text=True) as server:
            port = server.stdout.readline().strip()
            curl = ["curl", "-sS", "--cacert", self.ca, f"https://localhost:{port}/"]
            out = subprocess.run(curl, capture_output=True, timeout=30)
            self.assertNotEqual(out.returncode, 0)
            self.assertEqual(server.stdout.readline(), "error the peer has sent no certificate\n")
            out = subprocess.run(curl + ["--cert", client], capture_output=True, timeout=30)
            self.assertEqual(out.stdout, b"xxxxx", out.stderr)
            with socket.create_connection(("127.0.0.1", int(port))) as plain:
                plain.sendall(b"GET / HTTP/1.0\r\n\r\n")
                self.assertEqual([server.stdout.readline() for _ in range(3)][2], "error the peer does not speak TLS on this port\n")

    def curl(self, *arguments):
        out = subprocess.run(["curl", "-sSv", "--cacert", self.ca, *arguments], capture_output=True, text=True, timeout=60)
        self.assertEqual(out.returncode, 0, out.stderr)
        return out.stdout, out.stderr

    def test_http_of_ours_over_tls(self):
        with process([SERVER_EXAMPLE, self.cam], stdout=subprocess.PIPE, text=True) as server:
            url = server.stdout.readline().strip()
            text, log = self.curl(url + "a", url + "b")
            self.assertEqual(text, "You asked for /a.\nYou asked for /b.\n")
            self.assertIn("Re-using existing connection", log)
            for protocol in ("1.2", "1.3"):
                text, _ = self.curl("--tls-max", protocol, "-H", "Expect: 100-continue", "--data-binary", "@" + SERVER_EXAMPLE, url)
                self.assertEqual(text, "You asked for /.\n")
            text, log = self.curl("-0", url)
            self.assertEqual(text, "You asked for /.\n")
            self.assertNotIn("eof while reading", log)

    def test_the_page_over_tls(self):
        picture = f"http://127.0.0.1:{free_port()}/nobody.jpg"
        with process([TOOL, "watch", picture, "--port", "0", "--page-cert", self.cam], stdout=subprocess.PIPE, text=True) as child:
            url = re.search(r"https://\S+", child.stdout.readline()).group()
            self.assertIn("<html", self.curl(url)[0])
            self.assertIn('"cameras"', self.curl("-k", url + "state.json")[0])
        self.check_tool(26, "watch", picture, "--page-cert", self.path("nothing.pem"))


if __name__ == "__main__":
    unittest.main()
