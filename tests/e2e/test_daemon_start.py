"""Starting the daemon: in the foreground, detached, twice, and where it can't."""

import os
import pathlib
import re
import signal
import socket
import stat
import subprocess

import pytest

from zarvo_e2e import (
    BAD_REQUEST, BIN, CGI_SOCKET, CORE_HEAD, DAEMON, PATIENCE, PLAIN_HEAD, PS_HEAD, SEGFAULT_SOCKET, Control,
    Log, assert_whole, body_of, descriptors_of, listener_of, log_error, log_info, process_stat,
    program_of, running_copies, send_message, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True


@pytest.fixture
def detached(here):
    """A daemon that was started as the device does, without options."""
    done = subprocess.run([DAEMON], capture_output=True, timeout=PATIENCE, cwd="/usr")
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    (pid,) = wait_for(running_copies, "a detached daemon")
    yield pid
    os.kill(pid, signal.SIGTERM)
    wait_for(lambda: process_stat(pid) is None, "the detached daemon's end")


def is_up(pid):
    return listener_of(CGI_SOCKET) == pid


def test_detached_daemon_answers(detached):
    wait_for(lambda: is_up(detached), "the sockets")
    control = Control()
    assert control.answer(b"/x", b"cmd=none") == BAD_REQUEST
    assert body_of(control.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(control.answer(b"/x/debug.tar"), PLAIN_HEAD))


def test_detached_daemon_has_a_session_of_its_own_and_let_go_of_the_starter(detached):
    wait_for(lambda: is_up(detached), "the sockets")
    _, parent, _, session, terminal = process_stat(detached)[:5]
    assert (int(parent), int(session), int(terminal)) == (1, detached, 0)
    assert os.readlink(f"/proc/{detached}/cwd") == "/"
    open_files = descriptors_of(detached)
    assert [open_files[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3


def test_daemon_keeps_only_its_sockets_and_the_null_device(daemon):
    def links():
        return sorted(re.sub(r"\d+", "N", link) for link in daemon.state()["descriptors"].values())

    expected = ["/dev/null", "/dev/null", str(daemon.stdout), str(daemon.stderr), "socket:[N]", "socket:[N]"]
    expected = sorted(re.sub(r"\d+", "N", link) for link in expected)
    wait_for(lambda: links() == expected, links)  # the monitor's first round opens /proc


def test_foreground_daemon_stays_where_it_was_started(daemon):
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == os.getcwd()
    assert process_stat(daemon.pid)[1] == str(os.getpid())


def test_everyone_may_use_the_request_socket(daemon):
    mode = os.stat(CGI_SOCKET).st_mode
    assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o666
    assert stat.S_ISSOCK(os.stat(SEGFAULT_SOCKET).st_mode)


def test_sockets_can_be_elsewhere(start):
    daemon = start(sockets=False)
    assert daemon.cgi_socket != CGI_SOCKET
    with daemon.wait_as() as browser:
        assert daemon.push(b"core bytes") == b""
        assert browser.read_all() == CORE_HEAD + b"core bytes"


def test_second_start_takes_over(start, tmp_path):
    first = start("-k", tmp_path / "one")
    second = start("-k", tmp_path / "two")
    assert listener_of(CGI_SOCKET) == second.pid
    log = Log()
    assert second.answer(b"/x", b"pop") == b""
    assert log.wait(1) == [log_info(second.pid, "No dump dir")]
    with second.wait_as() as browser:
        assert second.push(b"for the second") == b""
        assert browser.read_all() == CORE_HEAD + b"for the second"
    assert first.process.poll() is None


def test_stale_sockets_of_a_dead_daemon_are_replaced(start):
    for path in (CGI_SOCKET, SEGFAULT_SOCKET):
        pathlib.Path(path).unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(path)
    assert start().answer(b"/x", b"cmd=none") == BAD_REQUEST


def test_ordinary_files_in_the_way_are_replaced(start):
    for path in (CGI_SOCKET, SEGFAULT_SOCKET):
        pathlib.Path(path).unlink(missing_ok=True)
        pathlib.Path(path).write_text("in the way")
    assert start().answer(b"/x", b"cmd=none") == BAD_REQUEST


@pytest.mark.parametrize("option", ["-c", "-s"])
def test_socket_that_cannot_be_made_is_logged_and_ends_the_start(here, tmp_path, option):
    path = "/nonexistent/socket"
    other = ["-s" if option == "-c" else "-c", str(tmp_path / "other")]
    log = Log()
    with subprocess.Popen([DAEMON, "-n", option, path, *other]) as process:
        assert process.wait(PATIENCE) == 1
    assert log.wait(1) == [log_error(process.pid, f"Could not open {path}: No such file or directory")]


def test_closed_standard_streams_are_not_taken_for_connections(start):
    def close_them():
        for fd in (0, 1, 2):
            os.close(fd)

    daemon = start(preexec_fn=close_them)
    open_files = descriptors_of(daemon.pid)
    assert [open_files[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def test_switching_the_watchdogs_on_is_repeated_until_it_works(start):
    daemon = start(environment={"HOLLISK_FAIL_COUNT": "3"})
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    states = re.findall(r"Set service watchdogs state: (\w+)\n", daemon.switches())
    failures = re.findall(r"Error setting service watchdogs state '(\w+)': .+\n", daemon.said())
    assert (states, failures) == (["no", "yes", "yes", "yes"], ["no", "yes", "yes"])


def test_starter_that_ignores_its_children_costs_neither_trace_nor_core(start):
    ignore = lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # noqa: E731
    daemon = start("-p", BIN / "dcore", preexec_fn=ignore)
    with subprocess.Popen(["sleep", "1000"]) as sleeper:
        members = assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
        core = body_of(daemon.answer(b"/x", b"cmd=coredump&pid=%d" % sleeper.pid), CORE_HEAD)
        sleeper.kill()
    assert f"sleep.{sleeper.pid}/core" in [member.name for member in members]
    assert core.startswith(b"\x7fELF")
    assert "dump error" not in daemon.said()


def test_program_that_runs_is_the_built_one(daemon):
    assert program_of(daemon.pid) == os.path.realpath(DAEMON)


def test_browser_is_answered_whatever_its_kind_of_connection(daemon):
    for tcp in (False, True):
        assert daemon.ask(b"/x", b"cmd=none", tcp=tcp).read_all() == BAD_REQUEST
    reader, writer = os.pipe()
    send_message(daemon.cgi_socket, b"/x\0cmd=none", [writer]).close()
    os.close(writer)
    with open(reader, "rb") as pipe:
        assert pipe.read() == BAD_REQUEST
