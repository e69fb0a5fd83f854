"""cmd=strace, and strace.log in the archive."""

import concurrent.futures
import random
import re
import socket
import threading
import time

import pytest

from support.answers import BAD_REQUEST, COMPRESSED_HEAD, PLAIN_HEAD, body_of, download_head
from support.archives import TRACE_SIZE, assert_compressed_whole, assert_whole
from support.connections import SMALL_BUFFER, Browser, send_message
from support.processes import children_of, process_stat, processes, tracer_of
from support.tracers import BUSY_PROGRAM
from support.under_test import SANITIZE
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

SEED = 7
HEAD = download_head("text/plain", "stracedump.txt")
PROMPT = 1 if not SANITIZE else 10  # seconds within which a trace has to end


def assert_detached_soon(pid):
    wait_for(lambda: tracer_of(pid) == 0, f"{pid} detached", PROMPT)
    wait_for(lambda: process_stat(pid)[0] in "SR", lambda: process_stat(pid)[0])


def query(*pids):
    return b"cmd=strace&pid=" + b",".join(str(pid).encode() for pid in pids)


pytestmark = pytest.mark.usefixtures("idle")


def test_trace_streams_until_the_browser_leaves(daemon, service):
    child = service(*BUSY_PROGRAM)
    with daemon.ask(b"/x", query(child.pid), tcp=True) as browser:
        assert browser.read(len(HEAD)) == HEAD
        text = browser.read(100000).decode()
    assert re.search(rf"^\[{child.pid} sh\] \[[0-9a-f]+ [0-9a-f]+\] read\(0 /dev/null, 0x", text, re.MULTILINE)
    assert_detached_soon(child.pid)


def test_trace_ends_with_its_processes(daemon, service):
    child = service("sh", "-c", "read x; exit 3")
    browser = daemon.ask(b"/x", query(child.pid))
    wait_for(lambda: tracer_of(child.pid), "traced")
    child.communicate(b"\n", timeout=PATIENCE)
    assert child.returncode == 3
    assert "exit_group(3)\n" in body_of(browser.read_all(), HEAD).decode()


def test_sleeping_process_is_detached_when_the_browser_leaves(daemon, service):
    child = service("sleep", "1000")
    browser = daemon.ask(b"/x", query(child.pid))
    wait_for(lambda: tracer_of(child.pid), "traced")
    browser.close()
    assert_detached_soon(child.pid)


def test_browsers_may_leave_at_any_moment(daemon, service):
    rng = random.Random(SEED)
    child = service("sleep", "1000")
    for number in range(1000):
        browser = daemon.ask(b"/x", query(child.pid), tcp=number % 2 == 1)
        time.sleep(rng.random() * 0.004)
        browser.close()
        daemon.sync()  # otherwise the next request might be served at once
        assert_detached_soon(child.pid)


def test_browsers_may_leave_before_the_trace_begins(daemon, service):
    child = service("sleep", "1000")
    for _ in range(50):
        with Browser() as browser:
            browser.near.close()
            send_message(daemon.cgi_socket, b"/x\0" + query(child.pid), [browser.far.fileno()]).close()
    daemon.sync()
    assert_detached_soon(child.pid)


def test_browser_that_stops_reading_does_not_hold_a_process_forever(daemon, service):
    child = service(*BUSY_PROGRAM)
    with daemon.ask(b"/x", query(child.pid), buffer_size=SMALL_BUFFER):
        wait_for(lambda: tracer_of(child.pid), "traced")
        wait_for(lambda: tracer_of(child.pid) == 0, "detached", PATIENCE)
        assert_detached_soon(child.pid)


def test_second_trace_waits_for_the_first(daemon, service):
    one, other = service("sleep", "1000"), service("sleep", "1000")
    first = daemon.ask(b"/x", query(one.pid))
    wait_for(lambda: tracer_of(one.pid), "traced")
    second = daemon.ask(b"/x", query(other.pid))
    assert second.read(len(HEAD)) == HEAD
    assert tracer_of(other.pid) == 0
    first.close()
    wait_for(lambda: tracer_of(other.pid), "traced")
    assert_detached_soon(one.pid)
    second.close()
    assert_detached_soon(other.pid)


@pytest.mark.parametrize("pids", ["-1", "no-such", "2147483647", ""])
def test_unknown_processes_get_400(daemon, pids):
    assert daemon.answer(b"/x", b"cmd=strace&pid=" + pids.encode()) == BAD_REQUEST


