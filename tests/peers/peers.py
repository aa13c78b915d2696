"""What the peer tests share: processes that end with the test, free ports, and the tool."""
import contextlib
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import unittest

TOOL = sys.argv.pop(1) if len(sys.argv) > 1 else "nuvika"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, seconds=20):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        with socket.socket() as s:
            if s.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.05)
    raise TimeoutError(f"nobody listens on port {port}")


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
    """The demo, ready to serve its page; yields the process and the page's port."""
    with process([TOOL, "demo", "--port", "0", "--seconds", "150", *arguments], stdout=subprocess.PIPE, text=True) as child:
        line = child.stdout.readline()
        port = int(re.search(r":(\d+)/", line).group(1))
        wait_for_port(port)
        yield child, port


def tool(*arguments, input=None, seconds=60):
    return subprocess.run([TOOL, *arguments], input=input, capture_output=True, timeout=seconds)


def watch(urls, seconds, *arguments):
    """Watches for a while; the summary's number of pictures and interruptions, and the exit code."""
    result = tool("watch", *urls, "--port", "0", "--seconds", str(seconds), *arguments, seconds=seconds + 30)
    found = re.search(rb"(\d+) pictures, .* (\d+) interruptions", result.stdout)
    return int(found.group(1)), int(found.group(2)), result.returncode, result.stdout.decode()


class PeerTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="nuvika-peer-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        os.chmod(self.folder, 0o755)

    def write(self, name, content):
        path = os.path.join(self.folder, name)
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
