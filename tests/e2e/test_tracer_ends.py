"""Tracers, and daemons that trace, are ended by a signal at any moment. No process stays stopped, and none
dies."""

import contextlib
import os
import pathlib
import random
import re
import signal
import subprocess
import threading
import time

import pytest

from support.daemon import Daemon
from support.processes import end_by, threads_of
from support.tracers import TSTRACE
from support.under_test import BIN, FAST, SANITIZE
from support.waiting import wait_for

NEEDS_SANDBOX = True
pytestmark = pytest.mark.usefixtures("clean_sandbox")

SEED = 7
SLEEPERS, THREADS = 40, 11
# How often each test ends a tracer, a daemon that traces for a browser, and a daemon that makes an archive. The
# larger numbers add up to 1000 for all tests and signals.
ENDS, DAEMON_ENDS, ARCHIVE_ENDS = (10, 3, 2) if FAST or SANITIZE else (95, 28, 4)
STOP = 1 << (signal.SIGSTOP - 1)
SIGNALS = [signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGKILL]


def final_state(pid, tid):
    """S: the thread is asleep, T: it is stopped, None: that may still change. It must not have a tracer."""
    text = status_of(pid, tid)
    assert "TracerPid:\t0\n" in text, text
    pending = [int(mask, 16) for mask in re.findall(r"^(?:SigPnd|ShdPnd):\t(\w+)$", text, re.MULTILINE)]
    state = re.search(r"^State:\t([STt])", text, re.MULTILINE)
    return state and not any(mask & STOP for mask in pending) and state[1].upper()


def status_of(pid, tid):
    return pathlib.Path(f"/proc/{pid}/task/{tid}/status").read_text()


def read_to_the_end(browser):
    with contextlib.suppress(ConnectionResetError):
        browser.read_all()


class Crowd:
    """Sleeping processes, and one whose threads wake up all the time."""

    def __init__(self):
        self.children = [subprocess.Popen(["sleep", "1000"]) for _ in range(SLEEPERS)]
        self.children.append(subprocess.Popen([BIN / "e2e_ten_threads"], stdin=subprocess.PIPE))
        wait_for(lambda: len(self.threads()) >= SLEEPERS + THREADS, "all threads")

    def threads(self):
        """(process, thread) of all processes."""
        return [(child.pid, tid) for child in self.children for tid in threads_of(child.pid)]

    def options(self):
        return [word for _, tid in self.threads() for word in ("-p", str(tid))]

    def all_traced(self):
        return all("TracerPid:\t0\n" not in status_of(*thread) for thread in self.threads())

    def all_detached(self):
        return all("TracerPid:\t0\n" in status_of(*thread) for thread in self.threads())

    def any_traced(self):
        return not self.all_detached()

    def stopped(self):
        """The processes that are stopped. A sleeping one stays asleep: a pending stop would have woken it."""
        return {pid for pid, tid in self.threads() if wait_for(lambda: final_state(pid, tid), "asleep or stopped") == "T"}

    def check(self, sig):
        stopped = self.stopped()
        assert len(stopped) <= (1 if sig == signal.SIGKILL else 0), (sig, stopped)
        for pid in stopped:
            os.kill(pid, signal.SIGCONT)
        for child in self.children:
            assert child.poll() is None, f"{child.args} ended"

    def end(self):
        for child in self.children:
            child.kill()
            child.communicate()


@pytest.fixture
def crowd():
    one = Crowd()
    yield one
    one.end()


def start_tracer(crowd):
    return subprocess.Popen([TSTRACE, *crowd.options()], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def traced(crowd):
    tracer = start_tracer(crowd)
    wait_for(crowd.all_traced, "traced")
    return tracer


def seconds(action):
    start = time.monotonic()
    action()
    return time.monotonic() - start


def end_tracer(sig, tracer):
    """Ends a tracer, which may have begun to end by itself."""
    assert end_by(tracer, sig) in (-sig, 0)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_tracer_that_ends_while_attaching_leaves_no_process_stopped(crowd, sig):
    rng = random.Random(SEED)
    duration = seconds(lambda: end_tracer(signal.SIGINT, traced(crowd)))
    for _ in range(ENDS):
        tracer = start_tracer(crowd)
        time.sleep(rng.random() * duration)
        end_tracer(sig, tracer)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_tracer_that_ends_while_detaching_leaves_no_process_stopped(crowd, sig):
    rng = random.Random(SEED)
    first = traced(crowd)
    duration = seconds(lambda: end_tracer(signal.SIGINT, first))
    for _ in range(ENDS):
        tracer = traced(crowd)
        tracer.send_signal(signal.SIGINT)
        time.sleep(rng.random() * duration)
        end_tracer(sig, tracer)
        crowd.check(sig)


class TracingDaemon:
    """A daemon that traces a crowd for a browser."""

    def __init__(self, folder, crowd):
        self.daemon = Daemon(folder, own_sockets=True)
        self.browser = self.daemon.ask(b"/x", b"cmd=strace&pid=" + ",".join(crowd.options()[1::2]).encode())

    def end(self, sig):
        assert end_by(self.daemon.process, sig) == -sig, self.daemon.said()
        self.browser.close()


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_daemon_that_ends_while_attaching_leaves_no_process_stopped(crowd, tmp_path, sig):
    rng = random.Random(SEED)
    first = TracingDaemon(tmp_path, crowd)
    duration = seconds(lambda: wait_for(crowd.all_traced, "traced"))
    first.end(signal.SIGTERM)
    for _ in range(DAEMON_ENDS):
        tracing = TracingDaemon(tmp_path, crowd)
        time.sleep(rng.random() * duration)
        tracing.end(sig)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_daemon_that_ends_while_detaching_leaves_no_process_stopped(crowd, tmp_path, sig):
    rng = random.Random(SEED)
    first = TracingDaemon(tmp_path, crowd)
    wait_for(crowd.all_traced, "traced")
    first.browser.close()
    duration = seconds(lambda: wait_for(crowd.all_detached, "detached"))
    first.end(signal.SIGTERM)
    for _ in range(DAEMON_ENDS):
        tracing = TracingDaemon(tmp_path, crowd)
        wait_for(crowd.all_traced, "traced")
        tracing.browser.close()
        time.sleep(rng.random() * duration)
        tracing.end(sig)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_daemon_that_ends_during_an_archive_leaves_no_process_stopped(crowd, tmp_path, sig):
    """The signal comes when the archive's trace has begun to attach, or soon after."""
    rng = random.Random(SEED)
    for _ in range(ARCHIVE_ENDS):
        daemon = Daemon(tmp_path, own_sockets=True)
        browser = daemon.ask(b"/x/debug.tar")
        reader = threading.Thread(target=read_to_the_end, args=(browser,))
        reader.start()
        wait_for(crowd.any_traced, "traced")
        time.sleep(rng.random() * 0.01)
        assert end_by(daemon.process, sig) == -sig, daemon.said()
        reader.join()
        crowd.check(sig)
