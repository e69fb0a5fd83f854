"""Paths of the board's parts, and the error for a part that is missing."""

import contextlib
import fcntl
import os
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCES = ROOT / "board"
BUILD = ROOT / "build" / "board"
SYSROOT = BUILD / "sysroot"
KERNEL = BUILD / "kernel"

# Exit status of a command that needs something this machine cannot provide now (EX_TEMPFAIL of sysexits.h).
UNAVAILABLE = 75


class Unavailable(Exception):
    """Something the board needs is missing and cannot be downloaded; the text says what and why."""


def cache():
    """The cache folder, which all clones of this user share."""
    base = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    return Path(base) / "zarvo"


@contextlib.contextmanager
def locked(path, waiting=None):
    """Holds a lock on the file `path`. Calls `waiting` before it waits for another holder."""
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "w", encoding="ascii") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            if waiting:
                waiting()
            fcntl.flock(lock, fcntl.LOCK_EX)
        yield
