"""More than 1024 connections at once."""

import contextlib
import os
import resource

import pytest

from zarvo_e2e import (
    BAD_REQUEST, CORE_HEAD, PLAIN_HEAD, PS_HEAD, SANITIZE, Browser, assert_whole, body_of,
    in_mount_namespace, send_message, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True

MANY = 1100
WANTED = 4096


@pytest.fixture(autouse=True)
def room_for_many():
    """Descriptors for us; the daemon is started with the usual limit and looks after itself."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    if before[1] < WANTED:
        pytest.skip(f"this machine allows no more than {before[1]} descriptors")
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
    with daemon.wait_as() as browser:
        daemon.push(b"core")
        assert browser.read_all() == CORE_HEAD + b"core"
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def full_browser():
    """A browser to which not one more byte can be sent, so that whoever answers it waits."""
    browser = Browser(room=4096)
    browser.far.setblocking(False)
    with contextlib.suppress(BlockingIOError):
        while True:
            browser.far.send(b"x" * 512)
    return browser


@pytest.mark.skipif(bool(SANITIZE), reason="1100 threads are too much for this build")
def test_more_than_1024_downloads_at_once_do_not_break_the_listener(start):
    quick_ps = in_mount_namespace("mount --bind /usr/bin/true /usr/bin/ps")
    daemon = start(before=quick_ps, preexec_fn=with_usual_limit)
    rest = daemon.rest()
    browsers = [full_browser() for _ in range(MANY)]
    for browser in browsers:
        send_message(daemon.cgi_socket, b"/x\0cmd=ps", [browser.far.fileno()]).close()
        browser.far.close()
    daemon.sync()
    held = daemon.state()
    assert len(held["descriptors"]) > MANY and held["threads"] > MANY
    with daemon.wait_as() as waiting:
        daemon.push(b"core")
        assert waiting.read_all() == CORE_HEAD + b"core"
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    for browser in browsers[::2]:
        browser.close()
    for browser in browsers[1::2]:
        assert browser.read_all().endswith(PS_HEAD)
    daemon.wait_for_rest(rest)
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST


@pytest.mark.skipif(bool(SANITIZE), reason="1100 threads and their children are too much for this build")
def test_daemon_without_free_descriptors_recovers(start, tmp_path):
    fifo, program = tmp_path / "fifo", tmp_path / "ps"
    os.mkfifo(fifo)
    program.write_text(f"#!/bin/sh\nread line < {fifo}\necho listed\n")
    program.chmod(0o755)

    def with_small_limit():
        resource.setrlimit(resource.RLIMIT_NOFILE, (60, 60))

    slow_ps = in_mount_namespace(f"mount --bind {program} /usr/bin/ps")
    daemon = start(before=slow_ps, preexec_fn=with_small_limit)
    rest = daemon.rest()
    browsers = [Browser() for _ in range(100)]
    for browser in browsers:
        send_message(daemon.cgi_socket, b"/x\0cmd=ps", [browser.far.fileno()]).close()
        browser.far.close()
    wait_for(lambda: len(daemon.state()["descriptors"]) >= 59, daemon.state)
    go_on = os.open(fifo, os.O_RDWR)
    os.write(go_on, b"\n" * len(browsers))
    for browser in browsers:
        while browser.near.recv(4096):
            pass
        browser.close()
    daemon.wait_for_rest(rest)
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
    os.close(go_on)
