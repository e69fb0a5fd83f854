"""The connection to the agent on the board. It answers one request at a time.

The frames are described in agent.cc.
"""

import struct
import threading
import time

REQUEST_RUN, REQUEST_PUT, REQUEST_CLOCK = 1, 2, 3
ANSWER_READY, ANSWER_OUT, ANSWER_ERR, ANSWER_DONE = 1, 2, 3, 4
FINISH_EXITED, FINISH_SIGNALLED, FINISH_OUT_OF_TIME, FINISH_FAILED = 0, 1, 2, 3


class LineLost(Exception):
    """The board is silent or gone; the connection is no longer usable."""


class Line:
    """Owns the connected socket."""

    def __init__(self, socket):
        self.socket = socket
        self.turn = threading.Lock()
        self.lost = None  # why the connection is no longer usable

    def close(self):
        self.socket.close()

    def await_ready(self, limit):
        """Waits until the board has booted and takes requests."""
        kind, _ = self._answer(time.monotonic() + limit)
        if kind != ANSWER_READY:
            raise LineLost("the board's agent spoke out of turn")

    def ask(self, kind, content, limit, taken=None):
        """Makes one request. Returns (result, detail); passes output to taken(kind, bytes) as it comes.

        After the connection is lost, every further request fails at once instead of after its own limit.
        """
        with self.turn:
            if self.lost:
                raise LineLost(f"the board was lost before: {self.lost}")
            try:
                return self._converse(kind, content, time.monotonic() + limit, taken)
            except LineLost as lost:
                self.lost = lost
                raise

    def _converse(self, kind, content, until, taken):
        self._send(struct.pack("<II", kind, len(content)) + content, until)
        while True:
            answer, received = self._answer(until)
            if answer == ANSWER_DONE:
                return struct.unpack("<II", received)
            taken(answer, received)

    def _send(self, content, until):
        self.socket.settimeout(max(until - time.monotonic(), 0.001))
        try:
            self.socket.sendall(content)
        except OSError as error:
            raise LineLost(f"the board does not listen: {error}") from error

    def _answer(self, until):
        kind, length = struct.unpack("<II", self._receive(8, until))
        return kind, self._receive(length, until)

    def _receive(self, length, until):
        got = bytearray()
        while len(got) < length:
            left = until - time.monotonic()
            if left <= 0:  # also if bytes keep coming
                raise LineLost("the board does not answer in time")
            self.socket.settimeout(left)
            try:
                more = self.socket.recv(min(length - len(got), 1 << 20))
            except TimeoutError as error:
                raise LineLost("the board does not answer in time") from error
            except OSError as error:
                raise LineLost(f"the emulator has ended: {error}") from error
            if not more:
                raise LineLost("the emulator has ended")
            got += more
        return bytes(got)
