"""RTSP with GStreamer's server: what the tool says of each kind of stream and of each failure, saves, and watches."""
import contextlib
import difflib
import os
import re
import resource
import socket
import subprocess
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from peers import PeerTest, TOOL, free_port, process, tool, wait_for_port
from recorder import answer, cameras, wait_for
from rtp import Relay, free_ports

SYSTEM_PYTHON = "/usr/bin/python3"  # Debian's GStreamer bindings belong to it
SERVER = os.path.join(os.path.dirname(__file__), "rtsp_gstreamer_server.py")
SLICES = {"h264": lambda unit: 1 <= unit[0] & 31 <= 5, "h265": lambda unit: unit[0] >> 1 & 63 < 32}


@contextlib.contextmanager
def server(port, login_port, seconds=100):
    with process([SYSTEM_PYTHON, SERVER, str(port), str(login_port), str(seconds)], stdout=subprocess.PIPE, text=True) as child, child.stdout:
        child.stdout.readline()
        yield child


def slices(name, codec):
    with open(name, "rb") as file:
        return [unit.rstrip(b"\0") for unit in re.split(b"\0\0\1", file.read())[1:] if SLICES[codec](unit)]


def decoded(name):
    """How many pictures ffmpeg makes of a file, and what it complains of."""
    result = subprocess.run(["ffmpeg", "-v", "error", "-i", name, "-f", "framemd5", "-"], capture_output=True, timeout=60)
    return len([line for line in result.stdout.splitlines() if not line.startswith(b"#")]), result.stderr


@contextlib.contextmanager
def bad_link(port, drop, swap, to=None):
    """Stands in front of a server; its datagrams go through a relay, or to a port where nobody is. Yields port and relays."""
    relays = []

    def to_relay(found):
        at = free_ports()
        relays.append(Relay(at, to or int(found[1]), drop, swap))
        relays[-1].start()
        return b"client_port=%d-%d" % (at, at + 1)

    def pump(source, target, pattern, replacement):
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                target.sendall(re.sub(pattern, replacement, data))
            target.shutdown(socket.SHUT_WR)
    with socket.create_server(("127.0.0.1", 0)) as listener, contextlib.ExitStack() as stack:
        def serve():
            with contextlib.suppress(OSError):
                while True:
                    near = stack.enter_context(listener.accept()[0])
                    far = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
                    for arguments in ((near, far, rb"client_port=(\d+)-\d+", to_relay), (far, near, rb"server_port=\d+-\d+;", b"")):
                        threading.Thread(target=pump, args=arguments, daemon=True).start()
        threading.Thread(target=serve, daemon=True).start()
        yield listener.getsockname()[1], relays
        listener.shutdown(socket.SHUT_RDWR)
        for relay in relays:
            relay.end()