def test_daemon_is_not_traced_and_process_1_may_be(daemon):
    assert daemon.answer(b"/x", query(daemon.pid)) == HEAD
    for pid in (0, "0x10"):
        assert daemon.answer(b"/x", query(pid)) == HEAD
    with daemon.ask(b"/x", query(1)) as browser:
        assert browser.read(len(HEAD)) == HEAD


def test_200_processes_can_be_traced_at_once(daemon, service):
    children = [service("sleep", "1000") for _ in range(200)]
    browser = daemon.ask(b"/x", query(*(child.pid for child in children)))
    wait_for(lambda: all(tracer_of(child.pid) for child in children), "traced")
    browser.close()
    for child in children:
        assert_detached_soon(child.pid)


def test_parent_gets_the_status_of_its_traced_child(daemon, service):
    child = service("sh", "-c", "for i in 1 2 3 4 5 6 7 8 9; do sh -c 'exit 4' || r=$?; done; read x; exit $r")
    with daemon.ask(b"/x", query(child.pid)) as browser:
        browser.read(len(HEAD) + 1)
        child.communicate(b"\n", timeout=PATIENCE)
    assert child.returncode == 4


# The archive.


def trace_member(members):
    return next(member for member in members if member.name == "strace.log").data


def read_archive(daemon):
    """Reads on a second thread. The archive's trace stops the first thread of the test, as of every process."""
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        return pool.submit(daemon.answer, b"/x/debug.tar").result(4 * PATIENCE)


def test_archive_has_a_trace_of_the_running_processes(daemon, service):
    child = service(*BUSY_PROGRAM)
    text = trace_member(assert_whole(body_of(read_archive(daemon), PLAIN_HEAD))).decode()
    assert len(text) == TRACE_SIZE
    assert re.search(rf"^\[{child.pid} sh\] \[[0-9a-f]+ 0\] (close|openat)\(", text, re.MULTILINE)
    assert_detached_soon(child.pid)


def test_archive_is_made_while_a_trace_is_running(daemon, service):
    one, other = service("sleep", "1000"), service("sleep", "1000")
    with daemon.ask(b"/x", query(one.pid)) as browser:
        wait_for(lambda: tracer_of(one.pid), "traced")
        assert_whole(body_of(read_archive(daemon), PLAIN_HEAD))
        assert tracer_of(one.pid) != 0
        assert browser.read(len(HEAD)) == HEAD
    assert_detached_soon(one.pid)
    assert_detached_soon(other.pid)


class Drain:
    """Reads a browser on a thread of its own, which is not traced, and counts the bytes."""

    def __init__(self, browser):
        self.browser = browser
        self.count = 0
        self.ended = False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while piece := self.browser.near.recv(1 << 16):
            self.count += len(piece)
        self.ended = True

    def leave(self):
        """Closes the browser."""
        self.browser.near.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.browser.close()


@pytest.mark.parametrize(
    "name, head, check",
    [("debug.tgz", COMPRESSED_HEAD, assert_compressed_whole), ("debug.tar", PLAIN_HEAD, assert_whole)],
    ids=["compressed", "plain"],
)
def test_archive_is_made_while_everything_is_traced(daemon, service, name, head, check):
    """The trace stops every process at each system call, except the programs that the archive starts."""
    sleeping, busy = service("sleep", "1000"), service(*BUSY_PROGRAM)
    everyone = [pid for pid in processes() if pid != daemon.pid and process_stat(pid)[0] not in "ZX"]
    trace = Drain(daemon.ask(b"/x", b"cmd=strace"))
    try:
        for child in (sleeping, busy):
            wait_for(lambda pid=child.pid: tracer_of(pid), "traced")
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            answer = pool.submit(daemon.answer, f"/x/{name}".encode()).result(4 * PATIENCE)
        # The trace continues as if nothing had happened.
        assert tracer_of(sleeping.pid) and tracer_of(busy.pid) and not trace.ended
        before = trace.count
        wait_for(lambda: trace.count > before, "more of the trace")
    finally:
        trace.leave()
    check(body_of(answer, head))
    for pid in everyone:
        if process_stat(pid):
            assert_detached_soon(pid)


def test_browser_that_is_traced_itself_gets_a_plain_archive(daemon):
    """The buffers are small: the archive continues only when this thread, which it traces, reads."""
    with daemon.ask(b"/x/debug.tar", buffer_size=SMALL_BUFFER) as browser:
        assert_whole(body_of(browser.read_all(), PLAIN_HEAD))


def test_archive_leaves_no_child_of_the_daemon(daemon):
    read_archive(daemon)
    wait_for(lambda: children_of(daemon.pid) == [], lambda: children_of(daemon.pid))
