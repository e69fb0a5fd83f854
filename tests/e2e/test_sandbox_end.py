"""How a sandbox ends: the exit status, signals and the terminal. No process of it is left."""

import contextlib
import os
import pty
import select
import signal
import subprocess
import time

import pytest

from support.sandboxes import (
    LIMIT_S, SANDBOX, Running, in_mask, make_marker, output, sharing_mounts_of, start_time, with_marker,
)  # fmt: skip
from support.waiting import wait_for

pytestmark = pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to make namespaces and mounts")


@pytest.fixture
def running():
    """Starts sandboxes, and kills those that a failed test has left."""
    started = []

    def start(script, **more):
        marker = make_marker()
        started.append(Running(script.replace("MARKER", marker), marker, **more))
        started[-1].wait_until_ready()
        return started[-1]

    yield start
    for sandbox in started:
        if sandbox.process.poll() is None:
            sandbox.process.kill()
            sandbox.process.wait()


# Signals and the command's end.


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_signal_during_the_start_ends_it_quietly(name):
    # At various moments after the start of Python itself.
    for milliseconds in range(0, 50, 5):
        marker = make_marker()
        process = subprocess.Popen([SANDBOX, "sleep", marker], stderr=subprocess.PIPE)
        wait_for(lambda: in_mask(process.pid, "SigBlk", signal.SIGHUP), "signals blocked", LIMIT_S)
        time.sleep(milliseconds / 1000)
        process.send_signal(signal.Signals[name])
        assert process.communicate(timeout=LIMIT_S)[1] == b""
        assert process.returncode == 128 + signal.Signals[name]
        wait_for(lambda: not with_marker(marker), lambda: with_marker(marker), LIMIT_S)


def test_nothing_is_left_after_a_normal_end(running):
    sandbox = running("sleep MARKER & echo ready; read line; exit 9", stdin=subprocess.PIPE)
    sandbox.process.stdin.close()
    sandbox.ends_with(9)


def test_nothing_is_left_of_a_daemon(running):
    daemon = "setsid -f bash -c \"trap '' HUP INT TERM; echo ready; sleep MARKER; sleep MARKER\""
    sandbox = running(f"{daemon}; read line; exit 0", stdin=subprocess.PIPE)
    sandbox.process.stdin.close()
    sandbox.ends_with(0)


def test_nothing_is_left_after_the_command_is_killed(running):
    sandbox = running("sleep MARKER & echo ready; read line", stdin=subprocess.PIPE)
    os.kill(sandbox.command_pid(), signal.SIGKILL)
    sandbox.ends_with(128 + signal.SIGKILL)


def test_nothing_is_left_after_the_sandbox_is_killed(running):
    sandbox = running("trap '' HUP INT TERM; sleep MARKER & echo ready; sleep MARKER; sleep MARKER")
    sandbox.process.kill()
    sandbox.ends_with(-signal.SIGKILL)


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_signal_to_the_sandbox_reaches_the_command(running, name):
    sandbox = running("sleep MARKER & echo ready; exec sleep MARKER")
    sandbox.process.send_signal(signal.Signals[name])
    sandbox.ends_with(128 + signal.Signals[name])


@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_command_may_clean_up_after_a_signal(running, name):
    sandbox = running(f"trap 'exit 33' {name}; sleep MARKER & echo ready; wait")
    sandbox.process.send_signal(signal.Signals[name])
    sandbox.ends_with(33)


COUNTING = r"""exec /usr/bin/python3 -uc '
import signal
def say(number, frame):
    print(signal.Signals(number).name)
    if number == signal.SIGHUP:
        raise SystemExit(4)
signal.signal(signal.SIGINT, say)
signal.signal(signal.SIGHUP, say)
print("ready")
while True:
    signal.pause()
' MARKER"""


def test_signal_to_the_process_group_arrives_once(running):
    sandbox = running(COUNTING)
    os.killpg(sandbox.process.pid, signal.SIGINT)
    assert sandbox.process.stdout.readline() == "SIGINT\n"
    sandbox.process.send_signal(signal.SIGHUP)
    assert sandbox.process.stdout.read() == "SIGHUP\n"
    sandbox.ends_with(4)


def test_second_interrupt_ends_at_once(running):
    sandbox = running(COUNTING)
    begin = time.monotonic()
    sandbox.process.send_signal(signal.SIGINT)
    assert sandbox.process.stdout.readline() == "SIGINT\n"
    sandbox.process.send_signal(signal.SIGINT)
    sandbox.ends_with(128 + signal.SIGINT)
    assert time.monotonic() - begin < 4


def test_command_that_ignores_a_signal_is_killed_after_five_seconds(running):
    sandbox = running("trap '' TERM; echo ready; while :; do sleep MARKER; done")
    begin = time.monotonic()
    sandbox.process.send_signal(signal.SIGTERM)
    sandbox.ends_with(128 + signal.SIGTERM)
    assert time.monotonic() - begin > 4.9


