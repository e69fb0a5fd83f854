"""Browsers that leave at any moment: the daemon releases everything and is ready for the next one."""

import random
import socket
import threading

import pytest

from support.answers import BUSY_PAGE, COMPRESSED_HEAD, PLAIN_HEAD, PS_HEAD, body_of
from support.archives import assert_compressed_whole, assert_whole
from support.connections import SMALL_BUFFER, Browser, send_message
from support.daemon import OFF, ON, temporary_leftovers, when_free
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

SEED = 7


@pytest.fixture
def no_trace_left(daemon):
    """The daemon must be idle again afterwards, with the watchdogs on and no file in /tmp."""
    before = daemon.idle_state()
    yield
    daemon.wait_until_idle(before)
    switches = daemon.switches()
    assert switches == (OFF + ON) * (len(switches) // len(OFF + ON))
    wait_for(lambda: temporary_leftovers() == [], temporary_leftovers)


pytestmark = pytest.mark.usefixtures("no_trace_left")


def browser_when_free(daemon, path, head, **kind):
    """A browser with an archive of its own, which has received the head or a part of it."""

    def begin():
        browser = daemon.ask(path, **kind)
        first = browser.near.recv(len(head), socket.MSG_PEEK)
        if first.startswith(BUSY_PAGE[:20]):
            browser.close()
            return None
        assert head.startswith(first)
        return browser

    return wait_for(begin, "free for another archive", 4 * PATIENCE)


def ended_archives(daemon):
    return daemon.switches().count(ON)


PATHS = {
    b"/x/debug.tar": (PLAIN_HEAD, assert_whole),
    b"/x/debug.tgz": (COMPRESSED_HEAD, assert_compressed_whole),
}


@pytest.mark.parametrize("tcp", [False, True], ids=["local", "tcp"])
@pytest.mark.parametrize("path", PATHS, ids=["plain", "compressed"])
def test_archive_ends_when_its_browser_left_before_the_head(daemon, path, tcp):
    browser = Browser(tcp=tcp)
    browser.near.close()
    send_message(daemon.cgi_socket, path + b"\0", [browser.far.fileno()]).close()
    browser.far.close()
    wait_for(lambda: ended_archives(daemon) == 1, daemon.switches, 4 * PATIENCE)
    head, check = PATHS[path]
    check(body_of(when_free(lambda: daemon.answer(path)), head))


@pytest.mark.parametrize("tcp", [False, True], ids=["local", "tcp"])
@pytest.mark.parametrize("path", PATHS, ids=["plain", "compressed"])
def test_archive_ends_when_its_browser_leaves_at_the_head(daemon, path, tcp):
    head, check = PATHS[path]
    for number, count in enumerate([1, len(head) - 1, len(head), len(head) + 1]):
        browser = browser_when_free(daemon, path, head, tcp=tcp, buffer_size=SMALL_BUFFER)
        assert browser.read(count)[: len(head)] == head[:count]
        browser.close()
        wait_for(lambda: ended_archives(daemon) == number + 1, daemon.switches, 4 * PATIENCE)
    check(body_of(when_free(lambda: daemon.answer(path)), head))


@pytest.mark.parametrize("path", PATHS, ids=["plain", "compressed"])
def test_archive_ends_when_its_browser_leaves_at_a_random_byte(daemon, path):
    head, check = PATHS[path]
    size = len(when_free(lambda: daemon.answer(path)))
    rng = random.Random(SEED)
    departures = 0
    while departures < 8:
        count = rng.randrange(len(head), size - 2 * SMALL_BUFFER)
        ended = ended_archives(daemon)
        browser = browser_when_free(daemon, path, head, tcp=departures % 2 == 1, buffer_size=SMALL_BUFFER)
        got = len(browser.read(count))
        browser.close()
        wait_for(lambda: ended_archives(daemon) == ended + 1, daemon.switches, 4 * PATIENCE)
        # Archives differ in size, because they show what the machine is doing. This one may have ended before
        # `count`.
        departures += got == count
        size = min(size, got) if got < count else size
    check(body_of(when_free(lambda: daemon.answer(path)), head))


def test_browser_that_closes_only_its_sending_side_is_served(daemon):
    for path, (head, check) in PATHS.items():
        browser = browser_when_free(daemon, path, head, tcp=True)
        browser.near.shutdown(socket.SHUT_WR)
        check(body_of(browser.read_all(), head))


def test_browsers_may_leave_during_a_process_list(daemon):
    for count in (0, 1, len(PS_HEAD), len(PS_HEAD) + 5):
        for tcp in (False, True):
            with daemon.ask(b"/x", b"cmd=ps", tcp=tcp) as browser:
                browser.read(count)


def test_browsers_may_leave_before_their_error(daemon):
    for _ in range(50):
        browser = Browser()
        browser.near.close()
        send_message(daemon.cgi_socket, b"/x\0cmd=none", [browser.far.fileno()]).close()
        browser.far.close()
    daemon.sync()


def test_waiting_browser_that_leaves_within_a_core_does_not_block_the_listener(daemon):
    browser = daemon.waiting_browser(buffer_size=SMALL_BUFFER)
    pusher = threading.Thread(target=daemon.push, args=(b"x" * 1_000_000,))
    pusher.start()
    browser.read(1000)
    browser.close()
    pusher.join(PATIENCE)
    assert not pusher.is_alive()
    daemon.sync()
