"""Our server side of HTTP against curl, wrk, ab and python's http.client."""
import http.client
import json
import re
import socket
import subprocess
import unittest

from peers import PeerTest, demo


class HttpClients(PeerTest):
    @classmethod
    def setUpClass(cls):
        cls.child, cls.port, _ = cls.enterClassContext(demo("--cameras", "2"))

    def run_client(self, *arguments):
        return subprocess.run(arguments, capture_output=True, text=True, timeout=60)

    def test_curl_keeps_its_connection(self):
        base = f"http://127.0.0.1:{self.port}"
        result = self.run_client("curl", "-sv", base + "/", base + "/state.json", base + "/nothing")
        self.assertIn("Re-using existing connection", result.stderr)
        self.assertIn("HTTP/1.1 404 Not Found", result.stderr)
        head = self.run_client("curl", "-sI", base + "/")
        self.assertIn("HTTP/1.1 200 OK", head.stdout)
        old = self.run_client("curl", "-s0", base + "/state.json")
        self.assertEqual(len(json.loads(old.stdout)["cameras"]), 2)
        post = self.run_client("curl", "-s", "-H", "Expect: 100-continue", "--data-binary", "@/proc/self/exe", base + "/none")
        self.assertEqual((post.returncode, post.stdout), (0, "nothing here\n"), post.stderr)

    def test_wrk(self):
        result = self.run_client("wrk", "-t1", "-c32", "-d2s", f"http://127.0.0.1:{self.port}/nothing")
        self.assertNotIn("Socket errors", result.stdout)
        self.assertGreater(float(re.search(r"Requests/sec:\s+([\d.]+)", result.stdout).group(1)), 1000, result.stdout)

    def test_ab(self):
        for keep in ([], ["-k"]):
            result = self.run_client("ab", "-q", *keep, "-n", "2000", "-c", "20", f"http://127.0.0.1:{self.port}/state.json")
            self.assertRegex(result.stdout, r"Complete requests:\s+2000", result.stderr)
            self.assertRegex(result.stdout, r"(?s)Failed requests:\s+0|Length: \d+, Exceptions: 0")
            self.assertEqual("Keep-Alive requests:    2000" in result.stdout, bool(keep), result.stdout)

    def test_http_client(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        for _ in range(20):
            connection.request("GET", "/state.json")
            self.assertEqual(len(json.loads(connection.getresponse().read())["cameras"]), 2)
        connection.request("POST", "/none", body=iter([b"piece", b"by piece"]), encode_chunked=True,
                           headers={"Transfer-Encoding": "chunked"})
        answer = connection.getresponse()
        self.assertEqual((answer.status, answer.read()), (404, b"nothing here\n"))
        connection.close()

    def test_live_stream_is_multipart(self):
        with socket.create_connection(("127.0.0.1", self.port), 20) as s:
            s.sendall(b"GET /live/1 HTTP/1.1\r\nHost: localhost\r\n\r\n")
            received = b""
            while received.count(b"--nuvika-picture\r\n") < 5:
                received += s.recv(65536)
        sizes = [int(n) for n in re.findall(rb"Content-Length: (\d+)", received)]
        self.assertGreater(min(sizes), 500)

    def test_slow_viewers_cost_no_memory(self):
        def memory():
            with open(f"/proc/{self.child.pid}/status") as status:
                return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))
        before = memory()
        viewers = []
        for _ in range(10):
            s = socket.create_connection(("127.0.0.1", self.port), 20)
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            s.sendall(b"GET /live/1 HTTP/1.1\r\nHost: localhost\r\n\r\n")
            viewers.append(s)
        self.run_client("wrk", "-t1", "-c4", "-d6s", f"http://127.0.0.1:{self.port}/nothing")
        self.assertLess(memory() - before, 30000, "kB; a viewer that does not read skips pictures")
        for s in viewers:
            s.close()


if __name__ == "__main__":
    unittest.main()
