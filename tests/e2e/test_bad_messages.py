"""Malformed messages on the control socket, and malformed queries."""

import contextlib
import os
import random
import socket
import time

import pytest

from support.answers import BAD_REQUEST, PLAIN_HEAD, PS_HEAD, SERVER_ERROR, body_of
from support.archives import assert_whole
from support.connections import Browser, send_message

NEEDS_SANDBOX = True

SILENCE = 2   # seconds that a peer may block the listener
LIMIT = 4095  # bytes of a message that are read


pytestmark = pytest.mark.usefixtures("idle")


def send(daemon, message, descriptors, **how):
    send_message(daemon.cgi_socket, message, descriptors, **how).close()


# Messages.


def test_message_without_a_descriptor_is_ignored(daemon):
    send(daemon, b"/x\0cmd=ps", [])


@pytest.mark.parametrize("count", [2, 3, 200])
def test_message_with_several_descriptors_is_ignored_and_all_are_closed(daemon, count):
    browsers = [Browser() for _ in range(count)]
    send(daemon, b"/x\0cmd=ps", [browser.far.fileno() for browser in browsers])
    for browser in browsers:
        browser.far.close()
        assert browser.read_all() == b""


def test_descriptor_after_the_first_byte_is_closed(daemon):
    with Browser() as browser, socket.socket(socket.AF_UNIX) as connection:
        connection.connect(daemon.cgi_socket)
        connection.send(b"/x\0")
        with contextlib.suppress(BrokenPipeError):
            socket.send_fds(connection, [b"cmd=ps"], [browser.far.fileno()])
        browser.far.close()
        assert browser.read_all() == b""


def test_descriptor_that_is_not_a_connection_does_no_harm(daemon):
    null = os.open("/dev/null", os.O_RDONLY)
    folder = os.open("/", os.O_RDONLY)
    for fd in (null, folder):
        for query in (b"cmd=none", b"cmd=ps"):
            send(daemon, b"/x\0" + query, [fd])
        os.close(fd)


@pytest.mark.parametrize("message", [b"/x/debug.tgz", b"x", b"/" * 100, b"\xff"])
def test_message_without_a_zero_byte_gets_500(daemon, message):
    answer = daemon.ask_raw(message).read_all()
    assert answer == SERVER_ERROR
    assert len(answer) == 140


def test_path_without_a_slash_gets_500(daemon):
    assert daemon.answer(b"debug.tgz") == SERVER_ERROR
    assert daemon.answer(b"") == SERVER_ERROR


def test_empty_message_is_ignored(daemon):
    send(daemon, b"", [])


@pytest.mark.parametrize("length", [LIMIT - 1, LIMIT, LIMIT + 1, LIMIT + 5, 2 * LIMIT, 100_000])
def test_long_query_is_read_up_to_the_limit(daemon, length):
    message = b"/x\0cmd=none&a="
    assert daemon.ask_raw(message + b"a" * (length - len(message))).read_all() == BAD_REQUEST


@pytest.mark.parametrize("zero_at", [LIMIT, LIMIT + 1])
def test_zero_byte_counts_only_within_the_limit(daemon, zero_at):
    assert daemon.ask_raw(b"/" * zero_at + b"\0cmd=none").read_all() == SERVER_ERROR


def test_zero_byte_may_be_the_last_byte_within_the_limit(daemon):
    archive = daemon.ask_raw(b"/" * (LIMIT - 1) + b"\0cmd=none")
    assert_whole(body_of(archive.read_all(), PLAIN_HEAD))


def test_query_is_truncated_at_the_limit(daemon):
    path = b"/" + b"p" * (LIMIT - len(b"/\0cmd=ps"))
    assert body_of(daemon.ask_raw(path + b"\0cmd=ps" + b"IGNORED").read_all(), PS_HEAD) != b""
    assert daemon.ask_raw(path + b"p\0cmd=ps").read_all() == BAD_REQUEST


def test_silent_peer_blocks_the_listener_for_two_seconds_at_most(daemon):
    with socket.socket(socket.AF_UNIX) as silent:
        silent.connect(daemon.cgi_socket)
        begin = time.monotonic()
        daemon.sync()
        assert time.monotonic() - begin < SILENCE + 1


def test_slow_peer_blocks_the_listener_for_two_seconds_at_most(daemon):
    with Browser() as browser:
        connection = send_message(daemon.cgi_socket, b"/", [browser.far.fileno()], end=False)
        browser.far.close()
        begin = time.monotonic()
        if (pid := os.fork()) == 0:
            with contextlib.suppress(OSError):
                while True:
                    connection.send(b"x")
                    time.sleep(0.1)
            os._exit(0)
        connection.close()
        daemon.sync()
        assert time.monotonic() - begin < SILENCE + 1
        os.waitpid(pid, 0)
        assert browser.read_all() == b""


