"""What the peer tests share: processes that end with the test, free ports, and the tool."""
import contextlib
import http.server
import os
import re
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

TOOL = sys.argv.pop(1) if len(sys.argv) > 1 else "nuvika"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def free_ports():
    """A first port, even, with three free ones behind it, of datagrams."""
    while True:
        first = free_port() & ~1
        with contextlib.ExitStack() as stack, contextlib.suppress(OSError):
            for port in range(first, first + 4):
                stack.enter_context(socket.socket(type=socket.SOCK_DGRAM)).bind(("", port))
            return first


def wait_for(condition, what, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(what)
        time.sleep(0.05)


def wait_for_port(port):
    def answers():
        with socket.socket() as s:
            return s.connect_ex(("127.0.0.1", port)) == 0
    wait_for(answers, f"nobody listens on port {port}")


@contextlib.contextmanager
def process(arguments, **options):
    options.setdefault("stdout", subprocess.DEVNULL)
    options.setdefault("stderr", subprocess.DEVNULL)
    child = subprocess.Popen(arguments, **options)
    try:
        yield child
    finally:
        child.terminate()
        try:
            child.wait(10)
        except subprocess.TimeoutExpired:
            child.kill()
            child.wait()


@contextlib.contextmanager
def demo(*arguments):
    """The demo, ready to serve its page; yields the process, the page's port and the commands' address."""
    with process([TOOL, "demo", "--port", "0", "--seconds", "150", *arguments], stdout=subprocess.PIPE, text=True) as child, child.stdout:
        port = int(re.search(r":(\d+)/", child.stdout.readline()).group(1))
        commands = child.stdout.readline().rsplit(":", 1)[1].strip()
        wait_for_port(port)
        yield child, port, "127.0.0.1:" + commands


@contextlib.contextmanager
def web_server(status, fields=(), content=None, user=None, tls=None):
    """Answers each GET with these; with 401 and these fields to who sends no such Authorization. Yields host and port."""
    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            body = content(self.path) if callable(content) else content or b""
            good = user is None or self.headers.get("Authorization") == user
            self.send_response(status if good else 401)
            for name, value in (*fields, ("Content-Length", len(body) if good else 0)):
                self.send_header(name, str(value))
            self.end_headers()
            self.wfile.write(body if good else b"")

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        if tls:
            server.socket = tls.wrap_socket(server.socket, server_side=True)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"127.0.0.1:{server.server_address[1]}"
        server.shutdown()


def tool(*arguments, input=None, seconds=60):
    return subprocess.run([TOOL, *arguments], input=input, capture_output=True, timeout=seconds)


def watch(url, seconds, *arguments):
    """Watches for a while; the summary's number of pictures and interruptions, and the exit code."""
    result = tool("watch", url, "--port", "0", "--seconds", str(seconds), *arguments, seconds=seconds + 30)
    found = re.search(rb"(\d+) pictures, .* (\d+) interruptions", result.stdout)
    return int(found.group(1)), int(found.group(2)), result.returncode, result.stdout.decode()


class PeerTest(unittest.TestCase):
    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="nuvika-peer-"))
        os.chmod(self.folder, 0o755)

    def path(self, name):
        return os.path.join(self.folder, name)

    def own_network(self, purpose):
        """The name of a network namespace that is there until the test's end."""
        name = f"nuvika{os.getpid()}{purpose}"
        if subprocess.run(["ip", "netns", "add", name], stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no network namespaces are allowed here")
        self.addCleanup(subprocess.run, ["ip", "netns", "del", name])
        return name

    def set_up_network(self, name, *commands):
        """Commands of ip; returns what a command begins with to run there."""
        for command in ("link set lo up", *commands):
            subprocess.run(["ip", "-n", name, *command.split()], check=True)
        return ["ip", "netns", "exec", name]

    def serve(self, port, *command):
        """A server that runs until the test's end."""
        self.enterContext(process(command))
        wait_for_port(port)

    def nginx(self, port, config):
        config = self.write("nginx.conf", (NGINX_HEAD + config).format(folder=self.folder, port=port))
        self.serve(port, "nginx", "-p", self.folder, "-c", config, "-e", self.path("error.log"))

    def check_tool(self, code, *arguments, **options):
        """Runs the tool to this exit code; returns what it wrote to its output, and to its errors as text."""
        result = tool(*arguments, **options)
        self.assertEqual(result.returncode, code, result.stderr or result.stdout)
        return result.stdout, result.stderr.decode()

    def check_watch(self, least, seconds, url, *arguments):
        """Watches one camera: so many pictures at least, no interruption; returns how many."""
        pictures, interruptions, code, text = watch(url, seconds, *arguments)
        self.assertGreaterEqual(pictures, least, text)
        self.assertEqual((interruptions, code), (0, 0), text)
        return pictures

    def write(self, name, content):
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb" if isinstance(content, bytes) else "w") as file:
            file.write(content)
        return path


# An nginx that keeps to its folder; its http section is open.
NGINX_HEAD = """
daemon off;
user root;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{ worker_connections 256; }}
http {{
  access_log off;
  client_body_temp_path {folder}/body;
  proxy_temp_path {folder}/proxy;
  fastcgi_temp_path {folder}/fastcgi;
  uwsgi_temp_path {folder}/uwsgi;
  scgi_temp_path {folder}/scgi;
"""

# The smallest picture that is one.
PICTURE = bytes.fromhex("ffd8ffe000104a46494600010100000100010000ffd9")
