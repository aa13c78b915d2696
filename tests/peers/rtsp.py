"""RTSP with the servers of GStreamer and VLC: what the tool says of each kind of stream and of each failure, saves, and watches."""
import contextlib
import difflib
import os
import re
import resource
import socket
import subprocess
import sys
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from peers import PeerTest, TOOL, free_port, process, tool, wait_for_port
from recorder import answer, cameras, wait_for
from rtp import Relay, free_ports

UNITS = sys.argv.pop(1) if len(sys.argv) > 1 else "rtsp_units"
SYSTEM_PYTHON = "/usr/bin/python3"  # Debian's GStreamer bindings belong to it
SERVER = os.path.join(os.path.dirname(__file__), "rtsp_gstreamer_server.py")
SLICES = {"h264": lambda unit: 1 <= unit[0] & 31 <= 5, "h265": lambda unit: unit[0] >> 1 & 63 < 32, "jpeg": None, "aac": None}


@contextlib.contextmanager
def server(ports, *pem, address="127.0.0.1", prefix=()):
    with process([*prefix, SYSTEM_PYTHON, SERVER, address, *map(str, ports.values()), "100", *pem], stdout=subprocess.PIPE, text=True) as child, child.stdout:
        child.stdout.readline()
        yield child


@contextlib.contextmanager
def vlc(port, film):
    """VLC's RTSP output, which refuses to be root."""
    user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.getuid() == 0 else []
    with process([*user, "env", "HOME=/nonexistent", "cvlc", "--quiet", "--no-audio", film, "--sout", f"#rtp{{sdp=rtsp://127.0.0.1:{port}/both}}"]) as child:
        wait_for_port(port)
        yield child


def slices(name, codec):
    """What is coded in a file, picture by picture or piece by piece."""
    with open(name, "rb") as file:
        content = file.read()
    if codec == "aac":  # frames, each with its ADTS head
        frames = []
        while content:
            size = int.from_bytes(content[3:6], "big") >> 5 & 0x1FFF
            frames.append(content[:size])
            content = content[max(size, 7):]
        return frames
    if codec == "jpeg":  # behind the head of the scan, which each reader writes anew
        return [picture.split(b"\xff\xda", 1)[1][10:].rstrip(b"\xff\xd9") for picture in re.split(b"(?=\xff\xd8\xff)", content)[1:]]
    return [unit.rstrip(b"\0") for unit in re.split(b"\0\0\1", content)[1:] if SLICES[codec](unit)]


def decoded(name):
    """How many pictures ffmpeg makes of a file, and what it complains of."""
    result = subprocess.run(["ffmpeg", "-v", "error", "-i", name, "-f", "framemd5", "-"], capture_output=True, timeout=60)
    return len([line for line in result.stdout.splitlines() if not line.startswith(b"#")]), result.stderr


def pieces(source):
    while piece := source.recv(65536):
        yield piece


@contextlib.contextmanager
def between(port, to_server=pieces, to_client=pieces):
    """Stands in front of a server, and passes on what these make of either side's bytes. Yields its port."""
    def pump(made, target):
        with contextlib.suppress(OSError):
            for piece in made:
                target.sendall(piece)
            target.shutdown(socket.SHUT_WR)
    with socket.create_server(("127.0.0.1", 0)) as listener, contextlib.ExitStack() as stack:
        def serve():
            with contextlib.suppress(OSError):
                while True:
                    near = stack.enter_context(listener.accept()[0])
                    far = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
                    for arguments in ((to_server(near), far), (to_client(far), near)):
                        threading.Thread(target=pump, args=arguments, daemon=True).start()
        threading.Thread(target=serve, daemon=True).start()
        yield listener.getsockname()[1]
        listener.shutdown(socket.SHUT_RDWR)


@contextlib.contextmanager
def bad_link(port, drop, swap, to=None):
    """Before a server whose datagrams go through a relay, or to a port where nobody is. Yields port and relays."""
    relays = []

    def to_relay(found):
        at = free_ports()
        relays.append(Relay(at, to or int(found[1]), drop, swap))
        relays[-1].start()
        return b"client_port=%d-%d" % (at, at + 1)
    with between(port, lambda source: (re.sub(rb"client_port=(\d+)-\d+", to_relay, piece) for piece in pieces(source)),
                 lambda source: (re.sub(rb"server_port=\d+-\d+;", b"", piece) for piece in pieces(source))) as at:
        yield at, relays
        for relay in relays:
            relay.end()


