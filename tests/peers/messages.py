"""What the tool says and returns when something is wrong: one plain line, a code for scripts."""
import os
import re
import signal
import socket
import subprocess
import time
import unittest

from peers import PICTURE, TOOL, PeerTest, demo, free_port, process, tool, web_server

README = os.path.join(os.path.dirname(__file__), "..", "..", "README.md")
REFUSED = "http://127.0.0.1:1/"

# Each: exit code, what the one line on standard error holds, the arguments; FOLDER is the test's own.
FAULTS = (
    (6, 'no host "no-such-host.invalid" is known', "get", "http://no-such-host.invalid/"),
    (7, "http://127.0.0.1:1/: Connection refused", "get", REFUSED),
    (7, "http://[::1]:1/: Connection refused", "get", "http://[::1]:1/"),
    (2, '"http://" is no URL: it names no host', "get", "http://"),
    (2, '"http://h:99999/" is no URL: invalid port', "get", "http://user:secret@h:99999/"),
    (2, '"http://h:0/" is no URL: its port is 0', "get", "http://h:0/"),
    (2, "only http://", "get", "ftp://x/"),
    (2, "get takes one URL (nuvika get --help tells more)", "get"),
    (2, "get takes one URL", "get", REFUSED, REFUSED),
    (2, "unknown option 'nope' (nuvika get --help tells more)", "get", "--nope", REFUSED),
    (2, "missing value after '--ca'", "get", REFUSED, "--ca"),
    (2, "one of --post, --put and --form", "get", REFUSED, "--post", "/dev/null", "--put", "/dev/null"),
    (26, 'cannot read "FOLDER/none": No such file', "get", REFUSED, "--post", "FOLDER/none"),
    (26, 'cannot read "FOLDER"', "get", REFUSED, "--post", "FOLDER"),
    (26, 'cannot read ""', "get", REFUSED, "--ca", ""),
    (2, "--cameras takes a number from 1 to 1000", "demo", "--cameras", "many"),
    (2, "demo takes options only", "demo", "extra"),
    (2, "unknown option 'nope'", "demo", "--nope"),
    (2, "--host takes a name", "demo", "--host", "name:80"),
    (2, "--host takes a name", "demo", "--host", ""),
    (2, "watch takes the URLs", "watch"),
    (26, 'cannot read "FOLDER/none": No such file', "watch", "--config", "FOLDER/none"),
    (26, 'cannot read ""', "watch", "--config", ""),
    (26, 'cannot read "/dev/zero": it is too large', "watch", "--config", "/dev/zero"),
    (23, 'cannot save pictures in "/dev/null/x"', "watch", REFUSED, "--save", "/dev/null/x"),
    (23, 'cannot save pictures in ""', "watch", REFUSED, "--save", ""),
    (2, "send takes HOST:PORT and a command", "send", "127.0.0.1:1", ""),
    (2, "send takes HOST:PORT and a command", "send", "127.0.0.1:1"),
    (2, '"127.0.0.1" is no HOST:PORT', "send", "127.0.0.1", "help"),
    (7, "refused", "send", "127.0.0.1:1", "help"),
    (2, "status takes one HOST:PORT", "status", "127.0.0.1:1", "127.0.0.1:2"),
    (2, '"h:1#x" is no HOST:PORT', "status", "h:1#x"),
    (2, "password takes encode or decode", "password", "both"),
    (2, "sdp takes one file", "sdp"),
    (26, 'cannot read "FOLDER"', "sdp", "FOLDER"),
    (26, 'cannot read "/dev/zero": it is too large', "sdp", "/dev/zero"),
    (2, "--interface takes an IP address", "rtp", "--interface", "", "x.sdp"),
)


