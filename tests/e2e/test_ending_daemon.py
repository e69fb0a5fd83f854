"""A daemon that a signal ends in the middle of an archive: the watchdogs are on before it is gone."""

import os
import signal
import subprocess
import time

import pytest

from zarvo_e2e import (
    COMPRESSED_HEAD, DAEMON, OFF, ON, PATIENCE, PLAIN_HEAD, Daemon, children_of, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True

ENDINGS = [signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGALRM]
ALWAYS = {"HOLLISK_FAIL_COUNT": "1000000000"}
LONGEST_END = 10  # seconds that an ending daemon waits for the platform

pytestmark = pytest.mark.usefixtures("here")


def ended(process):
    """How it ended, as the parent sees it."""
    try:
        return -process.wait(PATIENCE + LONGEST_END)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise


def daemon_at_work(folder, path, head, **how):
    """A daemon in the middle of an archive, whose browser takes the head and no more."""
    daemon = Daemon(folder, **how)
    browser = daemon.ask(path, tcp=True, room=4096)
    assert browser.read(len(head)) == head
    wait_for(lambda: daemon.switches() == OFF, daemon.switches)
    return daemon, browser


@pytest.mark.parametrize("sig", ENDINGS, ids=lambda sig: sig.name)
@pytest.mark.parametrize("path, head", [(b"/x/debug.tar", PLAIN_HEAD), (b"/x/debug.tgz", COMPRESSED_HEAD)], ids=["tar", "tgz"])
def test_watchdogs_are_on_before_the_daemon_ends(tmp_path, path, head, sig):
    daemon, browser = daemon_at_work(tmp_path, path, head)
    with browser:
        os.kill(daemon.pid, sig)
        assert ended(daemon.process) == sig
    assert daemon.switches() == OFF + ON


def test_idle_daemon_leaves_the_watchdogs_alone(tmp_path):
    for sig in ENDINGS:
        daemon = Daemon(tmp_path / sig.name)
        os.kill(daemon.pid, sig)
        assert ended(daemon.process) == sig
        assert daemon.switches() == ""


@pytest.mark.parametrize("sig", ENDINGS, ids=lambda sig: sig.name)
def test_direct_mode_switches_the_watchdogs_on_too(tmp_path, sig):
    said = tmp_path / "said"
    with open(said, "wb") as err, subprocess.Popen([DAEMON, "-d"], stdout=subprocess.PIPE, stderr=err) as process:
        wait_for(lambda: said.read_text() == OFF and children_of(process.pid) != [], said.read_text)
        os.kill(process.pid, sig)
        assert ended(process) == sig
    assert said.read_text() == OFF + ON


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGALRM], ids=lambda sig: sig.name)
def test_platform_that_always_fails_does_not_keep_the_daemon(tmp_path, sig):
    daemon, browser = daemon_at_work(tmp_path, b"/x/debug.tar", PLAIN_HEAD, environment=ALWAYS)
    with browser:
        begin = time.monotonic()
        os.kill(daemon.pid, sig)
        assert ended(daemon.process) == sig
        assert time.monotonic() - begin >= LONGEST_END - 1
    assert daemon.switches().startswith(OFF + ON + ON)


def test_daemon_ends_by_its_alarm_although_its_starter_ignored_it(tmp_path):
    daemon = Daemon(tmp_path, preexec_fn=lambda: signal.signal(signal.SIGALRM, signal.SIG_IGN))
    os.kill(daemon.pid, signal.SIGALRM)
    assert ended(daemon.process) == signal.SIGALRM


def test_hang_up_that_the_starter_ignored_stays_ignored(tmp_path):
    daemon = Daemon(tmp_path, preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    os.kill(daemon.pid, signal.SIGHUP)
    daemon.sync()
    os.kill(daemon.pid, signal.SIGTERM)
    assert ended(daemon.process) == signal.SIGTERM
