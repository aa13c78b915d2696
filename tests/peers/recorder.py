"""The recorder with cameras and viewers of every kind: what it saves, shows, counts, and whom it answers."""
import contextlib
import http.client
import json
import os
import pty
import re
import resource
import signal
import socket
import struct
import subprocess
import threading
import time
import unittest

from peers import PICTURE, PeerTest, TOOL, demo, free_ports, process, tool, wait_for

RECORDER = ["--port", "0", "--seconds", "3"]


def part(content, kind="image/jpeg"):
    return f"--x\r\nContent-Type: {kind}\r\nContent-Length: {len(content)}\r\n\r\n".encode() + content + b"\r\n"


@contextlib.contextmanager
def camera(*parts, seen=None, host="127.0.0.1"):
    """Sends these parts to each client that has asked, and then nothing more; yields its URL."""
    with socket.create_server((host, 0), family=socket.AF_INET6 if ":" in host else socket.AF_INET) as server, contextlib.ExitStack() as clients:
        def serve():
            with contextlib.suppress(OSError):
                while True:
                    client = clients.enter_context(server.accept()[0])
                    request = b""
                    while b"\r\n\r\n" not in request:
                        request += client.recv(65536)
                    if seen is not None:
                        seen.append(request.decode())
                    client.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=x\r\n\r\n" + b"".join(parts) + b"--x")
        threading.Thread(target=serve, daemon=True).start()
        yield f"http://{f'[{host}]' if ':' in host else host}:{server.getsockname()[1]}/live"
        server.shutdown(socket.SHUT_RDWR)


