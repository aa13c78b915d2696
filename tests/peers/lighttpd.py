"""lighttpd: Digest with SHA-256, alone and beside MD5."""
import hashlib
import unittest
import urllib.parse

from peers import PICTURE, PeerTest, free_port
from web_server_cases import WebServerCases

CONFIG = """
server.modules = ("mod_auth", "mod_authn_file")
server.document-root = "{folder}/www"
server.errorlog = "{folder}/error.log"
server.bind = "127.0.0.1"
server.port = {port}
auth.backend = "htdigest"
auth.backend.htdigest.userfile = "{folder}/users"
auth.require = (
{rules}
)
"""
RULE = '  "/{path}/" => ("method" => "digest", "algorithm" => "{algorithm}", "realm" => "{path}", "require" => "valid-user")'
# Each: what is offered, and the only hash that the server has of a password.
PATHS = {"sha": ("SHA-256", hashlib.sha256), "md5": ("MD5", hashlib.md5),
         "both": ("MD5|SHA-256", hashlib.sha256)}
USERS = (("us@er", "se:cret"), ("J\u00e4s\u00f8n", "p\u00e4ss"))


class Lighttpd(PeerTest):
    url = WebServerCases.url
    check_credentials = WebServerCases.check_credentials

    def setUp(self):
        super().setUp()
        self.port = free_port()
        users = ""
        for path, (_, make) in PATHS.items():
            self.write(f"www/{path}/picture.jpg", PICTURE)
            for user, password in USERS:
                users += f"{user}:{path}:" + make(f"{user}:{path}:{password}".encode()).hexdigest() + "\n"
        self.write("users", users.encode())
        rules = ",\n".join(RULE.format(path=path, algorithm=offered) for path, (offered, _) in PATHS.items())
        config = self.write("lighttpd.conf", CONFIG.format(folder=self.folder, port=self.port, rules=rules))
        self.serve(self.port, "lighttpd", "-D", "-f", config)

    def test_digest(self):
        for path in PATHS:
            with self.subTest(path):
                self.check_credentials(f"/{path}/picture.jpg")

    def test_names_are_sent_in_utf8(self):
        user, password = map(urllib.parse.quote, USERS[1])
        self.assertEqual(self.check_tool(0, "get", self.url("/sha/picture.jpg", f"{user}:{password}@"))[0], PICTURE)


if __name__ == "__main__":
    unittest.main()
