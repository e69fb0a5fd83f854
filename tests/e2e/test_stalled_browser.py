"""A browser that stops reading is dropped after 120 seconds. A slow one is not. Takes minutes."""

import threading
import time

import pytest

from support.answers import BUSY_PAGE, COMPRESSED_HEAD, PLAIN_HEAD, body_of
from support.archives import assert_whole
from support.connections import SMALL_BUFFER
from support.daemon import OFF, ON
from support.processes import children_of
from support.under_test import FAST, SANITIZE
from support.waiting import wait_for

NEEDS_SANDBOX = True

LIMIT = 120         # seconds without progress
EARLIEST, LATEST = LIMIT - 5, LIMIT + 40
SLOW_RATE = 2048    # bytes a second
SLOW_TIME = LATEST + 5

pytestmark = [
    pytest.mark.skipif(FAST, reason="takes minutes (left out by --fast)"),
    pytest.mark.skipif(bool(SANITIZE), reason="takes minutes; the host build runs it"),
]


class Stalled:
    """A daemon with an archive whose browser reads only the head."""

    def __init__(self, daemon, path, head):
        self.daemon = daemon
        self.idle = daemon.idle_state()
        self.browser = daemon.ask(path, tcp=True, buffer_size=SMALL_BUFFER)
        assert self.browser.read(len(head)) == head
        self.begin = time.monotonic()
        self.took = None

    def has_ended(self):
        if self.took is None and self.daemon.switches() == OFF + ON:
            self.took = time.monotonic() - self.begin
        return self.took is not None


def read_slowly(browser, pieces):
    """Reads at the slow rate for the slow time, and then at full speed to the end."""
    end = time.monotonic() + SLOW_TIME
    while time.monotonic() < end and (piece := browser.near.recv(SLOW_RATE // 4)):
        pieces.append(piece)
        time.sleep(0.25)
    pieces.append(browser.read_all())


def test_stalled_browser_is_dropped_after_120_s_and_a_slow_one_is_served_to_the_end(start):
    plain = Stalled(start(own_sockets=True), b"/x/debug.tar", PLAIN_HEAD)
    compressed = Stalled(start(own_sockets=True), b"/x/debug.tgz", COMPRESSED_HEAD)
    slow_daemon = start(own_sockets=True)
    pieces = []
    slow = slow_daemon.ask(b"/x/debug.tar", tcp=True, buffer_size=SMALL_BUFFER)
    reader = threading.Thread(target=read_slowly, args=(slow, pieces))
    reader.start()
    wait_for(lambda: all([plain.has_ended(), compressed.has_ended()]), "both dropped", LATEST, poll_s=0.2)
    # The slow browser has read only a part so far. Soon it will read the rest at full speed.
    assert slow_daemon.switches() == OFF
    assert slow_daemon.answer(b"/x/debug.tar") == BUSY_PAGE
    for stalled in (plain, compressed):
        assert EARLIEST <= stalled.took <= LATEST, stalled.took
        assert children_of(stalled.daemon.pid) == []
        stalled.daemon.wait_until_idle(stalled.idle)
        assert_whole(body_of(stalled.daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    reader.join()
    assert_whole(body_of(b"".join(pieces), PLAIN_HEAD))
