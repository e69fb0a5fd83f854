"""Processes to be dumped, and a dumper that does for each of them what a test wants."""

import subprocess

from support.processes import has_command_line, process_stat
from support.waiting import wait_for

MEBI = 1 << 20


def control_line(length, pids="", size=None):
    """A control line. `size`: its length with the newline."""
    text = f"Core of:{length} bytes; and covered: {pids}"
    return text + "x" * (size - 1 - len(text) if size else 0) + "\n"


def to_stderr(text):
    """A shell command that writes to standard error."""
    return f"printf '%s' '{text}' >&2\n"


def to_stdout(text):
    """A shell command that writes to standard output."""
    return f"printf '%s' '{text}'\n"


def zeros(size, redirection=""):
    """A shell command that writes zero bytes."""
    return f"head -c {size} /dev/zero {redirection}\n"


GOOD = to_stderr(control_line(4)) + to_stdout("core")
NONE = to_stderr(control_line(0) + "nothing to dump")


class Victims:
    """Sleeping processes, and a dumper that runs a script for each of them."""

    def __init__(self, folder):
        self.folder = folder / "victims"
        self.folder.mkdir()
        self.dumper = folder / "dumper"
        self.dumper.write_text(f'#!/bin/sh\nexec /bin/sh "{self.folder}/$3" "$@"\n')
        self.dumper.chmod(0o755)
        self.sleepers = {}

    def add(self, name, script):
        """Starts a process called `name`, for which the dumper runs `script`. Returns its pid."""
        sleeper = subprocess.Popen([f"/zarvo-test/{name}", "1000"], executable="/bin/sleep")
        wait_for(lambda: has_command_line(sleeper.pid), "command line")
        self.sleepers[name] = sleeper
        self.also_dumps(sleeper.pid, script)
        return sleeper.pid

    def also_dumps(self, pid, script):
        (self.folder / str(pid)).write_text(script)

    def pid(self, name):
        return self.sleepers[name].pid

    def core(self, name):
        return f"{name}.{self.pid(name)}/core"

    def fdmap(self, name):
        return f"{name}.{self.pid(name)}/fdmap"

    def states(self):
        return {process_stat(sleeper.pid)[0] for sleeper in self.sleepers.values()}

    def wait_asleep(self):
        """A process that has just been detached may not be asleep again yet."""
        wait_for(lambda: self.states() <= {"S"}, self.states)

    def end(self):
        for sleeper in self.sleepers.values():
            sleeper.kill()
            sleeper.wait()


def cores_in(members):
    """{name: data} of the members that the dumps have made."""
    return {member.name: member.data for member in members if member.name.endswith(("/core", "/fdmap"))}
