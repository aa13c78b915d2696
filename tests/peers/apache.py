"""Apache httpd: Digest and Basic, chunked answers, limits of kept connections."""
import hashlib
import os
import subprocess
import unittest

from peers import PeerTest, free_port
from web_server_cases import WebServerCases

CONFIG = """
ServerRoot "{folder}"
ServerName localhost
Listen 127.0.0.1:{port}
PidFile {folder}/httpd.pid
ErrorLog {folder}/error.log
{modules}
ScriptSock {folder}/cgi.sock
User www-data
Group www-data
TypesConfig /etc/mime.types
DocumentRoot "{folder}/www"
KeepAlive On
MaxKeepAliveRequests 3
KeepAliveTimeout 2
AddType text/html .shtml
AddOutputFilter INCLUDES .shtml
<Directory "{folder}/www">
  Options +Includes
  Require all granted
</Directory>
ScriptAlias /basic/form {folder}/cgi/form
ScriptAlias /digest/form {folder}/cgi/form
<Directory "{folder}/cgi">
  Require all granted
</Directory>
"""
MODULES = ("mpm_event", "authn_core", "authn_file", "authz_core", "authz_user", "auth_basic", "auth_digest", "mime", "filter", "include",
           "alias", "cgid")
PROTECTED = """
<Location /{lower}>
  AuthType {kind}
  AuthName "{lower} cameras"
  AuthUserFile {folder}/{lower}.users
  Require valid-user
</Location>
"""


# Says what it has understood of a form.
FORM = """#!/usr/bin/python3
import email, os, sys
head = "Content-Type: " + os.environ["CONTENT_TYPE"] + "\\r\\n\\r\\n"
body = sys.stdin.buffer.read(int(os.environ["CONTENT_LENGTH"]))
part, = email.message_from_bytes(head.encode() + body).get_payload()
content = part.get_payload(decode=True)
print("Content-Type: text/plain\\n")
print(part["Content-Disposition"], part["Content-Type"], len(content), set(content) == {ord("x")})
"""


class Apache(WebServerCases, PeerTest):
    def setUp(self):
        super().setUp()
        self.port = free_port()
        self.make_site()
        ha1 = hashlib.md5(b"us@er:digest cameras:se:cret").hexdigest()
        self.write("digest.users", f"us@er:digest cameras:{ha1}\n")
        subprocess.run(["htpasswd", "-cb", self.path("basic.users"), "us@er", "se:cret"],
                       check=True, capture_output=True)
        os.chmod(self.write("cgi/form", FORM), 0o755)
        modules = "\n".join(f"LoadModule {name}_module /usr/lib/apache2/modules/mod_{name}.so" for name in MODULES)
        config = self.write("httpd.conf", CONFIG.format(folder=self.folder, port=self.port, modules=modules) + "".join(
            PROTECTED.format(folder=self.folder, kind=kind, lower=kind.lower()) for kind in ("Basic", "Digest")))
        self.serve(self.port, "apache2", "-d", self.folder, "-f", config, "-D", "FOREGROUND")

    def test_digest(self):
        self.check_credentials("/digest/picture.jpg")

    def test_watch_with_digest(self):
        self.check_watch(5, 4, self.url("/digest/picture.jpg", "us%40er:se%3Acret@"))

    def test_form_upload_with_basic_and_digest(self):
        body = self.write("body.bin", "x" * 50000)
        for path in ("/basic/form", "/digest/form"):
            out, _ = self.check_tool(0, "get", self.url(path, "us%40er:se%3Acret@"), "--form", body, "--type", "image/jpeg")
            self.assertEqual(out, b'form-data; name="file"; filename="body.bin" image/jpeg 50000 True\n')

    def test_post_and_put_from_a_file(self):
        body = self.write("body.txt", "x" * 50000)
        for code, option in ((0, "--post"), (22, "--put")):
            self.check_tool(code, "get", self.url("/digest/picture.jpg", "us%40er:se%3Acret@"), option, body)


if __name__ == "__main__":
    unittest.main()
