"""A daemon that the tests play themselves, for a web front."""

import array
import contextlib
import os
import socket
import threading

from support.waiting import PATIENCE


class FakeDaemon:
    """Receives connections as the daemon does, and calls `answer(message, descriptor)` for each."""

    def __init__(self, path, answer):
        self.path = path
        self.answer = answer
        self.messages = []
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(str(path))
        self.listener.listen(128)
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            peer = self.listener.accept()[0]
            with peer:
                message, passed = receive_message(peer)
            if message == b"stop" and not passed:
                return
            self.messages.append(message)
            assert len(passed) == 1, passed
            try:
                self.answer(message, passed[0])
            finally:
                os.close(passed[0])

    def stop(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as last:
            last.connect(str(self.path))
            last.sendall(b"stop")
        self.thread.join(PATIENCE)
        self.listener.close()
        assert not self.thread.is_alive()


def receive_message(peer):
    """The message and the descriptors that came with it."""
    peer.settimeout(PATIENCE)
    message, passed = b"", array.array("i")
    while True:
        data, extra, _, _ = peer.recvmsg(65536, socket.CMSG_SPACE(64 * passed.itemsize))
        for level, kind, content in extra:
            assert (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS)
            passed.frombytes(content)
        if not data:
            return message, list(passed)
        message += data


def write_all(fd, data):
    """Writes to a browser that may be gone."""
    unsent = memoryview(data)
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        while unsent:
            unsent = unsent[os.write(fd, unsent) :]


def echo(message, fd):
    write_all(fd, echoed(message))


def echoed(message):
    """The answer of echo()."""
    return b"HTTP/1.0 200 OK\r\n\r\n<" + message + b">"