def answer(port, path, host=None):
    """Status and body of one request under this name."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
    with contextlib.closing(connection):
        connection.putrequest("GET", path, skip_host=host is not None)
        if host:
            connection.putheader("Host", host)
        connection.endheaders()
        response = connection.getresponse()
        return response.status, response.read()


def cameras(port):
    return json.loads(answer(port, "/state.json")[1])["cameras"]


def on_terminal(*arguments):
    """What the tool shows there until it ends."""
    main, side = pty.openpty()
    with open(main, "rb", buffering=0) as screen, process([TOOL, *arguments], stdout=side, stderr=side):
        os.close(side)
        text = b""
        with contextlib.suppress(OSError):
            while piece := screen.read(65536):
                text += piece
    return text.decode()


class Recorder(PeerTest):
    def test_pictures_that_cannot_be_saved_are_told_and_the_others_are_whole(self):
        small, large = PICTURE + b"s" * 100, PICTURE + b"l" * 5000
        folder = os.path.join(self.folder, "saved")

        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000))
        with camera(*[part(small), part(large)] * 20) as url:
            result = subprocess.run([TOOL, "watch", url, *RECORDER, "--save", folder], capture_output=True, preexec_fn=limit, timeout=60)
        text = result.stdout.decode()
        self.assertEqual(result.returncode, 23, text)
        self.assertIn("40 pictures", text)
        self.assertRegex(text, r"(?m)^ +\d s .*  20 pictures not saved \(File too large\)$")
        self.assertRegex(text, r"(?m)^20 pictures not saved \(File too large\)$")
        sizes = [os.path.getsize(os.path.join(folder, name)) for name in os.listdir(folder)]
        self.assertEqual(sizes, [len(small)] * 20, "whole pictures, and nothing else")

    def test_what_is_no_picture_is_named_and_not_saved(self):
        png = b"\x89PNG\r\n\x1a\n" + b"p" * 30
        for parts, code, pictures, says, endings in (
                ([part(b"login first", "text/plain")], 1, 0, "camera 1 delivered nothing: sends text/plain, no pictures", []),
                ([part(b"login first")], 1, 0, "camera 1 delivered nothing: sends image/jpeg that is no picture", []),
                ([part(b"")], 1, 0, "camera 1 delivered nothing: sends nothing in place of pictures", []),
                ([part(b"x", "text/\x1b[31mred")], 1, 0, "sends text/\\x1b[31mred, no pictures", []),
                ([part(PICTURE), part(b"busy", "text/plain"), part(png, "image/png")], 0, 2, "1 cameras, 2 pictures", ["jpg", "png"])):
            with self.subTest(says), camera(*parts) as url:
                folder = os.path.join(self.folder, str(len(os.listdir(self.folder))))
                text = self.check_tool(code, "watch", url, "--port", "0", "--seconds", "1", "--save", folder)[0].decode()
                self.assertIn(f"{pictures} pictures, ", text)
                self.assertIn(says, text)
                self.assertEqual(sorted(name.rsplit(".")[-1] for name in os.listdir(folder)), endings)

    def test_a_configured_camera_keeps_its_name_and_address(self):
        seen = []
        with camera(part(PICTURE), seen=seen) as url:
            config = self.write("cameras.conf", f"name=Gate %2 A%B;url={url}?token=YWJj==&a=b=c\n"
                                                f'name="semi;colon";url="{url}?a;b=="\n')
            text = on_terminal("watch", "--config", config, "--port", "0", "--seconds", "2")
        self.assertEqual(sorted(request.splitlines()[0] for request in seen), ["GET /live?a;b== HTTP/1.1", "GET /live?token=YWJj==&a=b=c HTTP/1.1"])
        self.assertRegex(text, r"\x1b\[2KGate %2 A%B +1 ")
        self.assertRegex(text, r"\x1b\[2Ksemi;colon +1 ")
        twice = self.write("twice.conf", "url=http://a/;url=http://b/\n")
        self.assertEqual(tool("watch", "--config", twice).stderr.decode(), f'nuvika: {twice}, line 1: "url" stands twice\n')

    def test_ipv6_addresses_stand_in_brackets(self):
        seen = []
        with camera(part(PICTURE), seen=seen, host="::1") as url:
            host = url.split("/")[2]
            self.check_tool(0, "watch", url, "--port", "0", "--seconds", "1")
            with process([TOOL, "get", url]):
                wait_for(lambda: len(seen) == 2, "both have asked")
        for request in seen:
            self.assertIn(f"\r\nHost: {host}\r\n", request)

    def test_the_page_answers_to_its_own_names_only(self):
        with demo("--cameras", "1", "--host", "Cams.example", "--host", "2001:db8::1") as (_, port, _):
            for host, status in (("localhost", 200), (f"localhost:{port}", 200), ("LOCALHOST.", 200), ("a.localhost:80", 200), ("127.0.0.1", 200),
                                 ("127.1.2.3:1", 200), ("[::1]", 200), (f"[::1]:{port}", 200), ("cams.EXAMPLE:8080", 200), ("[2001:db8::1]:80", 200),
                                 ("evil.example", 421), ("localhost.evil.example", 421), ("127.0.0.1.evil.example", 421), ("cams.example.org", 421),
                                 ("10.0.0.1", 421), ("[::2]", 421), ("evil.example@localhost", 421), ("localhost:80:80", 421), ("[::1", 421)):
                for path in ("/", "/state.json", "/picture/1"):
                    if status == 421 or path == "/state.json":
                        with self.subTest(host=host, path=path):
                            self.assertEqual(answer(port, path, host)[0], status)

    def test_viewers_of_a_camera_that_never_sends_are_forgotten(self):
        with camera() as url, process([TOOL, "watch", url, "--port", "0"], stdout=subprocess.PIPE, text=True) as child, child.stdout:
            port = int(re.search(r":(\d+)/", child.stdout.readline()).group(1))
            for _ in range(3):
                with contextlib.ExitStack() as viewers:
                    for _ in range(10):
                        viewer = viewers.enter_context(socket.create_connection(("127.0.0.1", port), 20))
                        viewer.sendall(b"GET /live/1 HTTP/1.1\r\nHost: localhost\r\n\r\n")
                        self.assertIn(b"200 OK", viewer.recv(4096))
                    wait_for(lambda: cameras(port)[0]["viewers"] == 10, "ten viewers")
                wait_for(lambda: cameras(port)[0]["viewers"] == 0, "none, once they have gone")

    def test_a_low_limit_of_descriptors_is_raised_or_told(self):
        def limited(soft, hard):
            return subprocess.run([TOOL, "demo", "--cameras", "10", *RECORDER], capture_output=True, timeout=60,
                                  preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard)))
        raised = limited(64, 4096)
        self.assertEqual((raised.returncode, raised.stderr), (0, b""), raised.stdout)
        low = limited(74, 74)
        self.assertEqual(low.returncode, 1, low.stdout)
        told = rb"\d+ of 8 RTP streams are not received: cannot receive on 127\.0\.0\.1 port 0: Too many open files\n"
        self.assertRegex(low.stderr, rb"\Anuvika: " + told + rb"\Z")
        self.assertRegex(low.stdout, told)

    def test_sender_reports_count_what_was_sent(self):
        group = socket.inet_aton("239.255.77.1") + socket.inet_aton("127.0.0.1")
        with contextlib.ExitStack() as stack:
            sockets = []
            for port in (5004, 5005):
                s = stack.enter_context(socket.socket(type=socket.SOCK_DGRAM))
                s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
                s.bind(("239.255.77.1", port))
                s.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, group)
                s.settimeout(20)
                sockets.append(s)
            with demo("--cameras", "1", "--multicast", "--loss", "10") as _:
                reports = [sockets[1].recv(2000) for _ in range(3)]
            packets = []
            sockets[0].settimeout(0.5)
            with contextlib.suppress(TimeoutError):
                while True:
                    packets.append(sockets[0].recv(2000))
        self.assertEqual(struct.unpack(">II", reports[0][20:28]), (0, 0), "the first goes in front of the first picture")
        for report in reports:
            ssrc, clock, count, octets = struct.unpack(">4xI8xIII", report[:28])
            before = [p for p in packets if struct.unpack(">I", p[4:8])[0] - clock & 1 << 31]
            payload = sum(len(p) - 12 - (p[-1] if p[0] & 0x20 else 0) for p in before)
            self.assertEqual((count, octets), (len(before), payload))
            self.assertEqual((report[28:30], report[32:36]), (b"\x81\xca", report[4:8]), "a description of this source follows")
        self.assertGreater(len(before), 100)


class Descriptions(PeerTest):
    def test_nothing_of_a_description_reaches_the_terminal_as_a_command(self):
        name = self.write("evil.sdp", "v=0\no=- 1 1 IN IP4 0.0.0.0\ns=\x1b]0;owned\x07\nc=IN IP4 127.0.0.1\nbad\x1b[2J\u202e\n"
                                      "m=vi\x1b[31mdeo 0 RTP/AVP 96\nm=audio 40404 RTP/AVP 97\na=rtpmap:97 \x9bred/8000\n")
        for arguments, shown in ((["sdp", name], ("bad\\x1b[2J\\u202e", "s=\\x1b]0;owned\\x07")),
                                 (["rtp", name, "--seconds", "1"], ("m=vi\\x1b[31mdeo", "audio \\x9bred/8000"))):
            text = on_terminal(*arguments)
            for harm in ("\x1b", "\x07", "\x9b", "\u202e"):
                self.assertNotIn(harm, text)
            for part_shown in shown:
                self.assertIn(part_shown, text)
        self.assertIn(b"s=\x1b]0;owned", tool("sdp", name).stdout, "a file gets the description as it is")
        odd = self.write("odd.sdp", "v=0\no=- 1 1 IN IP4 0.0.0.0\ns=x\n\rm=video 0 RTP/AVP 96\n")
        self.assertGreaterEqual(tool("sdp", odd).returncode, 0, "no signal ends it")

    def test_packets_after_the_last_whole_second_count(self):
        with socket.socket(type=socket.SOCK_DGRAM) as sender:
            sender.bind(("127.0.0.1", 0))
            port = free_ports()
            name = self.write("one.sdp", f"v=0\no=- 1 1 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nm=audio {port} RTP/AVP 0\n")
            with process([TOOL, "rtp", name], stdout=subprocess.PIPE, text=True) as child, child.stdout:
                child.stdout.readline()
                child.stdout.readline()  # a second's line: the next second has begun
                for number in (1, 2, 5):
                    sender.sendto(struct.pack(">BBHII", 0x80, 0, number, number * 160, 7) + b"x" * 160, ("127.0.0.1", port))
                child.send_signal(signal.SIGINT)
                self.assertRegex(child.stdout.read(), "(?m)^audio PCMU/8000: 3 packets, 2 lost")
                self.assertEqual(child.wait(10), 0)


if __name__ == "__main__":
    unittest.main()
