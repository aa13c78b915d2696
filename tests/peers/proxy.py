"""nuvika get through Apache as a proxy (CONNECT), beside curl on the same way."""
import contextlib
import ssl
import subprocess
import unittest
import urllib.parse

from peers import TOOL, PeerTest, free_port, web_server

CONFIG = """
ServerRoot "{folder}"
ServerName localhost
Listen 127.0.0.1:{open}
Listen 127.0.0.1:{locked}
PidFile {folder}/httpd.pid
ErrorLog {folder}/error.log
{modules}
User www-data
Group www-data
ProxyRequests On
AllowCONNECT {allowed}
<VirtualHost 127.0.0.1:{open}>
  <Proxy "*">
    Require all granted
  </Proxy>
</VirtualHost>
<VirtualHost 127.0.0.1:{locked}>
  <Proxy "*">
    AuthType Basic
    AuthName "ways out"
    AuthUserFile {folder}/users
    Require valid-user
  </Proxy>
</VirtualHost>
"""
MODULES = ("mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_basic", "proxy", "proxy_connect")


class Proxy(PeerTest):
    def setUp(self):
        super().setUp()
        self.certificate = self.path("cam.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=cam",
                        "-addext", "subjectAltName=DNS:localhost", "-keyout", self.certificate, "-out", self.path("crt.pem")],
                       check=True, capture_output=True)
        with open(self.certificate, "a") as file, open(self.path("crt.pem")) as own:
            file.write(own.read())
        self.clear = self.enterContext(web_server(200, content=b"clear")).rsplit(":", 1)[1]
        self.secure = self.enterContext(self.tls_server())
        self.dead, self.open, self.locked = free_port(), free_port(), free_port()
        subprocess.run(["htpasswd", "-cb", self.path("users"), "us@er", "se:cret"], check=True, capture_output=True)
        modules = "\n".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so" for name in MODULES)
        config = self.write("httpd.conf", CONFIG.format(
            folder=self.folder, modules=modules, open=self.open, locked=self.locked,
            allowed=f"{self.clear} {self.secure} {self.dead}"))
        self.serve(self.open, "apache2", "-d", self.folder, "-f", config, "-D", "FOREGROUND")

    @contextlib.contextmanager
    def tls_server(self):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(self.certificate)
        with web_server(200, content=b"secure", tls=context) as address:
            yield address.rsplit(":", 1)[1]

    def get(self, scheme, host, port, proxy, user=""):
        """What our client says, and curl's exit code."""
        url = f"{scheme}://{host}:{port}/"
        credentials = ":".join(urllib.parse.quote(word, safe="") for word in user.split(":", 1)) + "@" if user else ""
        ours = subprocess.run([TOOL, "get", url, "--ca", self.path("crt.pem"), "-x", f"http://{credentials}127.0.0.1:{proxy}"],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60).stdout.strip()
        login = ["--proxy-user", user] if user else []
        curl = subprocess.run(["curl", "-s", "-o", "/dev/null", "--proxytunnel", "-x", f"http://127.0.0.1:{proxy}", *login,
                               "--cacert", self.path("crt.pem"), url], timeout=60)
        return ours, curl.returncode

    def test_ways_and_refusals(self):
        proxy, locked = f"the proxy 127.0.0.1:{self.open}", f"the proxy 127.0.0.1:{self.locked}"
        for scheme, host, port, way, user, said, code in (
                ("http", "localhost", self.clear, self.open, "", "clear", 0),
                ("https", "localhost", self.secure, self.open, "", "secure", 0),
                ("https", "localhost", self.secure, self.locked, "us@er:se:cret", "secure", 0),
                ("https", "127.0.0.1", self.secure, self.open, "", "was issued to another host: localhost", 60),
                ("http", "localhost", self.clear, self.locked, "", f"{locked} refuses a way to localhost:{self.clear}: 407 ", 56),
                ("http", "localhost", self.clear, self.locked, "us@er:x", "(user or password are not accepted)", 56),
                ("http", "localhost", self.dead, self.open, "", f"{proxy} refuses a way to localhost:{self.dead}: 503 ", 56),
                ("http", "localhost", 9, self.open, "", f"{proxy} refuses a way to localhost:9: 403 ", 56),
                ("http", "localhost", self.clear, self.dead, "", f"the proxy 127.0.0.1:{self.dead}: Connection refused", 7)):
            with self.subTest(scheme=scheme, port=port, way=way, user=user):
                ours, curl = self.get(scheme, host, port, way, user)
                self.assertIn(said, ours)
                self.assertEqual(curl, code)


if __name__ == "__main__":
    unittest.main()
