"""coredump-handler from outside: its arguments, and the core that it forwards to the daemon."""

import contextlib
import os
import pathlib
import socket
import threading
import time

import pytest

from support.answers import CORE_HEAD
from support.core_handler import BIG, CONFIG, CORE, ERROR, INFO, PROGRAM, handle, logged, start_handler
from support.daemon import SEGFAULT_SOCKET
from support.processes import status_kb
from support.system_log import Log
from support.under_test import SANITIZE
from support.waiting import PATIENCE

NEEDS_SANDBOX = True
pytest_plugins = ["core_handler_fixtures"]

MEMORY_LIMIT_KB = 6 * 1024


class Download:
    """A browser that waits for a core and reads it on a thread of its own."""

    def __init__(self, daemon):
        self.browser = daemon.waiting_browser()
        self.thread = threading.Thread(target=self._read)
        self.thread.start()

    def _read(self):
        self.got = self.browser.read_all()

    def answer(self):
        self.thread.join()
        return self.got


# Arguments.


@pytest.mark.parametrize("words, complaint", [
    (["core", "4096"], "wrong number of arguments"),
    (["core", "4096", "!a"], "wrong number of arguments"),
    (["core", "4096", "!a", ""], "executable name argument missing"),
    (["core", "4096", "", "a"], "executable path argument missing"),
    (["core", "", "!a", "a"], "core file size argument missing"),
    (["core", "12k", "!a", "a"], "core file size limit parsing error"),
    (["core", "18446744073709551616", "!a", "a"], "core file size limit parsing error"),
])  # fmt: skip
def test_wrong_arguments_are_logged(words, complaint):
    log = Log()
    assert handle(*words) == (1, b"")
    assert log.wait(1) == [logged(ERROR, complaint)]


@pytest.mark.parametrize("limit", ["0", "1", "4095"])
def test_core_is_not_read_if_its_limit_is_below_a_page(limit):
    log = Log()
    reading, writing = os.pipe()
    with os.fdopen(reading, "rb") as kept, os.fdopen(writing, "wb") as core:
        core.write(b"core")
        core.flush()
        process = start_handler("core.app.7", limit, "!usr!bin!app", "app", stdin=kept)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
        assert process.returncode == 0
        core.close()
        assert kept.read() == b"core"
    assert log.wait(1) == [logged(INFO, "core dumps disabled for '/usr/bin/app/app'")]


# Forwarding to the daemon.


@pytest.mark.parametrize("words", [
    [], ["core.7"], ["core.7", *PROGRAM], ["core.7", "-1", *PROGRAM[1:]],
    ["core.7", "18446744073709551615", *PROGRAM[1:]], ["a/../b 'c' \"%d\"", *PROGRAM, "more"],
])  # fmt: skip
def test_core_reaches_the_waiting_browser(daemon, words):
    log = Log()
    browser = Download(daemon)
    assert handle(*words) == (0, b"")
    assert browser.answer() == CORE_HEAD + CORE
    assert [line for line in log.lines() if "coredump-handler" in line] == []


def test_forwarding_takes_no_fixed_time(daemon):
    fastest = PATIENCE
    for _ in range(3):
        browser = Download(daemon)
        began = time.monotonic()
        assert handle("core", *PROGRAM) == (0, b"")
        fastest = min(fastest, time.monotonic() - began)
        assert browser.answer() == CORE_HEAD + CORE
    assert fastest < 4


def test_empty_core_is_an_empty_download(daemon):
    browser = Download(daemon)
    assert handle("core", *PROGRAM, core=b"") == (0, b"")
    assert browser.answer() == CORE_HEAD


def test_without_a_waiting_browser_the_core_is_dropped(daemon):
    assert handle("core", *PROGRAM) == (0, b"")
    browser = Download(daemon)
    assert handle("core", *PROGRAM, core=b"the next") == (0, b"")
    assert browser.answer() == CORE_HEAD + b"the next"


@pytest.mark.parametrize("config", [
    "", "CoreHandler = CGI\n", "CoreHandler = ftp\n[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n",
    "[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n", "\0\xff[[=\n",
])  # fmt: skip
def test_configuration_without_ftp_means_the_daemon(daemon, config):
    CONFIG.write_text(config)
    browser = Download(daemon)
    assert handle("core", *PROGRAM) == (0, b"")
    assert browser.answer() == CORE_HEAD + CORE


def test_missing_daemon_is_reported_and_fails():
    assert handle("core", *PROGRAM) == (1, f"connect to {SEGFAULT_SOCKET} failed\n".encode())


def test_standard_output_and_error_may_be_closed(daemon):
    browser = Download(daemon)
    words = ["/bin/sh", "-c", 'exec "$@" >&- 2>&-', "sh"]
    assert handle("core", *PROGRAM, before=words) == (0, b"")
    assert browser.answer() == CORE_HEAD + CORE


def test_core_that_cannot_be_read_is_not_forwarded(daemon):
    log = Log()
    browser = daemon.waiting_browser()
    with open("/dev/null", "wb") as wrong:
        assert start_handler("core", stdin=wrong).wait(PATIENCE) == 1
    assert browser.is_silent()
    assert log.wait(1) == [logged(ERROR, "no core on standard input: Bad file descriptor")]


@contextlib.contextmanager
def fake_daemon():
    """A listener at the daemon's socket."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(SEGFAULT_SOCKET)
        listener.listen(2)
        listener.settimeout(PATIENCE)
        yield listener


def accept(listener):
    connection = listener.accept()[0]
    connection.settimeout(PATIENCE)
    return connection


def read_to_end(connection, count=0):
    while got := connection.recv(1 << 20):
        count += len(got)
    return count


def test_daemon_that_never_answers_delays_the_handler_by_5_seconds():
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM)
        process.stdin.write(b"fits into the socket")
        process.stdin.close()
        with accept(listener):
            began = time.monotonic()
            assert process.wait(PATIENCE) == 0
            assert 3 < time.monotonic() - began < 20
        process.stdout.close()
        process.stderr.close()


def test_daemon_that_dies_halfway_ends_the_handler():
    with fake_daemon() as listener, open("/dev/zero", "rb") as endless:
        process = start_handler("core", *PROGRAM, stdin=endless)
        with accept(listener) as connection:
            assert connection.recv(100_000)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
        assert process.returncode == 0


def test_daemon_sees_the_end_of_the_core_at_once():
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM)
        process.stdin.write(b"core")
        process.stdin.close()
        with accept(listener) as connection:
            assert read_to_end(connection) == 4
            assert process.poll() is None
            connection.sendall(b"thank you very much")
            assert process.wait(PATIENCE) == 0
        process.stdout.close()
        process.stderr.close()


def test_core_of_2_gigabytes_takes_no_more_memory_than_a_small_one(big_core, record_property):
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM, stdin=big_core)
        with accept(listener) as connection:
            assert read_to_end(connection) == BIG
            used = status_kb(process.pid, "VmHWM")
            loaded = pathlib.Path(f"/proc/{process.pid}/maps").read_text()
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert "libcurl" not in loaded
    record_property("forward_kb", used)
    if not SANITIZE:
        assert used < MEMORY_LIMIT_KB


def test_forwarding_needs_no_libcurl(daemon, no_libcurl):
    browser = Download(daemon)
    assert handle("core.7", env=no_libcurl) == (0, b"")
    assert browser.answer() == CORE_HEAD + CORE
