"""Running tools/sandbox, and finding the processes that belong to a sandbox."""

import contextlib
import os
import pathlib
import subprocess
import time

from support.processes import process_stat, processes, status_field
from support.under_test import ROOT
from support.waiting import wait_for

SANDBOX = str(ROOT / "tools" / "sandbox")
LIMIT_S = 20


def run(*arguments, **more):
    more = {"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, "timeout": LIMIT_S} | more
    if "input" in more:
        del more["stdin"]
    return subprocess.run([SANDBOX, *arguments], **more)


def output(*arguments, **more):
    done = run(*arguments, **more)
    assert done.returncode == 0, done.stderr
    return done.stdout


def start_time(pid):
    """Together with the pid, it identifies a process for good. None if the process has ended."""
    fields = process_stat(pid)
    return fields[19] if fields and fields[0] != "Z" else None


def with_marker(marker):
    """The processes that have the marker in their command line."""
    found = []
    for pid in processes():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            if marker.encode() in pathlib.Path(f"/proc/{pid}/cmdline").read_bytes():
                found.append(pid)
    return found


def sharing_mounts_of(pid):
    """(pid, start time) of all processes in the same sandbox as this one, including the supervisor."""
    namespace = os.readlink(f"/proc/{pid}/ns/mnt")
    found = set()
    for other in processes():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
            if os.readlink(f"/proc/{other}/ns/mnt") == namespace:
                found.add((other, start_time(other)))
    return found


def in_mask(pid, mask, number):
    """True if a mask of /proc/PID/status has the signal. ShdPnd: pending. SigBlk: blocked."""
    return bool(int(status_field(pid, mask), 16) & 1 << number - 1)


def make_marker():
    """A number of seconds that no other process on this machine sleeps for."""
    return f"{86400 + os.getpid()}.{time.monotonic_ns() % 10**9:09d}"


class Running:
    """A sandbox whose command prints "ready", and the processes that belong to it."""

    def __init__(self, script, marker, stdin=subprocess.DEVNULL):
        self.marker = marker
        self.machine_mounts = pathlib.Path("/proc/self/mountinfo").read_text()
        self.process = subprocess.Popen([SANDBOX, "bash", "-c", script], stdin=stdin,
                                        stdout=subprocess.PIPE, text=True, start_new_session=True)

    def wait_until_ready(self):
        assert self.process.stdout.readline() == "ready\n"
        self.members = sharing_mounts_of(self.process.pid)
        assert len(self.members) >= 3   # supervisor, init, command

    def command_pid(self):
        init = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()[0]
        return int(pathlib.Path(f"/proc/{init}/task/{init}/children").read_text().split()[0])

    def ends_with(self, status):
        assert self.process.wait(LIMIT_S) == status
        self.process.stdout.close()
        wait_for(lambda: not self.leftovers(), self.leftovers, LIMIT_S)
        assert pathlib.Path("/proc/self/mountinfo").read_text() == self.machine_mounts

    def leftovers(self):
        alive = [member for member in self.members if start_time(member[0]) == member[1]]
        return alive + with_marker(self.marker)
