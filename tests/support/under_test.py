"""What is tested: the built programs, or a machine that answers over HTTP."""

import os
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZARVO_BIN", ROOT / "build" / "host" / "bin")).resolve()
DAEMON = str(BIN / "debugar.cgi")
SANITIZE = os.environ.get("ZARVO_SANITIZE", "")  # "address", "thread" or nothing
FAST = os.environ.get("ZARVO_FAST") == "1" and os.environ.get("ZARVO_SLOW") != "1"  # leave out what takes a minute
REMOTE_URL = os.environ.get("ZARVO_URL", "").rstrip("/")  # another machine to test, if any


def without_leak_check():
    """An environment in which the address sanitizer does not look for leaks at exit. That check needs
    descriptors, may hang without them, and complains when the program is killed meanwhile."""
    return dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")
