"""Processes as /proc shows them, and words that change how a command runs."""

import contextlib
import os
import pathlib
import re
import subprocess

from support.under_test import SANITIZE
from support.waiting import PATIENCE, wait_for

TRACE_PROGRAMS = ("iostat", "pellora", "eventlistener", "pidstat")  # what a resource trace may start


def processes():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def process_stat(pid):
    """The fields of /proc/PID/stat after the name: state, parent, group... None: no such process."""
    try:
        text = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return text[text.rindex(")") + 2 :].split()


def status_field(pid, key):
    """The value of one line of /proc/PID/status."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return re.search(rf"^{key}:\s*(.*)$", text, re.MULTILINE)[1]


def status_kb(pid, key):
    """A memory size of /proc/PID/status, such as VmRSS or VmHWM."""
    return int(status_field(pid, key).split()[0])


def threads_of(pid):
    return [int(name) for name in os.listdir(f"/proc/{pid}/task")]


def children_of(pid):
    """(pid, state) of each child. The state of a zombie is Z."""
    stats = {child: process_stat(child) for child in processes()}
    return [(child, fields[0]) for child, fields in stats.items() if fields and int(fields[1]) == pid]


def program_of(pid):
    try:
        return os.readlink(f"/proc/{pid}/exe")
    except (FileNotFoundError, ProcessLookupError, PermissionError):
        return ""


def running_copies():
    """The pids of all processes in the sandbox that run one of the built programs."""
    return [pid for pid in processes() if os.path.basename(program_of(pid)) in ("zarvo", "webfront")]


def has_command_line(pid):
    """False for a moment after Popen has returned: it returns when exec closes its descriptors, and the
    kernel sets up the new command line after that."""
    return pathlib.Path(f"/proc/{pid}/cmdline").read_bytes() != b""


def descriptors_of(pid):
    found = {}
    for name in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(FileNotFoundError):
            found[int(name)] = os.readlink(f"/proc/{pid}/fd/{name}")
    return found


def tracer_of(pid):
    """The pid of the tracer, or 0."""
    return int(status_field(pid, "TracerPid"))


def assert_detached(pid, states="SR"):
    """The process has no tracer, and is soon in one of these states."""
    assert tracer_of(pid) == 0
    wait_for(lambda: process_stat(pid)[0] in states, lambda: process_stat(pid)[0])


def end_by(process, sig):
    """Sends a signal that ends a process sooner or later. Returns its status, as Popen reports it."""

    def has_ended():
        process.send_signal(sig)
        return process.poll() is not None

    process.send_signal(sig)
    if SANITIZE == "thread":
        # The thread sanitizer delays a signal until the next blocking call, which nothing else may interrupt.
        wait_for(has_ended, f"the end by {sig.name}")
    return process.wait(PATIENCE)


@contextlib.contextmanager
def started():
    """A function that starts programs with pipes for input and output. They are killed at the end."""
    programs = []

    def start(*words):
        programs.append(subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE))
        return programs[-1]

    try:
        yield start
    finally:
        for program in programs:
            program.kill()
        for program in programs:
            program.communicate()


def in_mount_namespace(script):
    """Words that run a command after the shell commands `script`, whose mounts only the command sees."""
    words = ["/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-ec"]
    return [*words, script + '\nexec "$@"', "sh"]


def without_trace_programs():
    """Words that run a command where no program of a resource trace can be started."""
    hide = (f"[ ! -e /usr/bin/{name} ] || mount --bind /dev/null /usr/bin/{name}" for name in TRACE_PROGRAMS)
    return in_mount_namespace("\n".join(hide))
