"""Cores of real processes in archives, as archiveview reads them."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest

from support.archives import BLOCK, header_of
from support.dumper import run_dcore
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True
PAUSE = "34"
FUTEX = "202"  # the number of the call on x86-64
DEBUGGER = shutil.which("gdb-multiarch")
needs_debugger = pytest.mark.skipif(not DEBUGGER, reason="needs gdb-multiarch")


def archive_of(core, name):
    path = f"debug-20260304-050607-c0/{name}/core"
    return header_of(path, len(core), 1_700_000_000) + core + bytes(-len(core) % BLOCK) + bytes(2 * BLOCK)


def read_archive(archive, tmp_path, **more):
    path = tmp_path / "debug.tar"
    path.write_bytes(archive)
    done = subprocess.run([BIN / "archiveview", "--json", path], stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=PATIENCE * 4, **more)
    assert done.returncode in (0, 3), done.stderr
    return json.loads(done.stdout)["cores"]


@pytest.fixture
def start():
    """Starts a program of the tests."""
    started = []

    def start_one(name, *words):
        process = subprocess.Popen([BIN / f"e2e_{name}", *map(str, words)], stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE)
        started.append(process)
        return process

    yield start_one
    for process in started:
        process.kill()
        process.communicate()


def tasks(pid):
    return sorted(int(name) for name in os.listdir(f"/proc/{pid}/task"))


def call_of(pid, tid):
    try:
        return pathlib.Path(f"/proc/{pid}/task/{tid}/syscall").read_text().split()[0]
    except (FileNotFoundError, ProcessLookupError):
        return ""


@pytest.fixture
def locks_core(start, tmp_path):
    """Reads the core of the program `locks`, of whose threads `waiting` wait for a futex."""

    def read_one(*words, waiting):
        process = start("locks", *words)
        assert process.stdout.readline() == b"ready\n"
        wait_for(lambda: [call_of(process.pid, tid) for tid in tasks(process.pid)].count(FUTEX) == waiting,
                 "threads wait")
        core, _ = run_dcore(process.pid)
        [facts] = read_archive(archive_of(core, f"locks.{process.pid}"), tmp_path)
        assert [thread["tid"] for thread in facts["threads"]] == tasks(process.pid)
        assert (facts["pid"], facts["name"], facts["whole"]) == (process.pid, "locks", True)
        assert [thread["waits_in"] for thread in facts["threads"]].count("futex") == waiting
        return facts

    return read_one


def owners(facts):
    return {thread["tid"]: thread["owner"] for thread in facts["threads"] if thread["owner"]}


@pytest.mark.parametrize("count", [2, 3, 5])
def test_threads_that_wait_for_one_another_are_one_deadlock(locks_core, count):
    facts = locks_core("cycle", count, waiting=count)
    first, *members = [thread["tid"] for thread in facts["threads"]]
    assert first == facts["pid"]
    assert owners(facts) == dict(zip(members, members[1:] + members[:1]))
    [deadlock] = facts["deadlocks"]
    assert (deadlock["tids"], deadlock["cycle"]) == (members, True)


def test_lock_of_a_thread_that_has_ended_is_told(locks_core):
    facts = locks_core("ended", waiting=1)
    _, waiting = facts["threads"]
    assert waiting["owner_ended"] and waiting["owner"] not in tasks(facts["pid"])
    [deadlock] = facts["deadlocks"]
    assert (deadlock["tids"], deadlock["cycle"]) == ([waiting["tid"]], False)


@pytest.mark.parametrize("kind", ["conditions", "semaphores"])
def test_waits_without_an_owner_are_no_deadlock(locks_core, kind):
    facts = locks_core(kind, 3, waiting=3)
    assert (owners(facts), facts["deadlocks"]) == ({}, [])


def test_join_of_a_thread_that_wants_the_lock_is_a_deadlock(locks_core):
    facts = locks_core("join", waiting=2)
    _, joining, wanting = (thread["tid"] for thread in facts["threads"])
    assert owners(facts) == {wanting: joining}
    [deadlock] = facts["deadlocks"]
    assert (deadlock["tids"], deadlock["cycle"]) == ([joining, wanting], True)


# A line of gdb: the number of the frame, perhaps its address, then the function.
FRAME = re.compile(r"#\d+ +(?:0x[0-9a-f]+ in )?(.+?) \(")


def stacks_of_debugger(program, core):
    """The program counter and the functions of each thread, as gdb shows them with all files at hand."""
    said = subprocess.run([DEBUGGER, "-nx", "-batch", "-iex", "set debuginfod enabled off",
                           "-iex", "set print frame-arguments presence",
                           "-iex", "set backtrace past-main on", "-ex", "set width 0",
                           "-ex", "thread apply all -s backtrace", "-ex", "thread apply all print/x $pc",
                           program, core], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          timeout=PATIENCE * 4, check=True).stdout  # fmt: skip
    frames, counters, tid = {}, {}, None
    for line in said.splitlines():
        if found := re.match(r"Thread .*LWP (\d+)", line):
            tid = int(found[1])
        elif tid and (found := FRAME.match(line)):
            frames.setdefault(tid, []).append(found[1])
        elif tid and (found := re.fullmatch(r"\$\d+ = (0x[0-9a-f]+)", line)):
            counters[tid] = int(found[1], 16)
    return frames, counters


@needs_debugger
@pytest.mark.parametrize("words", [("locks", "cycle", 3), ("locks", "conditions", 2)])
def test_threads_and_stacks_are_those_that_the_debugger_shows(start, tmp_path, words):
    process = start(*words)
    assert process.stdout.readline() == b"ready\n"
    # A thread that has just begun has a stack whose end the debugger guesses.
    wait_for(lambda: sorted(call_of(process.pid, tid) for tid in tasks(process.pid)) ==
             [FUTEX] * words[-1] + [PAUSE], "threads wait")  # fmt: skip
    core, _ = run_dcore(process.pid)
    [facts] = read_archive(archive_of(core, f"locks.{process.pid}"), tmp_path)
    path = tmp_path / "core"
    path.write_bytes(core)
    frames, counters = stacks_of_debugger(BIN / "e2e_locks", path)
    assert {thread["tid"]: int(thread["pc"], 16) for thread in facts["threads"]} == counters
    assert facts["stack_remark"] is None
    # A function that gdb does not know is shown as a place.
    shown = {thread["tid"]: ["??" if "+0x" in each else each for each in thread["frames"]]
             for thread in facts["threads"]}  # fmt: skip
    assert shown == frames
    assert any("main" in each for each in frames.values())


@needs_debugger
def test_file_with_another_build_id_is_not_used(tmp_path):
    program = tmp_path / "sleeper"
    shutil.copy("/bin/sleep", program)
    process = subprocess.Popen([program, "1000"])
    try:
        wait_for(lambda: call_of(process.pid, process.pid) == "230", "sleeps")
        core, _ = run_dcore(process.pid)
    finally:
        process.kill()
        process.wait()
    with_program = read_archive(archive_of(core, "sleeper.1"), tmp_path)[0]["threads"][0]["frames"]
    program.unlink()
    shutil.copy("/bin/cat", program)
    with_another = read_archive(archive_of(core, "sleeper.1"), tmp_path)[0]["threads"][0]["frames"]
    assert len([frame for frame in with_program if frame.startswith("sleeper+0x")]) >= 2, with_program
    assert len([frame for frame in with_another if frame.startswith("sleeper+0x")]) == 1, with_another
    assert with_another == with_program[: len(with_another)]


def test_command_opens_the_core(start, tmp_path):
    process = start("locks", "ended")
    assert process.stdout.readline() == b"ready\n"
    core, _ = run_dcore(process.pid)
    [facts] = read_archive(archive_of(core, f"it's a $(touch x).{process.pid}"), tmp_path)
    folder = tmp_path / "here"
    folder.mkdir()
    (folder / "gdb-multiarch").write_text('#!/bin/sh\necho "$@"\n')
    (folder / "gdb-multiarch").chmod(0o755)
    command = facts["gdb_command"].replace("ARCHIVE", "../debug.tar")
    said = subprocess.run(["bash", "-c", command], cwd=folder, env=dict(os.environ, PATH=f"{folder}:/usr/bin:/bin"),
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True).stdout
    assert said == f"-core core.{process.pid} {BIN / 'e2e_locks'}\n"
    assert (folder / f"core.{process.pid}").read_bytes() == core
    assert not (folder / "x").exists()


def test_cut_core_keeps_its_threads(start, tmp_path):
    process = start("ten_threads")
    wait_for(lambda: len(tasks(process.pid)) == 11, "all threads run")
    core, _ = run_dcore(process.pid)
    archive = archive_of(core, f"ten_threads.{process.pid}")[: BLOCK + len(core) // 2]
    [facts] = read_archive(archive, tmp_path)
    assert sorted(thread["tid"] for thread in facts["threads"]) == tasks(process.pid)
    assert not facts["whole"] and str(len(core)) in facts["damage"]


def test_archive_is_read_without_a_debugger(start, tmp_path):
    process = start("locks", "cycle", 2)
    assert process.stdout.readline() == b"ready\n"
    core, _ = run_dcore(process.pid)
    began = time.monotonic()
    [facts] = read_archive(archive_of(core, f"locks.{process.pid}"), tmp_path, env=dict(os.environ, PATH="/nonexistent"))
    assert time.monotonic() - began < PATIENCE
    assert facts["stack_remark"] == "gdb-multiarch is not installed."
    assert [thread["frames"] for thread in facts["threads"]] == [[], [], []]
