"""nginx: Basic, chunked answers, limits of kept connections; ranges, downloads and uploads."""
import base64
import hashlib
import os
import pathlib
import subprocess
import sys
import unittest

from peers import PeerTest, free_port
from web_server_cases import WebServerCases

EXAMPLE = sys.argv.pop(1) if len(sys.argv) > 1 else "example_http_transfer"

CONFIG = """
  types {{ image/jpeg jpg; text/html html shtml; }}
  keepalive_requests 3;
  keepalive_timeout 2;
  server {{
    listen 127.0.0.1:{port};
    root {folder}/www;
    location ~ shtml$ {{ ssi on; }}
    location /dav {{
      dav_methods PUT;
      client_max_body_size 90m;
    }}
    location /basic {{
      auth_basic "cameras";
      auth_basic_user_file {folder}/users;
    }}
  }}
}}
"""


class Nginx(WebServerCases, PeerTest):
    def setUp(self):
        super().setUp()
        self.port = free_port()
        self.make_site()
        password = base64.b64encode(hashlib.sha1(b"se:cret").digest()).decode()
        self.write("users", "us@er:{SHA}" + password + "\n")
        self.nginx(self.port, CONFIG)

    def test_parts_of_a_file(self):
        self.write("www/digits.txt", "0123456789")
        url = f"http://127.0.0.1:{self.port}/digits.txt"
        for part in ("2-4", "7-", "-3", "0-99"):
            curl = subprocess.run(["curl", "-sr", part, url], capture_output=True, check=True, timeout=30).stdout
            self.assertEqual(self.check_tool(0, "get", "--range", part, url)[0], curl, part)
        self.check_tool(22, "get", "--range", "10-", "--output", self.path("none"), url)
        self.check_tool(2, "get", "--range", "4", url)
        self.check_tool(0, "get", "-r", "2-4", "-o", self.path("part"), url)
        self.assertEqual(pathlib.Path(self.path("part")).read_text(), "234")

    def test_a_file_comes_and_goes_in_pieces(self):
        content = os.urandom(80 << 20)
        stored = pathlib.Path(self.write("www/dav/large", content))
        os.chmod(stored.parent, 0o777)
        old = stored.stat().st_ino
        with subprocess.Popen([EXAMPLE, "127.0.0.1", str(self.port), "/dav/large", self.path("copy")],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as child:
            out, errors = child.communicate(timeout=60)
        self.assertEqual(child.returncode, 0, errors)
        self.assertEqual(out.count(b"of 83886080"), len(out.splitlines()))
        self.assertEqual(out.count(b"83886080 of"), 2)
        self.assertEqual(pathlib.Path(self.path("copy")).read_bytes(), content)
        self.assertNotEqual(stored.stat().st_ino, old, "nginx stores what is put in a new file")
        self.assertEqual(stored.read_bytes(), content)


if __name__ == "__main__":
    unittest.main()
