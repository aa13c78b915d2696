"""The command port, passwords and the configuration file; the openssl program reads and writes the crypto by itself."""
import base64
import hashlib
import os
import socket
import struct
import subprocess
import time
import unittest

from peers import PICTURE, PeerTest, TOOL, demo, process, tool, web_server

# The keys are the system's own fixed ones: whoever has the program has them.
FRAME_KEY = hashlib.sha256(bytes.fromhex("5ce1079a33b84fd2166da480fb29c75e")).hexdigest()[:32]
PASSWORD_KEY = hashlib.sha256(bytes.fromhex("a91f74c20e58bd63f02b974ce5813ad6")).hexdigest()[:32]


def openssl(direction, key, iv, data):
    return subprocess.run(["openssl", "enc", direction, "-aes-128-cbc", "-K", key, "-iv", iv.hex()], input=data,
                          stdout=subprocess.PIPE, check=True).stdout


class Control(PeerTest):
    def encoded(self, text):
        return self.check_tool(0, "password", "encode", input=text.encode() + b"\n")[0].decode().strip()

    def test_openssl_reads_our_password_strings(self):
        for text in ("secret", "with ; = : \" and ü"):
            marked = bytes.fromhex(self.encoded(text))
            self.assertEqual(struct.unpack(">5I", marked[:20]), (0xFFB0B80B, 2 * len(marked), len(marked) - 12, 0xFFFEEFEF, 16))
            self.assertEqual(struct.unpack(">I", marked[36:40]), (len(marked) - 40,))
            self.assertEqual(openssl("-d", PASSWORD_KEY, marked[20:36], marked[40:]).decode(), text)

    def test_we_read_password_strings_made_by_openssl(self):
        iv = os.urandom(16)
        cipher = openssl("-e", PASSWORD_KEY, iv, "geheim ß".encode())
        token = struct.pack(">II", 0xFFFEEFEF, 16) + iv + struct.pack(">I", len(cipher)) + cipher
        marked = struct.pack(">III", 0xFFB0B80B, 24 + 2 * len(token), len(token)) + token
        out, _ = self.check_tool(0, "password", "decode", input=marked.hex().encode() + b"\n")
        self.assertEqual(out.decode(), "geheim ß\n")
        self.check_tool(1, "password", "decode", input=b"plain\n")
        self.check_tool(26, "password", "decode", input=b"")
        self.check_tool(2, "password")

    def test_openssl_speaks_our_encrypted_frames(self):
        listener = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        with process([TOOL, "send", f"127.0.0.1:{listener.getsockname()[1]}", "do:it=now"], stdout=subprocess.PIPE) as child:
            peer, _ = listener.accept()
            with peer:
                magic, length = struct.unpack(">4sI", peer.recv(8, socket.MSG_WAITALL))
                self.assertEqual(magic, b"GEUD")
                token = peer.recv(length, socket.MSG_WAITALL)
                self.assertEqual(token[:12], b"cVfX" + struct.pack(">II", 17, 16))
                self.assertEqual(openssl("-d", FRAME_KEY, token[12:28], token[32:]), b"do:it=now")
                iv = os.urandom(16)
                cipher = openssl("-e", FRAME_KEY, iv, b"ok\nas you wish\n")
                answer = b"cVfX" + struct.pack(">II", 17, 16) + iv + struct.pack(">I", len(cipher)) + cipher
                for byte in b"GEUD" + struct.pack(">I", len(answer)) + answer:
                    peer.send(bytes([byte]))
                with child.stdout:
                    self.assertEqual(child.stdout.read(), b"as you wish\n")
            self.assertEqual(child.wait(10), 0)

    def test_status_and_commands_of_a_recorder(self):
        with demo("--cameras", "2") as (_, _, commands):
            time.sleep(3)
            lines = self.check_tool(0, "status", commands)[0].decode().splitlines()
            self.assertEqual([line.split()[0] for line in lines[1:]], ["cam_camera1_0001", "cam_camera2_0002"])
            self.assertRegex(lines[1], r"camera 1 +\d+\.\d +0\.\d\d +0\.\d\d +0\.00 +receiving +\d\d:\d\d:\d\d-\d\d:\d\d:\d\d")
            with process([TOOL, "status", commands, "--watch"], stdout=subprocess.PIPE, text=True) as watching, watching.stdout:
                for _ in range(3):
                    while "cam_camera2_0002" not in (line := watching.stdout.readline()):
                        self.assertTrue(line, "ended by itself")
            picture = tool("send", commands, "snapshot:camera=cam_camera2_0002").stdout
            self.assertTrue(picture.startswith(b"\xff\xd8") and picture.endswith(b"\xff\xd9"))
            for command, says in (("snapshot:camera=cam_x", 'no camera "cam_x"; status lists them'),
                                  ("dance", 'no command "dance"; help lists them')):
                self.assertEqual(self.check_tool(1, "send", commands, command)[1], f"nuvika: {says}\n")
            with socket.create_connection(commands.split(":")) as stranger:
                stranger.sendall(b"GET / HTTP/1.1\r\n\r\n" + b"GEUD" + struct.pack(">I", 4) + b"xxxx")
            self.assertEqual(tool("send", commands, "help").returncode, 0, "a stranger does no harm")
        self.check_tool(7, "status", commands)
        self.check_tool(2, "status", "nonsense")

    def test_watch_takes_its_cameras_from_a_file(self):
        password = "semi;colon=\"quoted\""
        user = "Basic " + base64.b64encode(b"viewer:" + password.encode()).decode()
        with web_server(200, [("Content-Type", "image/jpeg"), ("WWW-Authenticate", 'Basic realm="camera"')], PICTURE, user) as camera:
            line = f"name=Gate 7;url=http://{camera}/picture;user=viewer;password="
            good = self.write("good.conf", f"# the gate\n\n{line}{self.encoded(password)}\n")
            self.check_tool(0, "watch", "--config", good, "--port", "0", "--seconds", "3")
        marked = self.encoded("x")
        for text, reason in (
                (f"{line}plain", "line 1: the password is no marked hex string: make one with nuvika password encode"),
                (f"#\n{line}{marked[:-6]}", "line 2: the password's marked hex string is damaged"),
                ("\n\nname=Gate", "line 3: a camera needs url=..."),
                ("url=ftp://x/", "line 1: only http:// and https:// URLs are served, not ftp://"),
                ("url=http://u:p@x/", "line 1: the password stands in the URL: use password=, made by nuvika password encode"),
                ("url=http://x/;pasword=1", 'line 1: "pasword" is none of name, url, user, password, transport'),
                ("url=rtsp://x/;transport=smoke", 'line 1: "smoke" is none of tcp, udp, multicast'),
                ("url=rtsps://x/;transport=udp", "line 1: rtsps is for TCP only: datagrams would be sent in the clear"),
                ("url=http://x/;transport=tcp", "line 1: a transport is chosen for rtsp:// and rtsps:// only"),
                ("url=http://x/;user", 'line 1: "user" has no value')):
            name = self.write("bad.conf", text + "\n")
            self.assertEqual(self.check_tool(2, "watch", "--config", name)[1], f"nuvika: {name}, {reason}\n")


if __name__ == "__main__":
    unittest.main()