class Rtsp(PeerTest):
    def setUp(self):
        super().setUp()
        self.port, self.login_port = free_port(), free_port()

    def url(self, path, credentials="", port=None):
        return f"rtsp://{credentials}127.0.0.1:{port or self.port}/{path}"

    def probe(self, url, *options):
        result = tool("rtsp", url, *options)
        return result.returncode, result.stdout.decode(), result.stderr.decode()

    def test_tells_what_a_camera_offers_and_sends(self):
        login = self.login_port
        password = tool("password", "encode", input=b"p@ss").stdout.decode().strip()
        cases = (("h264", ("--tcp",), "TCP", r"1 video H264/90000 +avc1\.42c015, 320x240, 20 pictures/s as declared"),
                 ("h264", (), "UDP", r"1 video H264/90000 +avc1\.42c015"), ("h265", ("--tcp",), "TCP", r"1 video H265/90000 +hvc1\.1\.6\.L63"),
                 ("h265", ("--udp",), "UDP", r"hvc1\..*320x240"), ("jpeg", ("--tcp",), "TCP", r"1 video JPEG/90000 +jpeg"),
                 ("jpeg", (), "UDP", "jpeg"), ("aac", ("--tcp",), "TCP", r"1 audio MPEG4-GENERIC/44100 +mp4a\.40\.2, 44100 Hz, mono"),
                 ("aac", (), "UDP", r"mp4a"), ("both", ("--tcp",), "TCP", r"2 audio PCMU/8000 +ulaw, 8000 Hz, mono"), ("both", (), "UDP", "PCMU"),
                 ("tcp", (), "TCP", r"(?m)^TCP is tried next: the server refuses UDP \(461\)\.$"))
        runs = [(self.url(path), options, transport, says) for path, options, transport, says in cases]
        runs += [(self.url("h264", "viewer:p@ss@", login), (), "UDP", "H264"),
                 (self.url("h264", port=login), ("--tcp", "--user", "viewer", "--password", password), "TCP", "H264")]
        with server(self.port, login), ThreadPoolExecutor(len(runs)) as pool:
            results = list(pool.map(lambda run: self.probe(run[0], "--seconds", "4", *run[1]), runs))
        for (url, options, transport, says), (code, text, errors) in zip(runs, results):
            with self.subTest(url=url, options=options):
                self.assertEqual((code, errors), (0, ""), text)
                self.assertIn(f"Playing over {transport};", text)
                self.assertRegex(text, says)
                totals = re.findall(r"(?m)^\d \w+ \S+: (\d+) packets, 0 lost \(0\.00 %\), \d+ sender reports, 0 gaps$", text)
                self.assertEqual(len(totals), 2 if "/both" in url else 1, text)
                self.assertGreaterEqual(min(map(int, totals)), 20, text)
                self.assertIn("All is well: every track delivers, and nothing was lost.", text)
                self.assertNotIn("p@ss", text)

    def test_says_what_is_wrong_and_what_to_try(self):
        closed = free_port()
        with server(self.port, self.login_port):
            for url, options, code, says in (
                    (self.url("h264", port=self.login_port), (), 67, "it asks for user and password\nnuvika: name them: rtsp://USER:PASSWORD@"),
                    (self.url("h264", "viewer:no@", self.login_port), (), 67, "not accepted\nnuvika: check user and password"),
                    (self.url("none"), (), 22, "404 Not Found\nnuvika: the camera has no stream of this path"),
                    (self.url("tcp"), ("--udp",), 22, "461 Unsupported transport\nnuvika: the camera does not send this way"),
                    (self.url("h264", port=closed), (), 7, "Connection refused\nnuvika: nobody listens there"),
                    ("rtsp://nuvika.invalid/", (), 6, "nuvika: no such host is known"),
                    (self.url("h264").replace("rtsp", "rtsps"), (), 35, "does not speak TLS on this port\nnuvika: is this a port of rtsps?"),
                    (self.url("aac"), ("--save", os.path.join(self.folder, "a")), 1, "no track has H.264, H.265 or JPEG: nothing can be saved"),
                    (self.url("h264"), ("--tcp", "--save", "/dev/full"), 23, 'cannot write "/dev/full": No space left on device'),
                    (self.url("h264"), ("--tcp", "--udp"), 2, "rtsp takes one of --tcp, --udp and --multicast"),
                    ("http://127.0.0.1/", (), 2, "does not begin with rtsp://")):
                with self.subTest(url=url, options=options):
                    found, text, errors = self.probe(url, *options)
                    self.assertEqual(found, code, text + errors)
                    self.assertIn(says, errors)

    def test_a_bad_link_is_told_as_it_is(self):
        with server(self.port, self.login_port):
            with bad_link(self.port, 20, 7) as (port, relays):
                code, text, _ = self.probe(self.url("h264", port=port), "--seconds", "5")
                self.assertEqual(code, 0, text)
                packets, lost = map(int, re.search(r"(?m)^1 video H264/90000: (\d+) packets, (\d+) lost", text).groups())
                self.assertGreater(relays[0].swapped, 5)
                self.assertLessEqual(abs(relays[0].dropped - lost), 2, text + "what is only out of order is not lost")
                self.assertRegex(text, r"(?m)^Track 1 \(video\) lost \d\.\d\d % of its packets: try --tcp")
                self.assertRegex(text, r"\d+ damaged and left out")
            with bad_link(self.port, 1 << 30, 1 << 30, to=free_ports()) as (port, _), ThreadPoolExecutor(2) as pool:
                udp = pool.submit(self.probe, self.url("h264", port=port), "--udp")
                code, text, errors = self.probe(self.url("h264", port=port), "--seconds", "2")
                self.assertEqual((code, errors), (0, ""), text)
                self.assertIn("TCP is tried next: no packet came by UDP within 3 s.\n", text)
                code, text, errors = udp.result()
                self.assertEqual(code, 28, text)
                self.assertRegex(errors, r"no packet came within 10 s\nnuvika: a firewall or address translation may keep UDP away: try --tcp\n")

    def test_saves_the_slices_that_ffmpeg_gets_of_the_same_stream(self):
        # Who begins first differs, and where parameter sets and messages stand; the slices do not, to the byte.
        with server(self.port, self.login_port):
            for codec in SLICES:
                ours, theirs = os.path.join(self.folder, "ours." + codec), os.path.join(self.folder, "theirs." + codec)
                with self.subTest(codec), process(["ffmpeg", "-v", "error", "-rtsp_transport", "tcp", "-i", self.url("shared/" + codec), "-t", "8", "-c", "copy",
                                                   "-f", codec.replace("h265", "hevc"), theirs]) as peer:
                    code, text, errors = self.probe(self.url("shared/" + codec), "--tcp", "--seconds", "5", "--save", ours)
                    peer.wait(60)
                    self.assertEqual((code, errors), (0, ""), text)
                    a, b = slices(ours, codec), slices(theirs, codec)
                    same = difflib.SequenceMatcher(None, a, b, False).find_longest_match()
                    self.assertGreaterEqual(same.size, 40)
                    self.assertEqual(min(same.a, same.b), 0, "the same from where the later one begins")
                    self.assertTrue(same.a + same.size == len(a) or same.b + same.size == len(b), "to where the first one ends")
                    saved = int(re.search(r"(?m)^Saved (\d+) pictures", text).group(1))
                    self.assertEqual(decoded(ours), (saved, b""), "every picture decodes, from the first on")

    def test_a_disk_that_fills_keeps_whole_pictures(self):
        name = os.path.join(self.folder, "short.h264")
        with server(self.port, self.login_port):
            result = subprocess.run([TOOL, "rtsp", self.url("h264"), "--tcp", "--save", name], capture_output=True, timeout=60,
                                    preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (10000, 10000)))
        self.assertEqual((result.returncode, result.stderr.decode()), (23, f'nuvika: cannot write "{name}": File too large\n'))
        pictures, complaints = decoded(name)
        self.assertGreater(pictures, 5)
        begun = [unit for unit in slices(name, "h264") if unit[1] & 0x80]  # macroblock 0: a picture's first slice
        self.assertEqual((pictures, complaints), (len(begun), b""))

    def test_watch_comes_back_to_a_server_that_was_away(self):
        page = free_port()

        def all_are(condition, what):
            wait_for(lambda: all(map(condition, cameras(page))), what, 60)
        urls = [self.url("both"), self.url("jpeg"), self.url("tcp")]
        with process([TOOL, "watch", *urls, "--port", str(page), "--seconds", "150"]):
            wait_for_port(page)
            with server(self.port, self.login_port) as peer:
                all_are(lambda c: c["receiving"] and c["pictures"] > 30 and len(c["rtp"]["periods"]) == 1, "all play")
                peer.kill()
            all_are(lambda c: not c["receiving"] and c["interruptions"] == 1 and c["rtp"]["rates"][-1] == 0, "all know that it has gone")
            seen = max(c["pictures"] for c in cameras(page))
            with server(self.port, self.login_port):
                all_are(lambda c: c["receiving"] and c["pictures"] > seen + 40, "all play again")
                for camera in cameras(page):
                    self.assertEqual((camera["rtp"]["gaps"], camera["rtp"]["lost"]), (1, 0), camera)
                    self.assertLess(abs(camera["rtp"]["now"] / 1000 - time.time()), 5, "by the server's clock, which is ours")
                self.assertEqual([c["format"] for c in cameras(page)], ["H264 avc1.42c015, 320x240", "", "H264 avc1.42c015, 320x240"])
                picture = answer(page, "/picture/2")[1]
                self.assertEqual((picture[:2], picture[-2:]), (b"\xff\xd8", b"\xff\xd9"), "of a JPEG stream the page has pictures")


if __name__ == "__main__":
    unittest.main()
