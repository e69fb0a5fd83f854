"""Where the board's parts lie, and the error that says that one of them can't be had."""

import contextlib
import fcntl
import os
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCES = ROOT / "board"
BUILD = ROOT / "build" / "board"
SYSROOT = BUILD / "sysroot"
KERNEL = BUILD / "kernel"

# Exit status of a command whose need can't be met on this machine now (EX_TEMPFAIL of sysexits.h).
CANNOT_BE_HAD = 75


class CannotBeHad(Exception):
    """Something that the board needs is missing and can't be got here; the text says what and why."""


def cache():
    """The folder that all clones of this user share."""
    base = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    return Path(base) / "zarvo"


@contextlib.contextmanager
def locked(path, waiting=None):
    """Holds the lock file `path`; calls `waiting` first when somebody else has it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "w", encoding="ascii") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            if waiting:
                waiting()
            fcntl.flock(lock, fcntl.LOCK_EX)
        yield
