"""The leak monitor over real processes: mon as a user runs it, and the daemon's thread."""

import contextlib
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import sys
import time

import pytest

from support.answers import PLAIN_HEAD, body_of
from support.archives import split_tar
from support.processes import children_of, descriptors_of, in_mount_namespace, process_stat, processes
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

DAEMON_STATUS = pathlib.Path("/var/run/dbg-cgi/dbg-monitor.txt")
SCHED_IDLE = 5
NOBODY = 65534
# mon writes to /tmp, so it gets its own. That may hide the build folder, which is therefore mounted below
# /run.
OWN_TMP = f'mkdir -p /run/built; mount --bind "{BIN.parent}" /run/built; mount -t tmpfs -o mode=1777 none /tmp'
MON = "/run/built/bin/mon"

FD_LINE = re.compile(r"pid (\d+) name (.*) fd_score (\d+) \[(\+?)(-?\d+)\] sk=(\d+)")
FORK_LINE = re.compile(r"pid (\d+) name (.*) fork_score (\d+) \[(\+?)(-?\d+)\]")
HISTORY = re.compile(r"(\d+)h nr_fd=(\d+) nr_sock=(\d+) nr_pipe=(\d+)")
LABELS = [0, 1, 2, 3, 4, 37, 70, 103]


class Mon:
    """A running mon."""

    def __init__(self, folder, *arguments, script="", **popen):
        self.stderr = folder / f"mon{len(list(folder.glob('mon*')))}"
        words = [*in_mount_namespace(OWN_TMP + script), MON, *arguments]
        with open(self.stderr, "wb") as err:
            self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stderr=err, **popen)
        self.pid = self.process.pid
        wait_for(lambda: os.readlink(f"/proc/{self.pid}/exe").endswith("/zarvo"), "started")

    def said(self):
        return self.stderr.read_text(errors="surrogateescape")

    def lines(self, pid, pattern=FD_LINE):
        """The reports about a process, as matches."""
        found = map(pattern.fullmatch, self.said().splitlines())
        return [match for match in found if match and int(match[1]) == pid]

    def report(self):
        """The status file as it is now, or "" if there is none."""
        try:
            return pathlib.Path(f"/proc/{self.pid}/root/tmp/dbg-report.txt").read_text()
        except FileNotFoundError:
            return ""

    def round(self):
        found = re.match(r"Debug monitor status round=([0-9a-f]+)\n\n", self.report())
        return int(found[1], 16) if found else 0

    def wait_for_rounds(self, count):
        """Waits until `count` complete rounds have begun and ended."""
        goal = self.round() + count + 1
        wait_for(lambda: self.round() >= goal, lambda: f"round {goal}: {self.said()}")

    def folder(self):
        return sorted(os.listdir(f"/proc/{self.pid}/root/tmp"))

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        assert self.process.wait(PATIENCE) == 0
        assert self.said().endswith("\nCleanup and exit.\n")
        assert "runtime error:" not in self.said(), self.said()


@pytest.fixture
def mon(clean_sandbox, tmp_path):
    started = []

    def start_one(*arguments, **how):
        started.append(Mon(tmp_path, *arguments, **how))
        return started[-1]

    yield start_one
    for one in started:
        if one.process.poll() is None:
            one.stop()


@pytest.fixture
def run(clean_sandbox):
    """Starts programs that are killed at the end, with their children."""
    started = []

    def start_one(words, **how):
        started.append(subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, **how))
        return started[-1].pid

    yield start_one
    for one in started:
        one.send_signal(signal.SIGSTOP)  # no further child from now on
        wait_for(lambda: process_stat(one.pid)[0] in "TZ", "stopped")
        offspring = [child for child, _ in children_of(one.pid)]
        one.kill()
        one.wait()
        for child in offspring:
            with contextlib.suppress(ProcessLookupError):
                os.kill(child, signal.SIGKILL)


