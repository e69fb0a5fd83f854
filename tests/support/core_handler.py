"""Running coredump-handler."""

import pathlib
import random
import subprocess

from support.under_test import BIN
from support.waiting import PATIENCE

HANDLER = str(BIN / "coredump-handler")
CONFIG = pathlib.Path("/etc/conf.d/debugar.cgi")
PROGRAM = ["4096", "!usr!bin!app", "app"]
CORE = b"\x7fELF" + random.Random(4).randbytes(300_000)
ERROR, WARNING, INFO = 11, 12, 14
BIG = 2**31 + 12_345


def logged(severity, text):
    """A line of the system log."""
    return f"<{severity}>coredump-handler: {text}"


def start_handler(*arguments, stdin=subprocess.PIPE, before=(), **popen):
    popen = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | popen
    return subprocess.Popen([*before, HANDLER, *arguments], stdin=stdin, **popen)


def handle(*arguments, core=CORE, **popen):
    """Runs the handler on `core`. Returns its exit status, and its standard output and error in one text."""
    process = start_handler(*arguments, **popen)
    out, err = process.communicate(core, PATIENCE)
    return process.returncode, out + err
