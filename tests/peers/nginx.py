"""nginx: Basic, chunked answers, limits of kept connections."""
import base64
import hashlib
import os
import unittest

from peers import NGINX_HEAD, PeerTest, free_port, process, wait_for_port
from web_server_cases import WebServerCases

CONFIG = NGINX_HEAD + """
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
        config = self.write("nginx.conf", CONFIG.format(folder=self.folder, port=self.port))
        server = process(["nginx", "-p", self.folder, "-c", config, "-e", os.path.join(self.folder, "error.log")])
        server.__enter__()
        self.addCleanup(server.__exit__, None, None, None)
        wait_for_port(self.port)


if __name__ == "__main__":
    unittest.main()