HOLDER = """
import os, resource, signal, socket, sys
most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
plain, sockets, pipes = map(int, sys.argv[1:4])
held = [os.open("/dev/null", os.O_RDONLY) for _ in range(plain)]
held += [socket.socket() for _ in range(sockets)]
held += [os.pipe() for _ in range(pipes)]
print("ready", flush=True)
signal.pause()
"""


@pytest.fixture
def hold(clean_sandbox):
    """Starts a process with descriptors: of files, of sockets, two for each pipe. Returns its pid."""
    started = []

    def start_one(plain=0, sockets=0, pipes=0, name="/x/holder", **how):
        one = subprocess.Popen(
            [name, "-c", HOLDER, str(plain), str(sockets), str(pipes)], executable=sys.executable, stdout=subprocess.PIPE,
            stdin=subprocess.DEVNULL, **how,
        )  # fmt: skip
        started.append(one)
        assert one.stdout.readline() == b"ready\n"
        return one.pid

    yield start_one
    for one in started:
        one.kill()
        one.wait()
        one.stdout.close()


def fd_score(counts):
    total, sockets = counts
    return (total - sockets) // 32 + sockets // 8


def counts_of(pid):
    """(descriptors, sockets) of a process."""
    targets = descriptors_of(pid).values()
    return len(targets), sum(target.startswith("socket:[") for target in targets)


def block_of(report, pid, score):
    """The (descriptors, sockets, pipes) in the block of a process."""
    lines = report.splitlines()
    at = lines.index(f"fdstats for pid={pid} score={score}:")
    found = [HISTORY.fullmatch(line) for line in lines[at + 1 : at + 9]]
    assert [int(match[1]) for match in found] == LABELS
    return [tuple(map(int, match.groups()[1:])) for match in found]


def test_leaking_process_is_reported_whenever_its_score_has_risen_by_more_than_32(mon, run):
    leaker = run([BIN / "fdleak", "1000"], preexec_fn=lambda: limit_descriptors(4096))
    watcher = mon()
    wait_for(lambda: len(watcher.lines(leaker)) >= 3, watcher.said)
    reported = 0
    for line in watcher.lines(leaker):
        score, delta = int(line[3]), int(line[5])
        assert line[2] == "fdleak"
        assert score > reported + 32
        assert (line[4] == "+") == (delta >= 1)
        reported = score


def limit_descriptors(count):
    resource.setrlimit(resource.RLIMIT_NOFILE, (count, count))


def test_status_shows_the_descriptors_of_a_process(mon, hold):
    pid = hold(plain=700, sockets=300, pipes=20)
    watcher = mon("10000")
    watcher.wait_for_rounds(4)
    total, sockets = counts_of(pid)
    assert total >= 1040 and sockets == 300
    score = fd_score((total, sockets))
    now = (total, sockets, 0)  # pipes are never counted
    assert block_of(watcher.report(), pid, score)[:5] == [now] * 5
    (line,) = watcher.lines(pid)
    assert line[0] == f"pid {pid} name holder fd_score {score} [+{score}] sk=300"


def test_socket_holding_process_is_reported(mon, hold):
    pid = hold(sockets=300)
    total, sockets = counts_of(pid)
    score = fd_score((total, sockets))
    watcher = mon()
    wait_for(lambda: watcher.lines(pid), watcher.said)
    assert watcher.lines(pid)[0][0] == f"pid {pid} name holder fd_score {score} [+{score}] sk=300"


def test_process_with_few_descriptors_is_not_reported(mon, hold):
    pid = hold(plain=300, sockets=40)
    watcher = mon()
    watcher.wait_for_rounds(2)
    assert watcher.lines(pid) == []
    assert f"pid={pid} " not in watcher.report()


