"""Tracers, and daemons that trace, ended by a signal at any moment: nobody stays stopped, and nobody dies."""

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

from zarvo_e2e import BIN, SANITIZE, Daemon, end_by, wait_for

NEEDS_SANDBOX = True
pytestmark = pytest.mark.usefixtures("here")

TSTRACE = str(BIN / "tstrace")
SEED = 7
SLEEPERS, THREADS = 40, 11
FAST = os.environ.get("ZARVO_FAST") == "1" or bool(SANITIZE)
# Of a tracer, of a daemon that traces for a browser, and of one that makes an archive; a thousand in all.
ENDS, DAEMON_ENDS, ARCHIVE_ENDS = (10, 3, 2) if FAST else (95, 28, 4)
STOP = 1 << (signal.SIGSTOP - 1)
SIGNALS = [signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGKILL]


def rest_of(pid, tid):
    """S: a thread that nobody traces is asleep, T: it is stopped; None: it is neither yet."""
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
    """Processes that sleep, and one whose threads wake up all the time."""

    def __init__(self):
        self.children = [subprocess.Popen(["sleep", "1000"]) for _ in range(SLEEPERS)]
        self.children.append(subprocess.Popen([BIN / "e2e_ten_threads"], stdin=subprocess.PIPE))
        wait_for(lambda: len(self.threads()) >= SLEEPERS + THREADS, "all threads")

    def threads(self):
        """(process, thread) of everybody."""
        return [(child.pid, int(tid)) for child in self.children for tid in os.listdir(f"/proc/{child.pid}/task")]

    def words(self):
        return [word for _, tid in self.threads() for word in ("-p", str(tid))]

    def all_traced(self):
        return all("TracerPid:\t0\n" not in status_of(*thread) for thread in self.threads())

    def all_free(self):
        return all("TracerPid:\t0\n" in status_of(*thread) for thread in self.threads())

    def any_traced(self):
        return not self.all_free()

    def stopped(self):
        """The processes that are stopped. Who is asleep has no stop before it any more: it would have woken up."""
        return {pid for pid, tid in self.threads() if wait_for(lambda: rest_of(pid, tid), "at rest") == "T"}

    def check(self, sig):
        left = self.stopped()
        assert len(left) <= (1 if sig == signal.SIGKILL else 0), (sig, left)
        for pid in left:
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
    return subprocess.Popen([TSTRACE, *crowd.words()], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


def traced(crowd):
    tracer = start_tracer(crowd)
    wait_for(crowd.all_traced, "traced")
    return tracer


def seconds(action):
    start = time.monotonic()
    action()
    return time.monotonic() - start


def end_tracer(sig, tracer):
    """Ends a tracer that may be ending already."""
    assert end_by(tracer, sig) in (-sig, 0)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_while_it_attaches_leaves_nobody_stopped(crowd, sig):
    rng = random.Random(SEED)
    usual = seconds(lambda: end_tracer(signal.SIGINT, traced(crowd)))
    for _ in range(ENDS):
        tracer = start_tracer(crowd)
        time.sleep(rng.random() * usual)
        end_tracer(sig, tracer)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_while_it_lets_go_leaves_nobody_stopped(crowd, sig):
    rng = random.Random(SEED)
    first = traced(crowd)
    usual = seconds(lambda: end_tracer(signal.SIGINT, first))
    for _ in range(ENDS):
        tracer = traced(crowd)
        tracer.send_signal(signal.SIGINT)
        time.sleep(rng.random() * usual)
        end_tracer(sig, tracer)
        crowd.check(sig)


class TracingDaemon:
    """A daemon that traces a crowd for a browser."""

    def __init__(self, folder, crowd):
        self.daemon = Daemon(folder, sockets=False)
        self.browser = self.daemon.ask(b"/x", b"cmd=strace&pid=" + ",".join(crowd.words()[1::2]).encode())

    def end(self, sig):
        assert end_by(self.daemon.process, sig) == -sig, self.daemon.said()
        self.browser.close()


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_of_a_daemon_while_it_attaches_leaves_nobody_stopped(crowd, tmp_path, sig):
    rng = random.Random(SEED)
    first = TracingDaemon(tmp_path, crowd)
    usual = seconds(lambda: wait_for(crowd.all_traced, "traced"))
    first.end(signal.SIGTERM)
    for _ in range(DAEMON_ENDS):
        tracing = TracingDaemon(tmp_path, crowd)
        time.sleep(rng.random() * usual)
        tracing.end(sig)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_of_a_daemon_while_it_lets_go_leaves_nobody_stopped(crowd, tmp_path, sig):
    rng = random.Random(SEED)
    first = TracingDaemon(tmp_path, crowd)
    wait_for(crowd.all_traced, "traced")
    first.browser.close()
    usual = seconds(lambda: wait_for(crowd.all_free, "free"))
    first.end(signal.SIGTERM)
    for _ in range(DAEMON_ENDS):
        tracing = TracingDaemon(tmp_path, crowd)
        wait_for(crowd.all_traced, "traced")
        tracing.browser.close()
        time.sleep(rng.random() * usual)
        tracing.end(sig)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_of_a_daemon_that_makes_an_archive_leaves_nobody_stopped(crowd, tmp_path, sig):
    """The trace of an archive has to be met first: its end comes somewhere in the attaching, or soon after."""
    rng = random.Random(SEED)
    for _ in range(ARCHIVE_ENDS):
        daemon = Daemon(tmp_path, sockets=False)
        browser = daemon.ask(b"/x/debug.tar")
        reader = threading.Thread(target=read_to_the_end, args=(browser,))
        reader.start()
        wait_for(crowd.any_traced, "traced")
        time.sleep(rng.random() * 0.01)
        assert end_by(daemon.process, sig) == -sig, daemon.said()
        reader.join()
        crowd.check(sig)
