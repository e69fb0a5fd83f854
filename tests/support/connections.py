"""Browsers as the daemon sees them, and messages to its control socket."""

import array
import contextlib
import select
import socket
import struct

from support.waiting import PATIENCE

SMALL_BUFFER = 4096  # bytes that a connection holds when nobody reads it; the kernel takes a little more


def tcp_pair(buffer_size):
    """Two ends of a connection over loopback. buffer_size: of each end; None: the kernel's default."""
    with socket.socket() as listener:
        if buffer_size:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, buffer_size)
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        near = socket.socket()
        if buffer_size:
            near.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer_size)
        near.connect(listener.getsockname())
        return near, listener.accept()[0]


def receive_all(connection):
    """Everything up to the end of the connection, which stays open here."""
    pieces = []
    while piece := connection.recv(1 << 16):
        pieces.append(piece)
    return b"".join(pieces)


class Browser:
    """A connection: the near end, and the far end until it has been sent to the daemon."""

    def __init__(self, tcp=False, buffer_size=None):
        if tcp:
            self.near, self.far = tcp_pair(buffer_size)
        else:
            self.near, self.far = socket.socketpair()
            if buffer_size:
                self.far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, buffer_size)
        self.near.settimeout(PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.near.close()
        self.far.close()

    def read(self, count):
        """Exactly `count` bytes, or fewer at the end of the connection."""
        data = b""
        while len(data) < count and (piece := self.near.recv(count - len(data))):
            data += piece
        return data

    def read_all(self):
        """Reads to the end of the connection and closes it."""
        data = receive_all(self.near)
        self.close()
        return data

    def is_silent(self, seconds=0.0):
        """True if neither a byte nor the end of the connection has arrived, or arrives within `seconds`."""
        poll = select.poll()
        poll.register(self.near, select.POLLIN)
        return not poll.poll(seconds * 1000)


def send_message(path, message, descriptors, end=True):
    """Sends one control message with `descriptors` on its first byte, and returns the connection. The daemon
    may hang up as soon as it has received enough.
    """
    connection = socket.socket(socket.AF_UNIX)
    # Python's own timeout makes the socket non-blocking: connecting would fail while the daemon's queue is full.
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", PATIENCE, 0))
    connection.connect(str(path))
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        if message:
            sent = connection.sendmsg([message], rights)
            connection.sendall(message[sent:])
        if end:
            connection.shutdown(socket.SHUT_WR)
    return connection


def listener_of(path):
    """The pid of the process that listens at a socket's path, or None."""
    with socket.socket(socket.AF_UNIX) as probe:
        probe.settimeout(PATIENCE)
        try:
            probe.connect(str(path))
        except (FileNotFoundError, ConnectionRefusedError):
            return None
        return struct.unpack("3i", probe.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]
