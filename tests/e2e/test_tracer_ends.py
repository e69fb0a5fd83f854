"""Tracers that are ended by a signal at any moment: nobody stays stopped, and nobody dies."""

import os
import pathlib
import random
import re
import signal
import subprocess
import time

import pytest

from zarvo_e2e import BIN, SANITIZE, wait_for

NEEDS_SANDBOX = True
pytestmark = pytest.mark.usefixtures("here")

TSTRACE = str(BIN / "tstrace")
SEED = 7
SLEEPERS, THREADS = 60, 11
FAST = os.environ.get("ZARVO_FAST") == "1" or bool(SANITIZE)
ENDS = 10 if FAST else 100
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


def end_by(sig, tracer):
    """Ends a tracer that may be ending already."""
    tracer.send_signal(sig)
    assert tracer.wait() in (-sig, 0)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_while_it_attaches_leaves_nobody_stopped(crowd, sig):
    rng = random.Random(SEED)
    usual = seconds(lambda: end_by(signal.SIGINT, traced(crowd)))
    for _ in range(ENDS):
        tracer = start_tracer(crowd)
        time.sleep(rng.random() * usual)
        end_by(sig, tracer)
        crowd.check(sig)


@pytest.mark.parametrize("sig", SIGNALS, ids=lambda sig: sig.name)
def test_end_while_it_lets_go_leaves_nobody_stopped(crowd, sig):
    rng = random.Random(SEED)
    first = traced(crowd)
    usual = seconds(lambda: end_by(signal.SIGINT, first))
    for _ in range(ENDS):
        tracer = traced(crowd)
        tracer.send_signal(signal.SIGINT)
        time.sleep(rng.random() * usual)
        end_by(sig, tracer)
        crowd.check(sig)
