"""cmd=coredump: the core of one live process."""

import contextlib
import pathlib

import pytest

from support.answers import BAD_REQUEST, BUSY_PAGE, CORE_HEAD, PLAIN_HEAD
from support.archives import assert_whole
from support.connections import SMALL_BUFFER
from support.processes import children_of
from support.system_log import Log, log_error
from support.victims import MEBI, control_line, cores_in, to_stderr, to_stdout, zeros
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True
pytest_plugins = ["victim_fixtures"]


def core_request(pid):
    return b"cmd=coredump&pid=" + str(pid).encode()


@pytest.mark.parametrize("by_name", [False, True], ids=["number", "name"])
def test_single_core_is_what_the_dumper_writes(dumping, victims, by_name):
    size = 3_000_000
    pid = victims.add("single", to_stderr(control_line(size)) + zeros(MEBI, ">&2") + zeros(size))
    assert dumping.answer(b"/x", core_request("single" if by_name else pid)) == CORE_HEAD + bytes(size)
    assert dumping.said() == ""


def test_single_core_gives_the_dumper_its_arguments(dumping, victims):
    pid = victims.add("single", 'printf "%s|" "$#" "$@"')
    assert dumping.answer(b"no-slash", core_request(pid)) == CORE_HEAD + b"3|-c|/dev/stdout|%d|" % pid


@pytest.mark.parametrize(
    "script", ["exit 3", "kill -9 $$", to_stderr(control_line(4)) + "exit 1"], ids=["status", "signal", "after-line"]
)
def test_single_core_of_a_dumper_that_fails_is_empty(dumping, victims, script):
    pid = victims.add("single", script)
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD
    assert dumping.said() == f"dump error for pid {pid}\n"


@pytest.mark.parametrize(
    "script, reason",
    [
        (
            to_stderr(control_line(0) + "dcore: process PID is traced by 17\n"),
            control_line(0)[:-1] + " dcore: process PID is traced by 17",
        ),
        (
            to_stderr(control_line(4) + "later") + "exec >&-; " + to_stderr(" still\n") + "exit 1",
            control_line(4)[:-1] + " later still",
        ),
        ("exit 3", "no message from the dumper"),
        ("kill -9 $$", "no message from the dumper"),
    ],
    ids=["none", "late", "status", "signal"],
)
def test_reason_for_an_empty_core_is_logged(dumping, victims, script, reason):
    pid = victims.add("single", "")
    victims.also_dumps(pid, script.replace("PID", str(pid)))
    log = Log()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD
    assert log.wait(1) == [log_error(dumping.pid, f"No core of pid {pid}: " + reason.replace("PID", str(pid)))]


def test_reason_for_a_truncated_core_is_logged(dumping, victims):
    pid = victims.add("single", to_stdout("part") + to_stderr("ran out of memory\n") + "exit 1")
    log = Log()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD + b"part"
    assert log.wait(1) == [log_error(dumping.pid, f"Core of pid {pid} is not complete: ran out of memory")]


def test_reason_for_an_empty_core_of_the_daemon_itself_is_logged(dumping, victims):
    victims.also_dumps(dumping.pid, to_stderr("no memory\n"))
    log = Log()
    assert dumping.answer(b"/x", core_request(dumping.pid)) == CORE_HEAD
    assert log.wait(1) == [log_error(dumping.pid, f"No core of pid {dumping.pid}: no memory")]


def test_complete_cores_and_leaving_browsers_are_not_logged(dumping, victims):
    pid = victims.add("single", zeros(20 * MEBI))
    log = Log()
    browser = dumping.ask(b"/x", core_request(pid), buffer_size=SMALL_BUFFER)
    assert browser.read(len(CORE_HEAD) + 5000) == CORE_HEAD + bytes(5000)
    browser.close()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD + bytes(20 * MEBI)
    assert log.lines() == []


def test_single_core_of_an_unknown_name_starts_no_dumper(dumping, victims):
    assert dumping.answer(b"/x", core_request("no-such-name")) == BAD_REQUEST
    assert dumping.said() == ""


def test_single_core_is_dropped_when_its_browser_leaves(dumping, victims):
    pid = victims.add("single", zeros(20 * MEBI))
    browser = dumping.ask(b"/x", core_request(pid), buffer_size=SMALL_BUFFER)
    assert browser.read(len(CORE_HEAD) + 5000) == CORE_HEAD + bytes(5000)
    browser.close()
    dumping.sync()
    assert children_of(dumping.pid) == []


def test_daemon_dumps_itself_although_it_is_stopped_meanwhile(dumping, victims):
    size = 3_000_000
    victims.also_dumps(dumping.pid, f"kill -STOP $3\n{zeros(size)}kill -CONT $3\n")
    waiting = dumping.waiting_browser()
    assert dumping.answer(b"/x", core_request(dumping.pid)) == CORE_HEAD + bytes(size)
    dumping.push(b"pushed")
    assert waiting.read_all() == CORE_HEAD + b"pushed"


def test_single_core_during_an_archives_dumps_is_of_the_right_process(dumping, victims):
    gate = victims.folder / "gate"
    slow = f"while [ ! -e {gate} ]; do sleep 0.05; done\n"
    half = to_stdout("1234567890")
    first = victims.add("first", to_stderr(control_line(20)) + half + slow + half)
    announce = 'printf "Core of:%s bytes\\n" ${#3} >&2\n'
    other = victims.add("other", announce + 'printf "%s" "$3"')
    archive = dumping.ask(b"/x/debug.tar")

    def is_dumping_first():
        commands = [pathlib.Path(f"/proc/{pid}/cmdline") for pid, _ in children_of(dumping.pid)]
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            return any(str(first).encode() in command.read_bytes() for command in commands)

    archive.near.settimeout(4 * PATIENCE)
    assert archive.read(len(PLAIN_HEAD)) == PLAIN_HEAD
    pieces = []

    def has_reached_first_core():
        pieces.append(archive.near.recv(1 << 16))
        return victims.core("first").encode() in b"".join(pieces[-2:])

    wait_for(has_reached_first_core, "the first core", 4 * PATIENCE)
    wait_for(is_dumping_first, "dumping the first process")
    for _ in range(3):
        assert dumping.answer(b"/x", core_request(other)) == CORE_HEAD + str(other).encode()
    assert dumping.answer(b"/x/debug.tar") == BUSY_PAGE
    gate.touch()
    stored = cores_in(assert_whole(b"".join(pieces) + archive.read_all()))
    assert stored[victims.core("first")] == b"1234567890" * 2
    assert stored[victims.core("other")] == str(other).encode()