def test_signal_that_the_caller_ignores_stays_ignored():
    script = f"trap '' HUP; exec {SANDBOX} bash -c 'echo $$; kill -HUP $$; read line; echo on'"
    process = subprocess.Popen(["bash", "-c", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               text=True)
    process.stdout.readline()
    process.send_signal(signal.SIGHUP)
    assert process.communicate("\n", LIMIT_S)[0] == "on\n"
    assert process.returncode == 0


def test_signals_from_inside_do_not_end_process_1():
    assert output("sh", "-c", "kill -TERM 1; kill -INT 1; kill -KILL 1; kill -STOP 1; echo on") == "on\n"


ORPHANS = """
import glob, subprocess, time
subprocess.run(["sh", "-c", "for i in 1 2 3 4 5 6 7 8 9; do (sleep 0.05 & ) ; done"])
end = time.monotonic() + 15
count = lambda: len(glob.glob("/proc/[0-9]*"))
while count() > 2 and time.monotonic() < end:
    time.sleep(0.01)
print(count())
"""


def test_orphans_are_reaped():
    assert output("/usr/bin/python3", "-c", ORPHANS) == "2\n"


# At a terminal.


class Terminal:
    """A program at a terminal of its own, and its output there."""

    def __init__(self, *arguments):
        self.text = ""
        self.status = None
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.environ["PS1"] = "prompt> "
            os.execv(arguments[0], arguments)

    def read_some(self):
        if not select.select([self.terminal], [], [], 0.1)[0]:
            return
        with contextlib.suppress(OSError):  # EIO: no process has the terminal open any longer
            self.text += os.read(self.terminal, 65536).decode()

    def expect(self, text):
        """Waits for a text, and drops the output up to its end."""
        end = time.monotonic() + LIMIT_S
        while text not in self.text:
            assert time.monotonic() < end, self.text
            self.read_some()
        self.text = self.text.partition(text)[2]

    def type(self, text):
        os.write(self.terminal, text.encode())

    def has_ended(self):
        self.read_some()
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        if pid:
            self.status = os.waitstatus_to_exitcode(status)
        return bool(pid)

    def ends_with(self, status):
        wait_for(self.has_ended, lambda: self.text, LIMIT_S)
        assert self.status == status, self.text

    def close(self):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.terminal)


@pytest.fixture
def at_terminal():
    opened = []

    def start(*arguments):
        opened.append(Terminal(*arguments))
        return opened[-1]

    yield start
    for terminal in opened:
        terminal.close()


def test_ctrl_c_ends_the_command_and_leaves_no_process(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", f"sleep {marker} & echo ready; sleep {marker}")
    terminal.expect("ready")
    members = sharing_mounts_of(terminal.pid)
    assert len(members) >= 4
    terminal.type("\x03")
    terminal.ends_with(130)
    wait_for(lambda: not with_marker(marker), lambda: with_marker(marker), LIMIT_S)
    assert not [pid for pid, began in members if start_time(pid) == began]


def test_ctrl_c_arrives_once_and_a_second_one_ends_everything(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", COUNTING.replace("MARKER", marker))
    terminal.expect("ready")
    terminal.type("\x03")
    terminal.expect("SIGINT")
    # Two pending signals would become one.
    wait_for(lambda: not in_mask(terminal.pid, "ShdPnd", signal.SIGINT), "SIGINT delivered", LIMIT_S)
    terminal.type("\x03")
    terminal.ends_with(130)
    wait_for(lambda: not with_marker(marker), lambda: with_marker(marker), LIMIT_S)


def test_interactive_shell_has_job_control(at_terminal):
    terminal = at_terminal(SANDBOX, "bash", "--norc", "--noprofile", "-i")
    terminal.expect("prompt> ")
    terminal.type("echo $((6 * 7)); tty\n")
    terminal.expect("42\r\n/dev/pts/")
    terminal.type("bash -c 'echo up; cat'\n")
    terminal.expect("up\r\n")
    terminal.type("back\n")
    terminal.expect("back\r\nback\r\n")
    terminal.type("\x1a")
    terminal.expect("Stopped")
    terminal.expect("prompt> ")
    terminal.type("fg\n")
    terminal.expect("cat'\r\n")
    terminal.type("again\n")
    terminal.expect("again\r\nagain\r\n")
    terminal.type("\x03")
    terminal.expect("prompt> ")
    terminal.type("exit 3\n")
    terminal.ends_with(3)


def test_caller_gets_its_terminal_back_after_a_shell(at_terminal):
    script = f"{SANDBOX} bash --norc --noprofile -i; echo status $?; read line; echo got $line"
    terminal = at_terminal("/bin/sh", "-c", script)
    terminal.expect("prompt> ")
    terminal.type("exit 6\n")
    terminal.expect("status 6")
    terminal.type("a word\n")
    terminal.expect("got a word")
    terminal.ends_with(0)


def test_hangup_of_the_terminal_ends_everything(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", f"sleep {marker} & echo ready; sleep {marker}")
    terminal.expect("ready")
    os.close(terminal.terminal)
    terminal.terminal = os.open("/dev/null", os.O_RDONLY)
    terminal.ends_with(128 + signal.SIGHUP)
    wait_for(lambda: not with_marker(marker), lambda: with_marker(marker), LIMIT_S)
