"""nginx: Basic, chunked answers, limits of kept connections."""
import base64
import hashlib
import unittest

from peers import PeerTest, free_port
from web_server_cases import WebServerCases

CONFIG = """
  types {{ image/jpeg jpg; text/html html shtml; }}
  keepalive_requests 3;
  keepalive_timeout 2;
  server {{
    listen 127.0.0.1:{port};
    root {folder}/www;
    location ~ shtml$ {{ ssi on; }}
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


if __name__ == "__main__":
    unittest.main()
