"""What the tool must manage with any web server; the server's own test gives the address and the files."""
import os

from peers import PICTURE, tool


class WebServerCases:
    def url(self, path, user=""):
        return f"http://{user}127.0.0.1:{self.port}{path}"

    def test_body_of_known_length(self):
        result = tool("get", self.url("/big.bin"))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, self.big)

    def test_chunked_body(self):
        result = tool("get", "-i", self.url("/page.shtml"))
        head, _, body = result.stdout.partition(b"\r\n\r\n")
        self.assertIn(b"transfer-encoding: chunked", head.lower())
        self.assertTrue(body.startswith(b"<p>included</p>"), body[:80])
        self.assertEqual(len(body.strip()), len("<p>included</p>") + 300000)

    def test_status_codes(self):
        self.assertEqual(tool("get", self.url("/missing")).returncode, 22)

    def check_credentials(self, path):
        good = tool("get", self.url(path, "us%40er:se%3Acret@"))
        self.assertEqual((good.returncode, good.stdout), (0, PICTURE), good.stderr)
        bad = tool("get", self.url(path, "us%40er:wrong@"))
        self.assertEqual(bad.returncode, 67)
        self.assertEqual(bad.stderr.decode().count("\n"), 1)
        self.assertIn(b"refuses this user or password", bad.stderr)
        none = tool("get", self.url(path))
        self.assertEqual(none.returncode, 67)

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
