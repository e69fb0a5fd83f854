"""A daemon that a signal ends during an archive: it switches the watchdogs on before it exits."""

import os
import signal
import subprocess
import time

import pytest

from support.answers import COMPRESSED_HEAD, PLAIN_HEAD
from support.connections import SMALL_BUFFER
from support.daemon import OFF, ON, Daemon
from support.processes import children_of
from support.under_test import DAEMON
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

ENDINGS = [signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGALRM]
ALWAYS_FAILING = {"HOLLISK_FAIL_COUNT": "1000000000"}
LONGEST_END = 10  # seconds that an ending daemon waits for the platform

pytestmark = pytest.mark.usefixtures("clean_sandbox")


def ending_signal(process):
    """The signal that ended a process."""
    try:
        return -process.wait(PATIENCE + LONGEST_END)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
        raise


def daemon_during_archive(folder, path, head, **how):
    """A daemon during an archive, whose browser reads only the head."""
    daemon = Daemon(folder, **how)
    browser = daemon.ask(path, tcp=True, buffer_size=SMALL_BUFFER)
    assert browser.read(len(head)) == head
    wait_for(lambda: daemon.switches() == OFF, daemon.switches)
    return daemon, browser


@pytest.mark.parametrize("sig", ENDINGS, ids=lambda sig: sig.name)
@pytest.mark.parametrize(
    "path, head", [(b"/x/debug.tar", PLAIN_HEAD), (b"/x/debug.tgz", COMPRESSED_HEAD)], ids=["tar", "tgz"]
)
def test_daemon_switches_the_watchdogs_on_before_it_ends(tmp_path, path, head, sig):
    daemon, browser = daemon_during_archive(tmp_path, path, head)
    with browser:
        os.kill(daemon.pid, sig)
        assert ending_signal(daemon.process) == sig
    assert daemon.switches() == OFF + ON


def test_idle_daemon_leaves_the_watchdogs_alone(tmp_path):
    for sig in ENDINGS:
        daemon = Daemon(tmp_path / sig.name)
        os.kill(daemon.pid, sig)
        assert ending_signal(daemon.process) == sig
        assert daemon.switches() == ""


@pytest.mark.parametrize("sig", ENDINGS, ids=lambda sig: sig.name)
def test_direct_mode_switches_the_watchdogs_on_before_it_ends(tmp_path, sig):
    said = tmp_path / "said"
    with open(said, "wb") as err, subprocess.Popen([DAEMON, "-d"], stdout=subprocess.PIPE, stderr=err) as process:
        wait_for(lambda: said.read_text() == OFF and children_of(process.pid) != [], said.read_text)
        os.kill(process.pid, sig)
        assert ending_signal(process) == sig
    assert said.read_text() == OFF + ON


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGALRM], ids=lambda sig: sig.name)
def test_daemon_ends_although_the_platform_always_fails(tmp_path, sig):
    daemon, browser = daemon_during_archive(tmp_path, b"/x/debug.tar", PLAIN_HEAD, environment=ALWAYS_FAILING)
    with browser:
        begin = time.monotonic()
        os.kill(daemon.pid, sig)
        assert ending_signal(daemon.process) == sig
        assert time.monotonic() - begin >= LONGEST_END - 1
    assert daemon.switches().startswith(OFF + ON + ON)


def test_daemon_ends_by_sigalrm_although_its_starter_ignored_it(tmp_path):
    daemon = Daemon(tmp_path, preexec_fn=lambda: signal.signal(signal.SIGALRM, signal.SIG_IGN))
    os.kill(daemon.pid, signal.SIGALRM)
    assert ending_signal(daemon.process) == signal.SIGALRM


def test_sighup_that_the_starter_ignored_stays_ignored(tmp_path):
    daemon = Daemon(tmp_path, preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
    os.kill(daemon.pid, signal.SIGHUP)
    daemon.sync()
    os.kill(daemon.pid, signal.SIGTERM)
    assert ending_signal(daemon.process) == signal.SIGTERM
