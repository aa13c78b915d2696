"""The demo's page in headless Chromium: its pictures really move."""
import http.server
import os
import struct
import subprocess
import threading
import time
import unittest
import zlib

from peers import PeerTest, demo

WIDTH, HEIGHT = 720, 900
RED, GREEN = (0xF8, 0x51, 0x49), (0x3F, 0xB9, 0x50)


def pixels(path):
    """The rows of an 8-bit RGB or RGBA PNG, and its bytes per pixel."""
    with open(path, "rb") as file:
        data = file.read()
    at, packed = 8, b""
    while at < len(data):
        length, kind = struct.unpack(">I4s", data[at:at + 8])
        chunk = data[at + 8:at + 8 + length]
        if kind == b"IHDR":
            width, height, _, colour = struct.unpack(">IIBB", chunk[:10])
        elif kind == b"IDAT":
            packed += chunk
        at += 12 + length
    step = {2: 3, 6: 4}[colour]
    raw, stride, rows = zlib.decompress(packed), width * step, []
    above = bytearray(stride)
    for y in range(height):
        kind, row = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
        for i in range(stride if kind else 0):
            a, b = row[i - step] if i >= step else 0, above[i]
            if kind == 1:
                row[i] = (row[i] + a) & 255
            elif kind == 2:
                row[i] = (row[i] + b) & 255
            elif kind == 3:
                row[i] = (row[i] + (a + b) // 2) & 255
            else:
                c = above[i - step] if i >= step else 0
                p, q, r = abs(b - c), abs(a - c), abs(a + b - 2 * c)
                row[i] = (row[i] + (a if p <= q and p <= r else b if q <= r else c)) & 255
        rows.append(row)
        above = row
    return rows, step


class Frame(http.server.BaseHTTPRequestHandler):
    """A page around the demo's, whose load ends when the pictures have had time to move."""
    page = b""

    def do_GET(self):
        if self.path == "/late":
            time.sleep(2.5)
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(self.page if self.path == "/" else b"")

    def log_message(self, *_):
        pass


class Browser(PeerTest):
    def screenshot(self, port, name):
        path = os.path.join(self.folder, name)
        Frame.page = (f'<body style="margin:0"><iframe src="http://127.0.0.1:{port}/" style="border:0;width:{WIDTH}px;'
                      f'height:{HEIGHT}px"></iframe><img src="/late" style="display:none">').encode()
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Frame) as frame:
            threading.Thread(target=frame.serve_forever, daemon=True).start()
            subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                            "--disable-background-networking", "--disable-component-update", "--disable-sync",
                            f"--user-data-dir={self.folder}/profile-{name}", f"--window-size={WIDTH},{HEIGHT}",
                            f"--screenshot={path}", f"http://127.0.0.1:{frame.server_address[1]}/"],
                           check=True, capture_output=True, timeout=90)
            frame.shutdown()
        return pixels(path)

    def test_pictures_move(self):
        with demo("--cameras", "2") as (_, port):
            time.sleep(1)
            first, step = self.screenshot(port, "first.png")
            time.sleep(0.5)
            second, _ = self.screenshot(port, "second.png")
        # The street of the first camera, in both: coloured, so a picture is there, and not the same.
        changed = coloured = 0
        for y in range(0, len(first)):
            for x in range(30, 330):
                a, b = first[y][x * step:x * step + 3], second[y][x * step:x * step + 3]
                bright = max(a) - min(a) > 60
                coloured += bright
                changed += bright and max(abs(p - q) for p, q in zip(a, b)) > 60
        self.assertGreater(coloured, 10000, "a picture is on the page")
        self.assertGreater(changed, 500, "and it moves")
        self.assertEqual(self.count(second, step, RED), 0, "nothing is lost")
        self.assertGreater(self.count(second, step, GREEN), 300, "the recorded period is on the time line")

    def test_gaps_are_on_the_time_line(self):
        with demo("--cameras", "1", "--loss", "25") as (_, port):
            time.sleep(5)
            rows, step = self.screenshot(port, "gaps.png")
        self.assertGreater(self.count(rows, step, RED), 30)
        self.assertGreater(self.count(rows, step, GREEN), 30)

    def count(self, rows, step, colour):
        return sum(max(abs(p - q) for p, q in zip(row[x:x + 3], colour)) < 12
                   for row in rows for x in range(0, len(row), step))


if __name__ == "__main__":
    unittest.main()
