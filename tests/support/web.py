"""The web front as a process, and HTTP requests."""

import contextlib
import os
import re
import select
import socket
import subprocess
import urllib.parse

from support.connections import receive_all
from support.under_test import BIN
from support.waiting import PATIENCE

HTTP_PATIENCE = 240  # on a busy machine, an emulated board may take this long to compress the first block


class Front:
    """A running web front, for the daemon at the usual socket or at `socket_path`."""

    def __init__(self, *words, socket_path=None):
        words = [BIN / "webfront", "--port", "0", *(["--socket", str(socket_path)] if socket_path else []), *words]
        self.process = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert select.select([self.process.stdout], [], [], PATIENCE)[0], "webfront printed nothing"
        line = self.process.stdout.readline().decode()
        found = re.fullmatch(r"(http://127\.0\.0\.1:(\d+))/\n", line)
        assert found, line
        self.url, self.port = found[1], int(found[2])

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=PATIENCE)

    def head(self, target, method="GET", version="1.1", host=None, fields=""):
        host = f"127.0.0.1:{self.port}" if host is None else host
        return f"{method} {target} HTTP/{version}\r\nHost: {host}\r\n{fields}\r\n".encode()

    def exchange(self, request):
        """Sends the request and returns everything up to the end of the connection."""
        with self.connect() as client:
            client.sendall(request)
            return receive_all(client)

    def get(self, target, **how):
        return self.exchange(self.head(target, **how))

    def sockets(self):
        """The number of open sockets. An idle front has one, its listener."""
        count = 0
        for fd in os.listdir(f"/proc/{self.process.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):  # closed since it was listed
                count += os.readlink(f"/proc/{self.process.pid}/fd/{fd}").startswith("socket:")
        return count

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        out, err = self.process.communicate(timeout=PATIENCE)
        assert (self.process.returncode, out, err) == (0, b"", b"")


def http_open(base_url, target, buffer_size=None):
    """Sends a GET request and returns the socket, from which the answer can be read."""
    address = urllib.parse.urlsplit(base_url)
    client = socket.socket()
    if buffer_size:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer_size)
    client.settimeout(HTTP_PATIENCE)
    client.connect((address.hostname, address.port or 80))
    client.sendall(f"GET {target} HTTP/1.1\r\nHost: {address.netloc}\r\n\r\n".encode())
    return client


def http_get(base_url, target):
    """The whole answer, byte for byte."""
    with http_open(base_url, target) as client:
        return receive_all(client)
