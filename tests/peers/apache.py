"""Apache httpd: Digest and Basic, chunked answers, limits of kept connections."""
import hashlib
import os
import subprocess
import unittest

from peers import PeerTest, free_port, process, tool, wait_for_port, watch
from web_server_cases import WebServerCases

CONFIG = """
ServerRoot "{folder}"
ServerName localhost
Listen 127.0.0.1:{port}
PidFile {folder}/httpd.pid
ErrorLog {folder}/error.log
LoadModule mpm_event_module {modules}/mod_mpm_event.so
LoadModule authn_core_module {modules}/mod_authn_core.so
LoadModule authn_file_module {modules}/mod_authn_file.so
LoadModule authz_core_module {modules}/mod_authz_core.so
LoadModule authz_user_module {modules}/mod_authz_user.so
LoadModule auth_basic_module {modules}/mod_auth_basic.so
LoadModule auth_digest_module {modules}/mod_auth_digest.so
LoadModule mime_module {modules}/mod_mime.so
LoadModule filter_module {modules}/mod_filter.so
LoadModule include_module {modules}/mod_include.so
LoadModule alias_module {modules}/mod_alias.so
LoadModule cgid_module {modules}/mod_cgid.so
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
<Location /basic>
  AuthType Basic
  AuthName "basic cameras"
  AuthUserFile {folder}/basic.users
  Require valid-user
</Location>
<Location /digest>
  AuthType Digest
  AuthName "digest cameras"
  AuthUserFile {folder}/digest.users
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
        subprocess.run(["htpasswd", "-cb", os.path.join(self.folder, "basic.users"), "us@er", "se:cret"],
                       check=True, capture_output=True)
        os.chmod(self.write("cgi/form", FORM), 0o755)
        self.write("httpd.conf", CONFIG.format(folder=self.folder, port=self.port, modules="/usr/lib/apache2/modules"))
        server = process(["apache2", "-d", self.folder, "-f", os.path.join(self.folder, "httpd.conf"), "-D", "FOREGROUND"])
        server.__enter__()
        self.addCleanup(server.__exit__, None, None, None)
        wait_for_port(self.port)

    def test_digest(self):
        self.check_credentials("/digest/picture.jpg")

    def test_watch_with_digest(self):
        pictures, interruptions, code, text = watch([self.url("/digest/picture.jpg", "us%40er:se%3Acret@")], 4)
        self.assertGreaterEqual(pictures, 5, text)
        self.assertEqual((interruptions, code), (0, 0), text)

    def test_form_upload_with_basic_and_digest(self):
        body = self.write("body.bin", "x" * 50000)
        for path in ("/basic/form", "/digest/form"):
            result = tool("get", self.url(path, "us%40er:se%3Acret@"), "--form", body, "--type", "image/jpeg")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(result.stdout.decode(),
                             'form-data; name="file"; filename="body.bin" image/jpeg 50000 True\n')

    def test_post_and_put_from_a_file(self):
        body = self.write("body.txt", "x" * 50000)
        for option in ("--post", "--put"):
            result = tool("get", self.url("/digest/picture.jpg", "us%40er:se%3Acret@"), option, body)
            self.assertEqual(result.returncode, 22 if option == "--put" else 0, result.stderr)


if __name__ == "__main__":
    unittest.main()
