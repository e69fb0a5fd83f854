"""The system log in the sandbox."""

import pathlib
import re

from support.waiting import wait_for

SYSLOG = pathlib.Path("/run/log/messages")


class Log:
    """The lines that have been logged since this object was made."""

    def __init__(self):
        self.start = SYSLOG.stat().st_size

    def lines(self):
        with open(SYSLOG, "rb") as file:
            file.seek(self.start)
            return file.read().decode(errors="replace").splitlines()

    def wait(self, count):
        """Waits for `count` lines and returns them, without the timestamps that the C library adds."""
        wait_for(lambda: len(self.lines()) >= count, lambda: f"{count} lines: {self.lines()}")
        timestamp = r"^(<\d+>)[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d "
        return [re.sub(timestamp, r"\1", line) for line in self.lines()]


def log_error(pid, text):
    return f"<27>dbg-cgi[{pid}]: {text}"


def log_info(pid, text):
    return f"<30>dbg-cgi[{pid}]: {text}"