def test_forking_process_is_reported_for_each_further_16_children(mon, run):
    watcher = mon()
    watcher.wait_for_rounds(1)
    forker = run([BIN / "forkbomb", "20000"])
    wait_for(lambda: len(watcher.lines(forker, FORK_LINE)) >= 2, watcher.said)
    os.kill(forker, signal.SIGSTOP)
    wait_for(lambda: process_stat(forker)[0] == "T", "stopped")
    watcher.wait_for_rounds(2)
    count = len(children_of(forker))
    assert f"forkstats for pid={forker}: score={count} nr_childs={count}\n" in watcher.report()
    reported = 0
    for line in watcher.lines(forker, FORK_LINE):
        assert line[2] == "forkbomb"
        assert int(line[3]) >= reported + 16
        reported = int(line[3])


def test_history_of_a_process_starts_again_after_an_exec(mon, run):
    switch = (
        "import os, signal, socket\n"
        "held = [os.open('/dev/null', os.O_RDONLY) for _ in range(500)]\n"
        "held += [socket.socket() for _ in range(200)]\n"
        "[os.set_inheritable(x if isinstance(x, int) else x.fileno(), True) for x in held]\n"
        "signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGUSR1])\n"
        "signal.sigwait([signal.SIGUSR1])\n"
        "os.execv('/bin/sleep', ['/x/second', '1000'])\n"
    )
    pid = run(["/x/first", "-c", switch], executable=sys.executable)
    watcher = mon()
    wait_for(lambda: watcher.lines(pid), watcher.said)
    watcher.wait_for_rounds(2)
    os.kill(pid, signal.SIGUSR1)
    wait_for(lambda: watcher.lines(pid)[-1][2] == "second", watcher.said)
    lines = watcher.lines(pid)
    assert lines[0][2] == "first"
    # During an exec there is no command line, so the process has its short name for a moment.
    assert {line[2] for line in lines} <= {"first", "sleep", "second"}
    assert lines[-1][5] == lines[-1][3], "the history of the first program must be dropped"


def test_name_is_shown_unchanged(mon, hold):
    name = "na me) (" + "n" * 90
    pid = hold(sockets=300, name="/x/" + name)
    watcher = mon()
    wait_for(lambda: watcher.lines(pid), watcher.said)
    assert watcher.lines(pid)[0][2] == name


def test_descriptors_without_read_permission_are_not_counted(mon, hold):
    hidden = hold(sockets=300)
    own = hold(sockets=300, user=NOBODY)
    watcher = mon(script='; exec setpriv --reuid=65534 --clear-groups "$@"')
    wait_for(lambda: watcher.lines(own), watcher.said)
    watcher.wait_for_rounds(2)
    assert watcher.lines(hidden) == []


def test_status_file_is_always_complete(mon, hold):
    pids = [hold(sockets=300) for _ in range(3)]
    watcher = mon("0")
    wait_for(lambda: all(watcher.lines(pid) for pid in pids), watcher.said)
    watcher.wait_for_rounds(4)
    seen = set()
    end = time.monotonic() + PATIENCE
    while len(seen) < 200 and time.monotonic() < end:
        report = watcher.report()
        assert report.startswith("Debug monitor status round=")
        assert report.endswith("\n") and HISTORY.fullmatch(report.splitlines()[-1])
        assert [report.count(f"fdstats for pid={pid} ") for pid in pids] == [1, 1, 1]
        assert report.count("\n") == 2 + 9 * report.count("fdstats")
        seen.add(report)
    assert len(seen) > 5


@pytest.mark.parametrize(
    ("argument", "seconds"), [("400000", 0.4), ("0x61a80", 0.4), ("01415200", 0.4)]
)
def test_interval_is_read_in_any_base(mon, argument, seconds):
    watcher = mon(argument)
    wait_for(lambda: watcher.round() >= 2, watcher.said)
    begin = watcher.round()
    start = time.monotonic()
    wait_for(lambda: watcher.round() >= begin + 3, watcher.said)
    # At least two whole intervals have passed.
    assert time.monotonic() - start >= 2 * seconds


