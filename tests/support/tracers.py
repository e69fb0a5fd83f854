"""Running tstrace and stopper."""

import os
import re
import signal
import subprocess

from support.processes import tracer_of
from support.under_test import BIN, SANITIZE
from support.waiting import PATIENCE, wait_for

TSTRACE, STOPPER = str(BIN / "tstrace"), str(BIN / "stopper")
LINE = re.compile(r"\[(\d+) ([^]]*)\] \[([0-9a-f]+) ([0-9a-f]+)\] (\w+)\((.*)\)( = (?:-?\d+|0x[0-9a-f]+))?")
BUSY_PROGRAM = ["sh", "-c", "while :; do read x < /dev/null; done"]  # makes system calls all the time


def program(name):
    """One of the tests' own programs (tests/e2e/programs)."""
    return str(BIN / f"e2e_{name}")


def calls_of(text):
    """(name, arguments, result) of each line about a system call. result: None on entry."""
    found = [LINE.fullmatch(line) for line in text.splitlines()]
    return [(match[5], match[6], match[7] and match[7][3:]) for match in found if match]


def run(*words, status=0, **how):
    """The standard output of a program that must end with `status`."""
    ran = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=PATIENCE, **how)
    assert ran.returncode == status, ran
    return ran.stdout.decode()


class Tracer:
    """A tracer that has attached to its processes, with its output in a file."""

    def __init__(self, folder, *pids, applet=TSTRACE):
        self.path = folder / f"trace{len(os.listdir(folder))}"
        words = [word for pid in pids for word in ("-p", str(pid))]
        with open(self.path, "wb") as out:
            self.process = subprocess.Popen([applet, *words], stdin=subprocess.DEVNULL, stdout=out)
        wait_for(lambda: all(map(tracer_of, pids)), "traced")

    def text(self):
        return self.path.read_text(errors="replace")

    def has_ended(self):
        if SANITIZE == "thread":
            # The thread sanitizer delays a signal until the next blocking call, which nothing else may
            # interrupt.
            self.process.send_signal(signal.SIGINT)
        return self.process.poll() is not None

    def interrupt(self):
        """Ends it as Ctrl-C does. It has a second for that."""
        self.process.send_signal(signal.SIGINT)
        wait_for(self.has_ended, "the tracer's end", PATIENCE if SANITIZE else 1)
        assert self.process.returncode == 0
