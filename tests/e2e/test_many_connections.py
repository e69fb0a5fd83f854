"""More than 1024 connections at once."""

import contextlib
import os
import resource

import pytest

from support.answers import BAD_REQUEST, CORE_HEAD, PLAIN_HEAD, PS_HEAD, body_of
from support.archives import assert_whole
from support.connections import SMALL_BUFFER, Browser, send_message
from support.processes import in_mount_namespace
from support.under_test import SANITIZE
from support.waiting import wait_for

NEEDS_SANDBOX = True

MANY = 1100
WANTED = 4096


@pytest.fixture(autouse=True)
def many_descriptors():
    """Raises the limit of this process. The daemon starts with the usual one, and raises it itself."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    if before[1] < WANTED:
        pytest.skip(f"needs {WANTED} descriptors; the hard limit is {before[1]}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (before[1], before[1]))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, before)


def with_usual_limit():
    resource.setrlimit(resource.RLIMIT_NOFILE, (1024, resource.getrlimit(resource.RLIMIT_NOFILE)[1]))


def test_listener_works_with_descriptors_above_1024(start):
    inherited = [os.open("/dev/null", os.O_RDONLY) for _ in range(MANY)]
    daemon = start(pass_fds=inherited)
    for fd in inherited:
        os.close(fd)
    assert max(daemon.state()["descriptors"]) > 1024
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    with daemon.waiting_browser() as browser:
        daemon.push(b"core")
        assert browser.read_all() == CORE_HEAD + b"core"
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def full_browser():
    """A browser whose buffers are full, so a thread that answers it blocks."""
    browser = Browser(buffer_size=SMALL_BUFFER)
    browser.far.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            browser.far.send(b"x" * 512)
    return browser


@pytest.mark.skipif(bool(SANITIZE), reason="needs 1100 threads, too many for a sanitizer")
def test_more_than_1024_downloads_at_once_do_not_break_the_listener(start):
    quick_ps = in_mount_namespace("mount --bind /usr/bin/true /usr/bin/ps")
    daemon = start(before=quick_ps, preexec_fn=with_usual_limit)
    idle = daemon.idle_state()
    browsers = [full_browser() for _ in range(MANY)]
    for browser in browsers:
        send_message(daemon.cgi_socket, b"/x\0cmd=ps", [browser.far.fileno()]).close()
        browser.far.close()
    daemon.sync()
    busy = daemon.state()
    assert len(busy["descriptors"]) > MANY and busy["threads"] > MANY
    with daemon.waiting_browser() as waiting:
        daemon.push(b"core")
        assert waiting.read_all() == CORE_HEAD + b"core"
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    for browser in browsers[::2]:
        browser.close()
    for browser in browsers[1::2]:
        assert browser.read_all().endswith(PS_HEAD)
    daemon.wait_until_idle(idle)
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST


@pytest.mark.skipif(bool(SANITIZE), reason="a sanitizer needs free descriptors")
def test_daemon_without_free_descriptors_recovers(start, tmp_path):
    fifo, program = tmp_path / "fifo", tmp_path / "ps"
    os.mkfifo(fifo)
    program.write_text(f"#!/bin/sh\nread line < {fifo}\necho listed\n")
    program.chmod(0o755)

    def with_small_limit():
        resource.setrlimit(resource.RLIMIT_NOFILE, (60, 60))

    slow_ps = in_mount_namespace(f"mount --bind {program} /usr/bin/ps")
    daemon = start(before=slow_ps, preexec_fn=with_small_limit)
    idle = daemon.idle_state()
    browsers = [Browser() for _ in range(100)]
    for browser in browsers:
        send_message(daemon.cgi_socket, b"/x\0cmd=ps", [browser.far.fileno()]).close()
        browser.far.close()
    wait_for(lambda: len(daemon.state()["descriptors"]) >= 59, daemon.state)
    gate = os.open(fifo, os.O_RDWR)
    os.write(gate, b"\n" * len(browsers))
    for browser in browsers:
        browser.read_all()
    daemon.wait_until_idle(idle)
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
    os.close(gate)
