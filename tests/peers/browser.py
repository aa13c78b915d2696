"""The demo's page in headless Chromium: its pictures really move."""
import subprocess
import time
import unittest

from peers import PeerTest, demo, web_server

WIDTH, HEIGHT = 720, 900
RED, GREEN = (0xF8, 0x51, 0x49), (0x3F, 0xB9, 0x50)


class Browser(PeerTest):
    def screenshot(self, port, name):
        """The rows of the page, each a list of colours."""
        frame = (f'<body style="margin:0"><iframe src="http://127.0.0.1:{port}/" style="border:0;width:{WIDTH}px;'
                 f'height:{HEIGHT}px"></iframe><img src="/late" style="display:none">').encode()

        def content(path):  # the load ends when the pictures have had time to move
            time.sleep(2.5 if path == "/late" else 0)
            return frame if path == "/" else b""

        with web_server(200, [("Content-Type", "text/html")], content) as address:
            subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                            "--disable-background-networking", "--disable-component-update", "--disable-sync",
                            f"--user-data-dir={self.folder}/profile-{name}", f"--window-size={WIDTH},{HEIGHT}",
                            f"--screenshot={self.path(name)}", f"http://{address}/"], check=True, capture_output=True, timeout=90)
        raw = subprocess.run(["ffmpeg", "-loglevel", "error", "-i", self.path(name), "-f", "rawvideo", "-pix_fmt", "rgb24", "-"],
                             check=True, stdout=subprocess.PIPE).stdout
        pixels = list(zip(raw[::3], raw[1::3], raw[2::3]))
        return [pixels[at:at + WIDTH] for at in range(0, len(pixels), WIDTH)]

    def test_pictures_move(self):
        with demo("--cameras", "2") as (_, port, _):
            time.sleep(1)
            first = self.screenshot(port, "first.png")
            time.sleep(0.5)
            second = self.screenshot(port, "second.png")
        # The street of the first camera, in both: coloured, so a picture is there, and not the same.
        street = [(a, b) for above, below in zip(first, second) for a, b in zip(above[30:330], below[30:330])
                  if max(a) - min(a) > 60]
        self.assertGreater(len(street), 10000, "a picture is on the page")
        self.assertGreater(sum(max(abs(p - q) for p, q in zip(a, b)) > 60 for a, b in street), 500, "and it moves")
        self.assertEqual(self.count(second, RED), 0, "nothing is lost")
        self.assertGreater(self.count(second, GREEN), 300, "the recorded period is on the time line")

    def test_gaps_are_on_the_time_line(self):
        with demo("--cameras", "1", "--loss", "25") as (_, port, _):
            time.sleep(5)
            rows = self.screenshot(port, "gaps.png")
        self.assertGreater(self.count(rows, RED), 30)
        self.assertGreater(self.count(rows, GREEN), 30)

    def count(self, rows, colour):
        return sum(max(abs(p - q) for p, q in zip(pixel, colour)) < 12 for row in rows for pixel in row)


if __name__ == "__main__":
    unittest.main()
