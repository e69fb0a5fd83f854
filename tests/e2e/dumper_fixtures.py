"""Fixtures of the dumper's tests."""

import shutil
import subprocess

import pytest

from support.core_file import FLAGS, SOURCE
from support.dumper import Stalled, is_held
from support.waiting import wait_for


@pytest.fixture(scope="session")
def program(tmp_path_factory):
    """The program that is dumped."""
    if not shutil.which("g++"):
        pytest.skip("needs g++")
    path = tmp_path_factory.mktemp("dumped") / "dumped"
    subprocess.run(["g++", *FLAGS, "-o", path, SOURCE], check=True)
    return path


@pytest.fixture
def start_target(program):
    """Starts the program; the attribute `said` of the process is the first line that it printed."""
    started = []

    def start_one(*words):
        process = subprocess.Popen([program, *map(str, words)], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        started.append(process)
        process.said = process.stdout.readline().decode().strip()
        assert process.said
        return process

    yield start_one
    for process in started:
        process.kill()
        process.communicate()


@pytest.fixture
def stall():
    """Starts dumpers that stall because their output is not read further; arguments as for Stalled."""
    started = []

    def stall_one(pid, **how):
        started.append(Stalled(pid, **how))
        return started[-1]

    yield stall_one
    for each in started:
        each.end()


@pytest.fixture
def hold(stall):
    """Starts a dumper that stalls and holds the target. A stalled dumper releases the target after a while. If
    that was before the check here, another one is started."""

    def start_one(pid):
        dumper = stall(pid)
        return dumper if is_held(pid) else None

    return lambda pid: wait_for(lambda: start_one(pid), "held")

