"""stopper: it holds processes at their exit, and lets them end afterwards."""

import pathlib
import re
import signal
import subprocess
import time

import pytest

from support.processes import assert_detached, process_stat
from support.tracers import STOPPER, Tracer, run
from support.under_test import SANITIZE
from support.waiting import PATIENCE, POLL_S, wait_for

NEEDS_SANDBOX = True
pytestmark = pytest.mark.usefixtures("clean_sandbox")

USAGE = "USAGE: stopper [ -ppid ] [ command [ arg ... ] ]\n\n-p<pid>\tAdd a pid to stop at exit\n"


@pytest.mark.parametrize("words", [[], ["-x"], ["-p"], ["--help"], ["-"]], ids=str)
def test_bad_command_line_prints_the_usage(words):
    assert run(STOPPER, *words) == USAGE


def trapped(pid, code):
    return f"stopper: Trapped pid={pid} exit code {code}\n"


def test_stopper_holds_a_process_at_its_exit(tmp_path, service):
    for code in (0, 1, 77):
        child = service("sh", "-c", f"read x; exit {code}")
        stopper = Tracer(tmp_path, child.pid, applet=STOPPER)
        child.stdin.write(b"\n")
        child.stdin.flush()
        expected = trapped(child.pid, code) + trapped(child.pid, code << 8)
        wait_for(lambda: stopper.text() == expected, stopper.text)
        time.sleep(20 * POLL_S)
        assert child.poll() is None and process_stat(child.pid)[0] == "t"
        assert pathlib.Path(f"/proc/{child.pid}/maps").read_text() != ""
        stopper.interrupt()
        assert child.wait(PATIENCE) == code
        assert stopper.text() == expected


def test_stopper_holds_its_command():
    stopper = subprocess.Popen([STOPPER, "sh", "-c", "exit 3"], stdout=subprocess.PIPE)
    lines = [stopper.stdout.readline().decode() for _ in range(2)]
    pid = int(re.search(r"pid=(\d+)", lines[0])[1])
    assert lines == [trapped(pid, 3), trapped(pid, 3 << 8)]
    assert process_stat(pid)[0] == "t"
    if SANITIZE:
        # The sanitizer's runtime delays a signal that arrives between two system calls, and may lose it.
        wait_for(lambda: process_stat(stopper.pid)[0] == "S", "asleep")
    stopper.send_signal(signal.SIGINT)
    assert stopper.wait(PATIENCE) == 0
    assert stopper.stdout.read() == b""
    wait_for(lambda: process_stat(pid) is None, "gone")


def test_stopper_detaches_a_process_that_does_not_exit(tmp_path, service):
    child = service("sleep", "1000")
    stopper = Tracer(tmp_path, child.pid, applet=STOPPER)
    stopper.interrupt()
    assert stopper.text() == ""
    assert_detached(child.pid)


def test_process_exits_when_its_stopper_is_killed(tmp_path, service):
    child = service("sh", "-c", "read x; exit 4")
    stopper = Tracer(tmp_path, child.pid, applet=STOPPER)
    child.stdin.write(b"\n")
    child.stdin.flush()
    wait_for(lambda: trapped(child.pid, 4 << 8) in stopper.text(), stopper.text)
    stopper.process.kill()
    assert child.wait(PATIENCE) == 4
    stopper.process.wait()
