"""Starting the daemon: in the foreground, detached, twice, and where it cannot start."""

import os
import pathlib
import re
import signal
import socket
import stat
import subprocess

import pytest

from support.answers import BAD_REQUEST, CORE_HEAD, PLAIN_HEAD, PS_HEAD, body_of
from support.archives import assert_whole
from support.connections import listener_of, send_message
from support.daemon import CGI_SOCKET, SEGFAULT_SOCKET, Control
from support.processes import descriptors_of, process_stat, program_of, running_copies
from support.system_log import Log, log_error, log_info
from support.under_test import BIN, DAEMON
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True


@pytest.fixture
def detached(clean_sandbox):
    """A daemon that was started without options, as on the device."""
    done = subprocess.run([DAEMON], capture_output=True, timeout=PATIENCE, cwd="/usr")
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b"")
    (pid,) = wait_for(running_copies, "a detached daemon")
    yield pid
    os.kill(pid, signal.SIGTERM)
    wait_for(lambda: process_stat(pid) is None, "the detached daemon's end")


def is_listening(pid):
    return listener_of(CGI_SOCKET) == pid


def test_detached_daemon_answers_requests(detached):
    wait_for(lambda: is_listening(detached), "the sockets")
    control = Control()
    assert control.answer(b"/x", b"cmd=none") == BAD_REQUEST
    assert body_of(control.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(control.answer(b"/x/debug.tar"), PLAIN_HEAD))


def test_detached_daemon_has_its_own_session_and_no_terminal(detached):
    wait_for(lambda: is_listening(detached), "the sockets")
    _, parent, _, session, terminal = process_stat(detached)[:5]
    assert (int(parent), int(session), int(terminal)) == (1, detached, 0)
    assert os.readlink(f"/proc/{detached}/cwd") == "/"
    open_files = descriptors_of(detached)
    assert [open_files[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3


def test_daemon_keeps_only_its_sockets_and_standard_streams_open(daemon):
    def links():
        return sorted(re.sub(r"\d+", "N", link) for link in daemon.state()["descriptors"].values())

    expected = ["/dev/null", "/dev/null", str(daemon.stdout), str(daemon.stderr), "socket:[N]", "socket:[N]"]
    expected = sorted(re.sub(r"\d+", "N", link) for link in expected)
    wait_for(lambda: links() == expected, links)  # the monitor's first round opens /proc for a moment


def test_foreground_daemon_keeps_its_parent_and_working_directory(daemon):
    assert os.readlink(f"/proc/{daemon.pid}/cwd") == os.getcwd()
    assert process_stat(daemon.pid)[1] == str(os.getpid())


def test_everyone_may_use_the_request_socket(daemon):
    mode = os.stat(CGI_SOCKET).st_mode
    assert stat.S_ISSOCK(mode) and stat.S_IMODE(mode) == 0o666
    assert stat.S_ISSOCK(os.stat(SEGFAULT_SOCKET).st_mode)


def test_sockets_can_have_other_paths(start):
    daemon = start(own_sockets=True)
    assert daemon.cgi_socket != CGI_SOCKET
    with daemon.waiting_browser() as browser:
        assert daemon.push(b"core bytes") == b""
        assert browser.read_all() == CORE_HEAD + b"core bytes"


def test_second_daemon_takes_over_the_sockets(start, tmp_path):
    first = start("-k", tmp_path / "one")
    second = start("-k", tmp_path / "two")
    assert listener_of(CGI_SOCKET) == second.pid
    log = Log()
    assert second.answer(b"/x", b"pop") == b""
    assert log.wait(1) == [log_info(second.pid, "No dump dir")]
    with second.waiting_browser() as browser:
        assert second.push(b"for the second") == b""
        assert browser.read_all() == CORE_HEAD + b"for the second"
    assert first.process.poll() is None


def test_sockets_of_a_dead_daemon_are_replaced(start):
    for path in (CGI_SOCKET, SEGFAULT_SOCKET):
        pathlib.Path(path).unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX) as dead:
            dead.bind(path)
    assert start().answer(b"/x", b"cmd=none") == BAD_REQUEST


def test_regular_files_at_the_sockets_paths_are_replaced(start):
    for path in (CGI_SOCKET, SEGFAULT_SOCKET):
        pathlib.Path(path).unlink(missing_ok=True)
        pathlib.Path(path).write_text("in the way")
    assert start().answer(b"/x", b"cmd=none") == BAD_REQUEST


@pytest.mark.parametrize("option", ["-c", "-s"])
def test_daemon_that_cannot_make_a_socket_logs_it_and_exits(clean_sandbox, tmp_path, option):
    path = "/nonexistent/socket"
    other = ["-s" if option == "-c" else "-c", str(tmp_path / "other")]
    log = Log()
    with subprocess.Popen([DAEMON, "-n", option, path, *other]) as process:
        assert process.wait(PATIENCE) == 1
    assert log.wait(1) == [log_error(process.pid, f"Could not open {path}: No such file or directory")]


def test_closed_standard_streams_become_the_null_device(start):
    def close_them():
        for fd in (0, 1, 2):
            os.close(fd)

    daemon = start(preexec_fn=close_them)
    open_files = descriptors_of(daemon.pid)
    assert [open_files[fd] for fd in (0, 1, 2)] == ["/dev/null"] * 3
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def test_switching_the_watchdogs_on_is_repeated_until_it_succeeds(start):
    daemon = start(environment={"HOLLISK_FAIL_COUNT": "3"})
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
    states = re.findall(r"Set service watchdogs state: (\w+)\n", daemon.switches())
    failures = re.findall(r"Error setting service watchdogs state '(\w+)': .+\n", daemon.said())
    assert (states, failures) == (["no", "yes", "yes", "yes"], ["no", "yes", "yes"])


def test_ignored_sigchld_of_the_starter_affects_neither_trace_nor_core(start):
    ignore = lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # noqa: E731
    daemon = start("-p", BIN / "dcore", preexec_fn=ignore)
    with subprocess.Popen(["sleep", "1000"]) as sleeper:
        members = assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))
        core = body_of(daemon.answer(b"/x", b"cmd=coredump&pid=%d" % sleeper.pid), CORE_HEAD)
        sleeper.kill()
    assert f"sleep.{sleeper.pid}/core" in [member.name for member in members]
    assert core.startswith(b"\x7fELF")
    assert "dump error" not in daemon.said()


def test_running_program_is_the_built_one(daemon):
    assert program_of(daemon.pid) == os.path.realpath(DAEMON)


def test_browser_is_answered_over_any_kind_of_connection(daemon):
    for tcp in (False, True):
        assert daemon.ask(b"/x", b"cmd=none", tcp=tcp).read_all() == BAD_REQUEST
    reader, writer = os.pipe()
    send_message(daemon.cgi_socket, b"/x\0cmd=none", [writer]).close()
    os.close(writer)
    with open(reader, "rb") as pipe:
        assert pipe.read() == BAD_REQUEST