def test_interrupt_ends_the_monitor_with_a_message_and_keeps_the_status_file(mon):
    watcher = mon("1000000000")
    wait_for(lambda: watcher.round() == 1, watcher.said)
    folder = os.open(f"/proc/{watcher.pid}/root/tmp", os.O_RDONLY)
    watcher.stop()
    assert watcher.said().splitlines()[-2:] == ["", "Cleanup and exit."]
    assert os.listdir(folder) == ["dbg-report.txt"]
    os.close(folder)


def test_killed_monitor_leaves_no_temporary_file(mon):
    for _ in range(10):
        watcher = mon("0")
        wait_for(lambda: watcher.round() >= 2, watcher.said)
        folder = os.open(f"/proc/{watcher.pid}/root/tmp", os.O_RDONLY)
        watcher.process.terminate()
        assert watcher.process.wait(PATIENCE) == -signal.SIGTERM
        assert os.listdir(folder) == ["dbg-report.txt"]
        os.close(folder)


def test_reports_continue_if_the_status_cannot_be_written(mon, hold):
    pid = hold(sockets=300)
    watcher = mon(script="; mount -o remount,ro none /tmp")
    wait_for(lambda: watcher.lines(pid), watcher.said)
    assert watcher.folder() == []


def test_monitor_does_not_watch_itself_or_its_parent(mon):
    held = [socket.socket() for _ in range(300)]
    watcher = mon()
    watcher.wait_for_rounds(3)
    assert watcher.lines(os.getpid()) == [] and watcher.lines(watcher.pid) == []
    for one in held:
        one.close()


# The daemon's thread.


def policies(pid):
    """The scheduling policy of each thread of a process."""
    found = []
    for task in os.listdir(f"/proc/{pid}/task"):
        text = pathlib.Path(f"/proc/{pid}/task/{task}/stat").read_text()
        found.append(int(text[text.rindex(")") + 2 :].split()[38]))
    return sorted(found)


def test_daemon_monitors_at_idle_priority_and_archives_the_status(start, hold):
    DAEMON_STATUS.unlink(missing_ok=True)
    pid = hold(sockets=300)
    score = fd_score(counts_of(pid))
    daemon = start()
    wait_for(DAEMON_STATUS.exists, daemon.said)
    status = DAEMON_STATUS.read_bytes()
    assert status.startswith(b"Debug monitor status round=1\n\n")
    total, sockets = counts_of(pid)
    block = block_of(status.decode(), pid, score)
    assert block == [(total, sockets, 0), *[(0, 0, 0)] * 3, (total // 4, sockets // 4, 0), *[(0, 0, 0)] * 3]
    assert f"pid {pid} name holder fd_score {score} [+{score}] sk=300\n" in daemon.said()
    found = policies(daemon.pid)
    assert found[0] == 0 and found.count(SCHED_IDLE) == 1  # a sanitizer has threads of its own

    archive = body_of(daemon.answer(b"/cgi-bin/debug.tar"), PLAIN_HEAD)
    (member,) = [one for one in split_tar(archive) if one.name == "dbg-monitor.txt"]
    assert member.data == status
    assert os.listdir(DAEMON_STATUS.parent).count(DAEMON_STATUS.name) == 1
    assert [name for name in os.listdir(DAEMON_STATUS.parent) if ".tmp-" in name] == []


def test_daemon_continues_if_the_status_cannot_be_written(clean_sandbox, start, hold):
    pid = hold(sockets=300)
    folder = DAEMON_STATUS.parent
    keep = "mount -t tmpfs none " + str(folder) + "; mount -o remount,ro none " + str(folder)
    daemon = start(before=in_mount_namespace(keep), own_sockets=True)
    wait_for(lambda: f"pid {pid} name holder fd_score " in daemon.said(), daemon.said)
    daemon.sync()
    assert processes().count(daemon.pid) == 1