class Messages(PeerTest):
    def test_faults(self):
        for code, text, *arguments in FAULTS:
            with self.subTest(arguments):
                _, errors = self.check_tool(code, *(a.replace("FOLDER", self.folder) for a in arguments))
                self.assertIn(text.replace("FOLDER", self.folder), errors)
                self.assertEqual(errors.count("\n"), 1, errors)
                self.assertNotIn("secret", errors)
        with socket.create_server(("127.0.0.1", 0)) as taken:
            _, errors = self.check_tool(1, "demo", "--port", str(taken.getsockname()[1]), "--seconds", "1")
        self.assertIn("cannot listen on port", errors)
        self.check_tool(2, "nonsense")

    def test_help_and_readme_have_one_table_of_exit_codes(self):
        table = tool("--help").stdout.decode().split("Exit codes:\n")[1].splitlines()
        with open(README) as file:
            readme = re.findall(r"^    ( {2,3}\d+  .*)$", file.read(), re.M)
        self.assertEqual(readme, table)
        codes = [int(line.split()[0]) for line in table]
        self.assertEqual(codes, sorted(set(codes)))
        self.assertLessEqual({fault[0] for fault in FAULTS}, set(codes))

    def test_output_that_cannot_be_written(self):
        description = self.write("x.sdp", "v=0\no=- 1 1 IN IP4 0.0.0.0\ns=x\nm=audio 9 RTP/AVP 0\n")
        with demo("--cameras", "1") as (_, page, commands):
            for arguments in (["--help"], ["get", "--help"], ["sdp", description], ["password", "encode"], ["send", commands, "help"],
                              ["status", commands], ["status", commands, "--watch"], ["get", f"http://127.0.0.1:{page}/"],
                              ["get", f"http://127.0.0.1:{page}/live/1"], ["get", "-i", f"http://127.0.0.1:{page}/state.json"],
                              ["demo", "--cameras", "1", "--port", "0", "--seconds", "2"]):
                for output in ("/dev/full", None):
                    with self.subTest([arguments, output]), open(output or os.devnull, "wb") as full:
                        result = subprocess.run([TOOL, *arguments] if output else ["sh", "-c", 'exec "$@" >&-', "sh", TOOL, *arguments],
                                                stdout=full, stderr=subprocess.PIPE, input=b"x\n", timeout=30)
                        self.assertEqual(result.returncode, 23, result.stderr)
                        reason = b"No space left on device" if output else b"Bad file descriptor"
                        self.assertEqual(result.stderr.splitlines()[-1], b"nuvika: cannot write standard output: " + reason)

    def test_numbers_look_the_same_in_every_country(self):
        subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", self.folder + "/de_DE.UTF-8"], check=True, capture_output=True)
        result = subprocess.run([TOOL, "demo", "--cameras", "1", "--port", "0", "--seconds", "2"], capture_output=True, timeout=30,
                                env=dict(os.environ, LOCPATH=self.folder, LC_ALL="de_DE.UTF-8"))
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout, rb"\d\.\d\d Mbit/s  RTP \d\.\d\d Mbit/s, 0\.00 % lost\n")

    def test_passwords_that_would_not_come_back(self):
        for text, code, says in ((b"a\0b", 1, "zero byte"), (b"\xff\xfe", 1, "not plain UTF-8"), (b"\xef\xbb\xbfx", 1, "not plain UTF-8"),
                                 (b"a" * 65537, 1, "longer than 65536 bytes"), (b"", 26, "nothing on standard input")):
            for end in (b"\n", b""):
                with self.subTest(text=text[:9], end=end):
                    out, errors = self.check_tool(code, "password", "encode", input=text + end)
                    self.assertEqual((out, says in errors), (b"", True), errors)
        for text in (b"a" * 65536, "\u00fc \U0001f511".encode(), b" \t ", b"ends in CR\r"):
            marked = tool("password", "encode", input=text + b"\r\n").stdout
            self.assertEqual(tool("password", "decode", input=marked).stdout, text + b"\n")

    def test_answers_that_are_no_http(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            with process([TOOL, "get", f"http://127.0.0.1:{server.getsockname()[1]}/"], stderr=subprocess.PIPE) as child, child.stderr:
                with server.accept()[0] as connection:
                    connection.sendall(b"SSH-2.0-peer\r\n\r\n")
                    self.assertIn(b"no HTTP", child.stderr.read())
                self.assertEqual(child.wait(20), 56)

    def test_watch_goes_on_after_its_camera_comes_back(self):
        port = free_port()
        url = f"http://127.0.0.1:{port}/picture.jpg"
        with process([TOOL, "watch", url, "--port", "0", "--seconds", "60"], stdout=subprocess.PIPE, text=True) as child:
            time.sleep(1.5)  # refused
            with socket.create_server(("127.0.0.1", port)) as server:
                server.settimeout(20)
                connection, _ = server.accept()
                connection.recv(4096)
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\nContent-Length: 22\r\n\r\n" + PICTURE)
                time.sleep(0.3)
                connection.close()
            child.send_signal(signal.SIGINT)
            text, _ = child.communicate(timeout=20)
        self.assertEqual(child.returncode, 0, text)
        self.assertRegex(text, r"1 cameras, 1 pictures")

    def test_demo_serves_hundreds_of_cameras(self):
        out, _ = self.check_tool(0, "demo", "--cameras", "100", "--port", "0", "--seconds", "5")
        self.assertIn(b"100 of 100 cameras receiving", out)
        rates = [float(r) for r in re.findall(rb"([\d.]+) pictures/s", out)]
        self.assertGreater(rates[-1], 600, "pictures a second; the cameras send 1200")

    def test_wrong_password_of_a_camera(self):
        with web_server(401, [("WWW-Authenticate", 'Digest realm="r", nonce="n", qop="auth"')]) as camera:
            out, _ = self.check_tool(1, "watch", f"http://u:wrong@{camera}/", "--port", "0", "--seconds", "2")
        self.assertIn(b"delivered nothing: wrong user or password", out)


if __name__ == "__main__":
    unittest.main()
