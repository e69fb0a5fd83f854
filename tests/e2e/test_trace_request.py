"""cmd=strace in the browser, and strace.log in the archive."""

import concurrent.futures
import random
import re
import socket
import subprocess
import threading
import time

import pytest

from zarvo_e2e import (
    BAD_REQUEST, COMPRESSED_HEAD, PATIENCE, PLAIN_HEAD, SANITIZE, TRACE_SIZE, Browser, assert_compressed_whole,
    assert_whole, body_of, children_of, download_head, process_stat, processes, send_message, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True

SEED = 7
HEAD = download_head("text/plain", "stracedump.txt")
PROMPT = 1 if not SANITIZE else 10   # seconds within which a trace has to end
CALLING = ["sh", "-c", "while :; do read x < /dev/null; done"]


def tracer_of(pid):
    with open(f"/proc/{pid}/status") as file:
        return int(re.search(r"^TracerPid:\s*(\d+)$", file.read(), re.MULTILINE)[1])


def assert_free(pid):
    wait_for(lambda: tracer_of(pid) == 0, f"{pid} let go", PROMPT)
    wait_for(lambda: process_stat(pid)[0] in "SR", lambda: process_stat(pid)[0])


def query(*pids):
    return b"cmd=strace&pid=" + b",".join(str(pid).encode() for pid in pids)


@pytest.fixture
def service(daemon):
    """Starts programs that run until the end of the test."""
    started = []

    def start(*words):
        started.append(subprocess.Popen(words, stdin=subprocess.PIPE))
        return started[-1]

    yield start
    for process in started:
        process.kill()
        process.communicate()


@pytest.fixture
def rest(daemon):
    """What the daemon must come back to."""
    before = daemon.rest()
    yield before
    daemon.wait_for_rest(before)


pytestmark = pytest.mark.usefixtures("rest")


def test_trace_streams_until_the_browser_leaves(daemon, service):
    child = service(*CALLING)
    with daemon.ask(b"/x", query(child.pid), tcp=True) as browser:
        assert browser.read(len(HEAD)) == HEAD
        text = browser.read(100000).decode()
    assert re.search(rf"^\[{child.pid} sh\] \[[0-9a-f]+ [0-9a-f]+\] read\(0 /dev/null, 0x", text, re.MULTILINE)
    assert_free(child.pid)


def test_trace_ends_by_itself_when_its_processes_have_ended(daemon, service):
    child = service("sh", "-c", "read x; exit 3")
    browser = daemon.ask(b"/x", query(child.pid))
    wait_for(lambda: tracer_of(child.pid), "traced")
    child.communicate(b"\n", timeout=PATIENCE)
    assert child.returncode == 3
    assert "exit_group(3)\n" in body_of(browser.read_all(), HEAD).decode()


def test_sleeping_process_is_let_go_when_the_browser_leaves(daemon, service):
    child = service("sleep", "1000")
    browser = daemon.ask(b"/x", query(child.pid))
    wait_for(lambda: tracer_of(child.pid), "traced")
    browser.close()
    assert_free(child.pid)


def test_browsers_that_leave_at_any_moment_harm_nobody(daemon, service):
    rng = random.Random(SEED)
    child = service("sleep", "1000")
    for number in range(1000):
        browser = daemon.ask(b"/x", query(child.pid), tcp=number % 2 == 1)
        time.sleep(rng.random() * 0.004)
        browser.close()
        daemon.sync()  # the next request would be served at its own time otherwise
        assert_free(child.pid)


def test_browser_that_left_before_the_trace_began_harms_nobody(daemon, service):
    child = service("sleep", "1000")
    for _ in range(50):
        with Browser() as browser:
            browser.near.close()
            send_message(daemon.cgi_socket, b"/x\0" + query(child.pid), [browser.far.fileno()]).close()
    daemon.sync()
    assert_free(child.pid)


def test_browser_that_stops_reading_does_not_hold_a_process_for_ever(daemon, service):
    child = service(*CALLING)
    with daemon.ask(b"/x", query(child.pid), room=4096):
        wait_for(lambda: tracer_of(child.pid), "traced")
        wait_for(lambda: tracer_of(child.pid) == 0, "let go", PATIENCE)
        assert_free(child.pid)


def test_second_trace_waits_for_the_first(daemon, service):
    one, other = service("sleep", "1000"), service("sleep", "1000")
    first = daemon.ask(b"/x", query(one.pid))
    wait_for(lambda: tracer_of(one.pid), "traced")
    second = daemon.ask(b"/x", query(other.pid))
    assert second.read(len(HEAD)) == HEAD
    assert tracer_of(other.pid) == 0
    first.close()
    wait_for(lambda: tracer_of(other.pid), "traced")
    assert_free(one.pid)
    second.close()
    assert_free(other.pid)


@pytest.mark.parametrize("pids", ["-1", "no-such", "2147483647", ""])
def test_pids_that_are_no_process_are_a_bad_request(daemon, pids):
    assert daemon.answer(b"/x", b"cmd=strace&pid=" + pids.encode()) == BAD_REQUEST


def test_daemon_and_first_process_are_no_trouble(daemon):
    assert daemon.answer(b"/x", query(daemon.pid)) == HEAD
    for pid in (0, "0x10"):
        assert daemon.answer(b"/x", query(pid)) == HEAD
    with daemon.ask(b"/x", query(1)) as browser:
        assert browser.read(len(HEAD)) == HEAD


def test_two_hundred_processes_at_once(daemon, service):
    children = [service("sleep", "1000") for _ in range(200)]
    browser = daemon.ask(b"/x", query(*(child.pid for child in children)))
    wait_for(lambda: all(tracer_of(child.pid) for child in children), "traced")
    browser.close()
    for child in children:
        assert_free(child.pid)


def test_child_that_is_traced_is_not_kept_from_its_parent(daemon, service):
    child = service("sh", "-c", "for i in 1 2 3 4 5 6 7 8 9; do sh -c 'exit 4' || r=$?; done; read x; exit $r")
    with daemon.ask(b"/x", query(child.pid)) as browser:
        browser.read(len(HEAD) + 1)
        child.communicate(b"\n", timeout=PATIENCE)
    assert child.returncode == 4


# The archive.


def trace_member(members):
    return next(member for member in members if member.name == "strace.log").data


def read_archive(daemon):
    """Read by another thread than the test's first, which the archive traces like every process."""
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        return pool.submit(daemon.answer, b"/x/debug.tar").result(4 * PATIENCE)


def test_archive_has_a_trace_of_what_is_running(daemon, service):
    child = service(*CALLING)
    text = trace_member(assert_whole(body_of(read_archive(daemon), PLAIN_HEAD))).decode()
    assert len(text) == TRACE_SIZE
    assert re.search(rf"^\[{child.pid} sh\] \[[0-9a-f]+ 0\] (close|openat)\(", text, re.MULTILINE)
    assert_free(child.pid)


def test_archive_is_made_while_a_trace_is_running(daemon, service):
    one, other = service("sleep", "1000"), service("sleep", "1000")
    with daemon.ask(b"/x", query(one.pid)) as browser:
        wait_for(lambda: tracer_of(one.pid), "traced")
        assert_whole(body_of(read_archive(daemon), PLAIN_HEAD))
        assert tracer_of(one.pid) != 0
        assert browser.read(len(HEAD)) == HEAD
    assert_free(one.pid)
    assert_free(other.pid)


class Drain:
    """Reads a browser on a thread of its own, which no trace holds, and counts the bytes."""

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
        """The browser goes away."""
        self.browser.near.shutdown(socket.SHUT_RDWR)
        self.thread.join()
        self.browser.close()


@pytest.mark.parametrize(
    "name, head, check",
    [("debug.tgz", COMPRESSED_HEAD, assert_compressed_whole), ("debug.tar", PLAIN_HEAD, assert_whole)],
    ids=["compressed", "plain"],
)
def test_archive_is_made_while_everything_is_traced(daemon, service, name, head, check):
    """The trace holds every process at each of its system calls, the archive's own programs not among them."""
    sleeping, busy = service("sleep", "1000"), service(*CALLING)
    everyone = [pid for pid in processes() if pid != daemon.pid and process_stat(pid)[0] not in "ZX"]
    trace = Drain(daemon.ask(b"/x", b"cmd=strace"))
    try:
        for child in (sleeping, busy):
            wait_for(lambda pid=child.pid: tracer_of(pid), "traced")
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            answer = pool.submit(daemon.answer, f"/x/{name}".encode()).result(4 * PATIENCE)
        # It goes on as if nothing had been.
        assert tracer_of(sleeping.pid) and tracer_of(busy.pid) and not trace.ended
        before = trace.count
        wait_for(lambda: trace.count > before, "more of the trace")
    finally:
        trace.leave()
    check(body_of(answer, head))
    for pid in everyone:
        if process_stat(pid):
            assert_free(pid)


def test_browser_of_a_plain_archive_that_is_traced_itself_gets_it(daemon):
    """With small buffers, the test's own thread, which the trace holds, has to read for the archive to go on."""
    with daemon.ask(b"/x/debug.tar", room=4096) as browser:
        assert_whole(body_of(browser.read_all(), PLAIN_HEAD))


def test_no_child_of_the_daemon_is_left(daemon):
    read_archive(daemon)
    wait_for(lambda: children_of(daemon.pid) == [], lambda: children_of(daemon.pid))