def moved(packet, source, number, timestamp, seconds):
    """An RTP packet, or a sender report with its description, of a camera that has changed these; modulo their sizes."""
    report = (4, 4, source), (8, 4, seconds), (16, 4, timestamp), (32, 4, source)
    for at, size, what in report if packet[1] == 200 else ((2, 2, number), (4, 4, timestamp), (8, 4, source)):
        packet[at:at + size] = (int.from_bytes(packet[at:at + size], "big") + what & (1 << 8 * size) - 1).to_bytes(size, "big")
    return packet


def changing(port, after, *change):
    """Before a server whose interleaved packets are moved by this, behind so many."""
    def changed(source):
        data, count = b"", 0
        for piece in pieces(source):
            data += piece
            while data:
                text, mark, frame = data.partition(b"$")  # no head and no description has this sign
                size = int.from_bytes(frame[1:3], "big") + 3
                if mark and (len(frame) < 3 or len(frame) < size):
                    break
                data = frame[size:]
                count += len(mark)
                yield text + mark + frame[:3] + (moved(bytearray(frame[3:size]), *change) if mark and count > after else frame[3:size])
    return between(port, to_client=changed)


class Rtsp(PeerTest):
    def setUp(self):
        super().setUp()
        self.ports = {name: free_port() for name in ("plain", "digest", "basic", "tls")}
        self.port = self.ports["plain"]

    def url(self, path, credentials="", port=None, host="127.0.0.1"):
        return f"rtsp://{credentials}{host}:{port or self.port}/{path}"

    def film(self, seconds):
        subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=20", "-f", "lavfi", "-i", "sine", "-c:v", "libx264",
                        "-preset", "ultrafast", "-g", "20", "-c:a", "aac", "-t", str(seconds), self.path("film.mp4")], check=True, timeout=60)
        return self.path("film.mp4")

    def certificate(self):
        name = self.path("server.pem")  # with its key
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", name, "-out", name, "-subj", "/CN=x", "-addext",
                        "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True, timeout=60)
        return name

    def probe(self, url, *options):
        result = tool("rtsp", url, *options)
        return result.returncode, result.stdout.decode(), result.stderr.decode()

    def test_tells_what_a_camera_offers_and_sends(self):
        password = tool("password", "encode", input=b"p@ss").stdout.decode().strip()
        cases = (("h264", ("--tcp",), "TCP", r"1 video H264/90000 +avc1\.42c015, 320x240, 20 pictures/s as declared"),
                 ("h264", (), "UDP", r"1 video H264/90000 +avc1\.42c015"), ("h265", ("--tcp",), "TCP", r"1 video H265/90000 +hvc1\.1\.6\.L63"),
                 ("h265", ("--udp",), "UDP", r"hvc1\..*320x240"), ("jpeg", ("--tcp",), "TCP", r"1 video JPEG/90000 +jpeg"),
                 ("jpeg", (), "UDP", "jpeg"), ("aac", ("--tcp",), "TCP", r"1 audio MPEG4-GENERIC/44100 +mp4a\.40\.2, 44100 Hz, mono"),
                 ("aac", (), "UDP", r"mp4a"), ("both", ("--tcp",), "TCP", r"2 audio PCMU/8000 +ulaw, 8000 Hz, mono"), ("both", (), "UDP", "PCMU"),
                 ("tcp", (), "TCP", r"(?m)^TCP is tried next: the server refuses UDP \(461\)\.$"))
        runs = [(self.url(path), options, transport, says) for path, options, transport, says in cases]
        film, pem, film_port = self.film(20), self.certificate(), free_port()
        runs += [(self.url("h264", "viewer:p@ss@", self.ports["digest"]), (), "UDP", "H264"),
                 (self.url("h264", port=self.ports["digest"]), ("--tcp", "--user", "viewer", "--password", password), "TCP", "H264"),
                 (self.url("h264", "viewer:p@ss@", self.ports["basic"]), ("--tcp",), "TCP", "H264"),
                 (self.url("h264", port=self.ports["tls"]).replace("rtsp", "rtsps"), ("--ca", pem), "TCP", "H264"),
                 (self.url("both", port=film_port), (), "UDP", r"audio MPEG4-GENERIC/44100 +mp4a\.40\.2, 44100 Hz, mono")]
        with server(self.ports, pem), vlc(film_port, film), ThreadPoolExecutor(len(runs)) as pool:
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
        with server(self.ports):
            for url, options, code, says in (
                    (self.url("h264", port=self.ports["digest"]), (), 67, "it asks for user and password\nnuvika: name them: rtsp://USER:PASSWORD@"),
                    (self.url("h264", "viewer:no@", self.ports["digest"]), (), 67, "not accepted\nnuvika: check user and password"),
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
        with server(self.ports):
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
        film_port = free_port()

        def save(stream):
            codec, url, transport = stream
            kind = {"h265": "hevc", "jpeg": "mjpeg"}.get(codec, codec)
            ours, theirs = self.path(f"ours.{transport}.{kind}"), self.path(f"theirs.{transport}.{kind}")
            with process(["ffmpeg", "-v", "error", "-rtsp_transport", transport, "-i", url, "-t", "8", "-map", "0:a" if codec == "aac" else "0:v", "-c", "copy", theirs]) as peer:
                if codec == "aac":
                    result = subprocess.run([UNITS, url, ours, "5"], capture_output=True, timeout=60, text=True, env={**os.environ, "QT_LOGGING_RULES": "*=false"})
                    found = result.returncode, result.stdout, result.stderr
                else:
                    found = self.probe(url, "--" + transport, "--seconds", "5", "--save", ours)
                peer.wait(60)
            return codec, ours, theirs, *found
        streams = [(codec, self.url("shared/" + codec), "tcp") for codec in SLICES] + [(codec, self.url("both", port=film_port), "udp") for codec in ("h264", "aac")]
        with server(self.ports), vlc(film_port, self.film(30)), ThreadPoolExecutor(len(streams)) as pool:
            results = list(pool.map(save, streams))
        for codec, ours, theirs, code, text, errors in results:
            with self.subTest(ours):
                self.assertEqual((code, errors), (0, ""), text)
                a, b = slices(ours, codec), slices(theirs, codec)
                same = difflib.SequenceMatcher(None, a, b, False).find_longest_match()
                self.assertGreaterEqual(same.size, 40)
                self.assertEqual(min(same.a, same.b), 0, "the same from where the later one begins")
                self.assertTrue(same.a + same.size == len(a) or same.b + same.size == len(b), "to where the first one ends")
                if codec == "aac":
                    continue
                saved = int(re.search(r"(?m)^Saved (\d+) pictures", text).group(1))
                self.assertEqual(decoded(ours), (saved, b""), "every picture decodes, from the first on")

    def test_a_disk_that_fills_keeps_whole_pictures(self):
        name = os.path.join(self.folder, "short.h264")
        with server(self.ports):
            result = subprocess.run([TOOL, "rtsp", self.url("h264"), "--tcp", "--save", name], capture_output=True, timeout=60,
                                    preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (10000, 10000)))
        self.assertEqual((result.returncode, result.stderr.decode()), (23, f'nuvika: cannot write "{name}": File too large\n'))
        pictures, complaints = decoded(name)
        self.assertGreater(pictures, 5)
        begun = [unit for unit in slices(name, "h264") if unit[1] & 0x80]  # macroblock 0: a picture's first slice
        self.assertEqual((pictures, complaints), (len(begun), b""))

    def test_plays_from_a_group(self):
        ends = self.own_network("near"), self.own_network("far")
        subprocess.run(["ip", "-n", ends[0], "link", "add", "v", "type", "veth", "peer", "name", "v", "netns", ends[1]], check=True)
        near, far = (self.set_up_network(name, f"addr add 10.77.0.{i}/24 dev v", "link set v up", "route add 239.0.0.0/8 dev v") for i, name in enumerate(ends, 1))
        with server(self.ports, address="10.77.0.2", prefix=far):
            result, beside = (subprocess.run([*where, TOOL, "rtsp", self.url("group", host="10.77.0.2"), "--multicast", "--seconds", "3"],
                                             capture_output=True, timeout=60, text=True) for where in (near, far))
        self.assertEqual((result.returncode, result.stderr), (0, ""), result.stdout)
        self.assertRegex(result.stdout, r"Playing over multicast(?s:.*)\n1 video H264/90000: \d\d+ packets, 0 lost")
        self.assertEqual(beside.returncode, 1, "the server keeps the port for itself")
        self.assertRegex(beside.stderr, r"group \S+ cannot be joined on port 5004: Address already in use\nnuvika: another program on this machine")

    def test_a_camera_that_changes_in_the_middle_begins_a_new_run(self):
        # What is added to source, sequence number, media clock and wall clock; and what the tool finds.
        changes = {(0x5A5A5A5A, 30000, 1 << 30, 0): r"1 gaps\n(?s:.*) brought \d+ packets of another source",
                   (0, 30000, -1 << 30, 0): r"[01] gaps\n(?s:.*)All is well",
                   (0, 0, 0, -3600): r"has a clock that is 60 minutes behind ours"}
        with contextlib.ExitStack() as stack:
            stack.enter_context(server(self.ports))
            urls = [self.url("h264", port=stack.enter_context(changing(self.port, 200, *change))) for change in changes]
            config = self.write("watch.conf", "".join(f"url={url};transport=tcp\n" for url in [*urls, self.url("aac")]))
            page = free_port()
            stack.enter_context(process([TOOL, "watch", "--config", config, "--port", str(page)]))
            pool = stack.enter_context(ThreadPoolExecutor())
            *results, (_, grown, _) = pool.map(lambda url: self.probe(url, "--tcp", "--seconds", "12"), [*urls, self.url("sizes")])
            *watched, sound = cameras(page)
        self.assertEqual((sound["receiving"], sound["pictures"], sound["format"]), (True, 0, "MPEG4-GENERIC mp4a.40.2, 44100 Hz, mono"))
        self.assertRegex(grown, r"(?m)^ +\d s  1 video H264/90000  is now avc1\.42c01e, 640x480$")
        for (change, finding), (code, text, errors), camera in zip(changes.items(), results, watched):
            with self.subTest(change):
                self.assertRegex(text, finding)
                self.assertEqual((code, errors), (0, ""), text)
                self.assertEqual(text.count("begins a new run: it started again, or its clock was set"), 1, text)
                self.assertRegex(text, r"(?m)^1 \S+ \S+: \d{3,4} packets, 0 lost")
                self.assertEqual((camera["rtp"]["lost"], camera["interruptions"]), (0, 0), camera)
                periods = camera["rtp"]["periods"]
                self.assertTrue(3000 < sum(end - begin for begin, end in periods) < 20000, camera)
                self.assertLess(abs(camera["rtp"]["now"] / 1000 - time.time() - change[3]), 5, "by the camera's clock, as it is now")

    def test_watch_comes_back_to_servers_that_were_away(self):
        page, film_port = free_port(), free_port()
        film = self.film(60)

        def all_are(condition, what):
            wait_for(lambda: all(map(condition, cameras(page))), what, 60)
        urls = [self.url("both"), self.url("jpeg"), self.url("tcp"), self.url("both", port=film_port)]
        with process([TOOL, "watch", *urls, "--port", str(page), "--seconds", "150"]):
            wait_for_port(page)
            with server(self.ports) as peer, vlc(film_port, film) as other:
                all_are(lambda c: c["receiving"] and c["pictures"] > 30 and len(c["rtp"]["periods"]) == 1, "all play")
                peer.kill()
                other.kill()
            all_are(lambda c: not c["receiving"] and c["interruptions"] == 1 and c["rtp"]["rates"][-1] == 0, "all know that it has gone")
            seen = max(c["pictures"] for c in cameras(page))
            with server(self.ports), vlc(film_port, film):
                all_are(lambda c: c["receiving"] and c["pictures"] > seen + 40, "all play again")
                for camera in cameras(page):
                    self.assertEqual((camera["rtp"]["gaps"], camera["rtp"]["lost"]), (1, 0), camera)
                    self.assertLess(abs(camera["rtp"]["now"] / 1000 - time.time()), 5, "by the server's clock, which is ours")
                self.assertEqual([c["format"] for c in cameras(page)], ["H264 avc1.42c015, 320x240", "", "H264 avc1.42c015, 320x240", "H264 avc1.f4000c, 320x240"])
                picture = answer(page, "/picture/2")[1]
                self.assertEqual((picture[:2], picture[-2:]), (b"\xff\xd8", b"\xff\xd9"), "of a JPEG stream the page has pictures")


if __name__ == "__main__":
    unittest.main()