def test_peer_that_dies_halfway_does_not_block_the_listener(daemon):
    begin = time.monotonic()
    with Browser() as browser:
        send(daemon, b"/x/deb", [browser.far.fileno()], end=False)
        browser.far.close()
        assert browser.read_all() == SERVER_ERROR
    send(daemon, b"", [], end=False)
    daemon.sync()
    assert time.monotonic() - begin < SILENCE


def test_many_bad_messages_leave_no_descriptor_open(daemon):
    for number in range(100):
        pair = [Browser(), Browser()]
        fds = [browser.far.fileno() for browser in pair]
        send(daemon, b"/x\0cmd=ps", fds[: number % 2 * 2])
        send(daemon, b"/x", fds[:1])
        send(daemon, b"", [])
        for browser in pair:
            browser.close()


def test_random_messages_are_answered_or_closed(daemon):
    rng = random.Random(20)
    words = [*b"\0&=%,", b"%0", b"%00", b"cmd", b"pid", b"ps", b"pop", b"coredump", b"-1"]
    words = [bytes([word]) if isinstance(word, int) else word for word in words]

    def piece():
        return rng.choice(words) if rng.random() < 0.8 else rng.randbytes(3).replace(b"/", b"")

    for _ in range(300):
        # A path without a slash never starts an archive.
        message = b"no-slash" + b"".join(piece() for _ in range(rng.randint(1, 12)))
        answer = b"" if may_wait(message) else daemon.ask_raw(message).read_all()
        assert answer == b"" or answer.startswith(b"HTTP/1.0 ")


def may_wait(message):
    """True if the daemon may keep the browser for the next dump."""
    return b"\0" in message and b"coredump" in message


# Queries.


@pytest.mark.parametrize(
    "query",
    [
        b"cmd=%", b"cmd=%4", b"cmd=%zz", b"cmd=%%%", b"cmd=p%s", b"cmd=%70%", b"%",
        b"cmd", b"cmd=", b"cmd&cmd=ps", b"cmd=&cmd=ps", b"=&==&&&cmd=none",
        b"cmd=none&cmd=ps", b"cmd=PS", b"cmd= ps", b"cmd=+ps",
        b"cmd=" + b"x" * 4000, b"x" * 2000 + b"=1&cmd=" + b"y" * 2000,
        b"cmd=\xff\xfe\x80", b"cmd=%ff%fe%80", b"cmd=\xc3\xa9", b"\xff=\xff&cmd=\x01",
        b"cmd=%00", b"cmd=%00ps", b"cmd=p%00s", b"cmd=\0ps",
    ],
)  # fmt: skip
def test_unknown_command_gets_400_in_any_spelling(daemon, query):
    if b"cmd=" not in query and not query.startswith(b"cmd"):
        query += b"&cmd=none"
    answer = daemon.answer(b"/x", query)
    assert answer == BAD_REQUEST
    assert len(answer) == 121


@pytest.mark.parametrize(
    "query",
    [
        b"cmd=ps%00none", b"cmd=ps%zz", b"cmd=ps" + b"x" * 4000, b"cmd=ps\xff", b"cmd=ps&cmd=none&cmd=",
        b"a%=1&cmd=ps", b"&&cmd=ps&&", b"=x&cmd=ps", b"cmd=ps\0&cmd=none", b"%63%6d%64=%70%73",
        b"pid=%00&cmd=ps",
    ],
)  # fmt: skip
def test_process_list_is_recognised_in_any_spelling(daemon, query):
    assert body_of(daemon.answer(b"/x", query), PS_HEAD) != b""


@pytest.mark.parametrize(
    "pid",
    [b"", b"-1", b"2147483647", b"2147483648", b"99999999999999999999", b"-99999999999999999999",
     b"no-such-name", b"%20", b"%00", b"%ff", b"n" * 4000, b"%2e%2e%2f"],
)  # fmt: skip
@pytest.mark.parametrize("cmd", [b"coredump", b"strace"])
def test_missing_process_gets_400(daemon, cmd, pid):
    assert daemon.answer(b"/x", b"cmd=" + cmd + b"&pid=" + pid) == BAD_REQUEST


def test_negative_pid_gets_400(daemon):
    assert daemon.answer(b"/x", b"cmd=coredump&pid=-5") == BAD_REQUEST
