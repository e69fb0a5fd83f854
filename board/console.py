"""Collects the output of the board's first serial line."""

import tempfile
import threading
import time

from places import BUILD

KEPT = 4 << 20  # last bytes kept in memory
TAIL = 2000  # bytes quoted in an error's text


class Console:
    """Collects what the socket `line` receives, in memory and in the file `log`, if given."""

    def __init__(self, line, log):
        self.line = line
        self.text = bytearray()
        self.file = open(log, "wb", buffering=0) if log else None
        self.thread = threading.Thread(target=self._collect, name="console", daemon=True)
        self.thread.start()

    def _collect(self):
        while got := self._receive():
            self.text += got
            del self.text[:-KEPT]
            if self.file:
                self.file.write(got)

    def _receive(self):
        try:
            return self.line.recv(65536)
        except OSError:
            return b""

    def finish(self):
        """Waits for the last output of an emulator that has ended."""
        self.thread.join(5)

    def close(self):
        self.finish()
        self.line.close()
        if self.file:
            self.file.close()

    def tail(self):
        """The last output so far."""
        return bytes(self.text[-TAIL:]).decode(errors="replace").replace("\r", "")

    def keep(self):
        """The path of a file with the output so far."""
        if self.file:
            return self.file.name
        logs = BUILD / "logs"
        logs.mkdir(parents=True, exist_ok=True)
        begin = time.strftime("console-%Y%m%d-%H%M%S-")
        handle, path = tempfile.mkstemp(prefix=begin, suffix=".log", dir=logs)
        with open(handle, "wb") as file:
            file.write(self.text)
        return path
