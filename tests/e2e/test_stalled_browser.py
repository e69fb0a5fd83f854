"""A browser that stops reading is dropped after 120 seconds; one that is slow is not. Takes minutes."""

import os
import threading
import time

import pytest

from zarvo_e2e import (
    BUSY_PAGE, COMPRESSED_HEAD, OFF, ON, PLAIN_HEAD, SANITIZE, assert_whole, body_of, children_of,
)  # fmt: skip

NEEDS_SANDBOX = True

LIMIT = 120         # seconds without progress
EARLIEST, LATEST = LIMIT - 5, LIMIT + 40
SLOW_RATE = 2048    # bytes a second
SLOW_TIME = LATEST + 5
ROOM = 4096

FAST = os.environ.get("ZARVO_FAST") == "1" and os.environ.get("ZARVO_SLOW") != "1"

pytestmark = [
    pytest.mark.skipif(FAST, reason="ZARVO_FAST=1: takes minutes"),
    pytest.mark.skipif(bool(SANITIZE), reason="waits for the clock, which the plain build shows as well"),
]


class Stalled:
    """A daemon with an archive whose browser reads the head and no more."""

    def __init__(self, daemon, path, head):
        self.daemon = daemon
        self.rest = daemon.rest()
        self.browser = daemon.ask(path, tcp=True, room=ROOM)
        assert self.browser.read(len(head)) == head
        self.begin = time.monotonic()
        self.took = None

    def look(self):
        if self.took is None and self.daemon.switches() == OFF + ON:
            self.took = time.monotonic() - self.begin


def read_slowly(browser, pieces):
    """Reads at the slow rate for the slow time, then as fast as it can to the end."""
    end = time.monotonic() + SLOW_TIME
    while time.monotonic() < end and (piece := browser.near.recv(SLOW_RATE // 4)):
        pieces.append(piece)
        time.sleep(0.25)
    pieces.append(browser.read_all())


def test_stalled_browser_is_dropped_after_120_s_and_a_slow_one_is_served_to_the_end(start):
    plain = Stalled(start(sockets=False), b"/x/debug.tar", PLAIN_HEAD)
    compressed = Stalled(start(sockets=False), b"/x/debug.tgz", COMPRESSED_HEAD)
    slow_daemon = start(sockets=False)
    pieces = []
    slow = slow_daemon.ask(b"/x/debug.tar", tcp=True, room=ROOM)
    reader = threading.Thread(target=read_slowly, args=(slow, pieces))
    reader.start()
    end = time.monotonic() + LATEST
    while time.monotonic() < end and None in (plain.took, compressed.took):
        time.sleep(0.2)
        plain.look()
        compressed.look()
    # Until the slow one, which has by now got a part only, takes up speed again.
    assert slow_daemon.switches() == OFF
    assert slow_daemon.answer(b"/x/debug.tar") == BUSY_PAGE
    for stalled in (plain, compressed):
        assert stalled.took is not None, "not dropped"
        assert EARLIEST <= stalled.took <= LATEST, stalled.took
        assert children_of(stalled.daemon.pid) == []
        stalled.daemon.wait_for_rest(stalled.rest)
        assert_whole(body_of(stalled.daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    reader.join()
    assert_whole(body_of(b"".join(pieces), PLAIN_HEAD))
