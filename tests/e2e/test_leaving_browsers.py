"""Browsers that go away, whenever: the daemon lets go of everything and is ready for the next."""

import random
import socket
import threading

import pytest

from zarvo_e2e import (
    BUSY_PAGE, COMPRESSED_HEAD, OFF, ON, PATIENCE, PLAIN_HEAD, PS_HEAD, Browser,
    assert_compressed_whole, assert_whole, body_of, send_message, temporary_leftovers, wait_for,
    when_free,
)  # fmt: skip

NEEDS_SANDBOX = True

SEED = 7
ROOM = 4096


@pytest.fixture
def rest(daemon):
    """What the daemon must come back to: all of it at rest, the watchdogs on, no file in /tmp."""
    before = daemon.rest()
    yield before
    daemon.wait_for_rest(before)
    switches = daemon.switches()
    assert switches == (OFF + ON) * (len(switches) // len(OFF + ON))
    wait_for(lambda: temporary_leftovers() == [], temporary_leftovers)


pytestmark = pytest.mark.usefixtures("rest")


def browser_when_free(daemon, path, head, **kind):
    """A browser that has got the head, or as much of it as fits; no archive but its own is being made."""

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
def test_browser_that_left_before_the_head_ends_the_archive(daemon, path, tcp):
    browser = Browser(tcp=tcp)
    browser.near.close()
    send_message(daemon.cgi_socket, path + b"\0", [browser.far.fileno()]).close()
    browser.far.close()
    wait_for(lambda: ended_archives(daemon) == 1, daemon.switches, 4 * PATIENCE)
    head, check = PATHS[path]
    check(body_of(when_free(lambda: daemon.answer(path)), head))


@pytest.mark.parametrize("tcp", [False, True], ids=["local", "tcp"])
@pytest.mark.parametrize("path", PATHS, ids=["plain", "compressed"])
def test_browsers_that_leave_within_and_right_after_the_head_end_the_archive(daemon, path, tcp):
    head, check = PATHS[path]
    for number, count in enumerate([1, len(head) - 1, len(head), len(head) + 1]):
        browser = browser_when_free(daemon, path, head, tcp=tcp, room=ROOM)
        assert browser.read(count)[: len(head)] == head[:count]
        browser.close()
        wait_for(lambda: ended_archives(daemon) == number + 1, daemon.switches, 4 * PATIENCE)
    check(body_of(when_free(lambda: daemon.answer(path)), head))


@pytest.mark.parametrize("path", PATHS, ids=["plain", "compressed"])
def test_browsers_that_leave_at_random_bytes_end_the_archive(daemon, path):
    head, check = PATHS[path]
    size = len(when_free(lambda: daemon.answer(path)))
    rng = random.Random(SEED)
    left = 0
    while left < 8:
        count = rng.randrange(len(head), size - 2 * ROOM)
        ended = ended_archives(daemon)
        browser = browser_when_free(daemon, path, head, tcp=left % 2 == 1, room=ROOM)
        got = len(browser.read(count))
        browser.close()
        wait_for(lambda: ended_archives(daemon) == ended + 1, daemon.switches, 4 * PATIENCE)
        # What the machine did meanwhile is in an archive, so that one is shorter than another.
        left += got == count
        size = min(size, got) if got < count else size
    check(body_of(when_free(lambda: daemon.answer(path)), head))


def test_browser_that_only_stops_sending_is_served(daemon):
    for path, (head, check) in PATHS.items():
        browser = browser_when_free(daemon, path, head, tcp=True)
        browser.near.shutdown(socket.SHUT_WR)
        check(body_of(browser.read_all(), head))


def test_browsers_that_leave_a_process_list_leave_nothing_behind(daemon):
    for count in (0, 1, len(PS_HEAD), len(PS_HEAD) + 5):
        for tcp in (False, True):
            with daemon.ask(b"/x", b"cmd=ps", tcp=tcp) as browser:
                browser.read(count)


def test_browsers_that_left_before_their_error_leave_nothing_behind(daemon):
    for _ in range(50):
        browser = Browser()
        browser.near.close()
        send_message(daemon.cgi_socket, b"/x\0cmd=none", [browser.far.fileno()]).close()
        browser.far.close()
    daemon.sync()


def test_waiting_browser_that_leaves_within_a_core_frees_the_listener(daemon):
    browser = daemon.wait_as(room=ROOM)
    pusher = threading.Thread(target=daemon.push, args=(b"x" * 1_000_000,))
    pusher.start()
    browser.read(1000)
    browser.close()
    pusher.join(PATIENCE)
    assert not pusher.is_alive()
    daemon.sync()
