"""What the tool must manage with any web server; the server's own test gives the address and the files."""
import os

from peers import PICTURE


class WebServerCases:
    def url(self, path, user=""):
        return f"http://{user}127.0.0.1:{self.port}{path}"

    def test_body_of_known_length(self):
        self.assertEqual(self.check_tool(0, "get", self.url("/big.bin"))[0], self.big)

    def test_chunked_body(self):
        head, _, body = self.check_tool(0, "get", "-i", self.url("/page.shtml"))[0].partition(b"\r\n\r\n")
        self.assertIn(b"transfer-encoding: chunked", head.lower())
        self.assertTrue(body.startswith(b"<p>included</p>"), body[:80])
        self.assertEqual(len(body.strip()), len("<p>included</p>") + 300000)

    def test_status_codes(self):
        self.check_tool(22, "get", self.url("/missing"))

    def check_credentials(self, path):
        self.assertEqual(self.check_tool(0, "get", self.url(path, "us%40er:se%3Acret@"))[0], PICTURE)
        _, errors = self.check_tool(67, "get", self.url(path, "us%40er:wrong@"))
        self.assertEqual((errors.count("\n"), "refuses this user or password" in errors), (1, True), errors)
        self.check_tool(67, "get", self.url(path))

    def test_basic(self):
        self.check_credentials("/basic/picture.jpg")

    def test_watch_beyond_the_limit_of_kept_connections(self):
        # Three requests a connection, and more pictures than that: no interruption is counted.
        self.check_watch(7, 5, self.url("/basic/picture.jpg", "us%40er:se%3Acret@"))

    def make_site(self):
        self.big = os.urandom(7_000_001)
        self.write("www/big.bin", self.big)
        self.write("www/part.html", "<p>included</p>")
        self.write("www/page.shtml", '<!--#include virtual="/part.html" -->' + "x" * 300000 + "\n")
        self.write("www/basic/picture.jpg", PICTURE)
        self.write("www/digest/picture.jpg", PICTURE)
