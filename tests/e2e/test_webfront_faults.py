"""The web front when memory runs out and when poll fails: one request suffers, the front continues."""

import errno
import os
import subprocess
import time

import pytest

from support.fake_daemon import FakeDaemon
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for
from support.web import Front

NEEDS_SANDBOX = True  # it lists processes

WEBFRONT = BIN / "webfront"

pytest_plugins = ["fault_fixtures"]
pytestmark = pytest.mark.skipif(not WEBFRONT.exists(), reason=f"{WEBFRONT} is not built")


@pytest.fixture
def front(faults, tmp_path):
    daemon = FakeDaemon(tmp_path / "socket", lambda message, fd: os.write(fd, b"HTTP/1.0 200 OK\r\n\r\nfrom the daemon"))
    running = Front(socket_path=tmp_path / "socket")
    assert running.get("/").startswith(b"HTTP/1.0 200 OK\r\n")  # it has made its allocations at start
    yield running
    faults["countdown"] = faults["poll_error"] = 0
    running.stop()
    daemon.stop()


def exchange(front, target):
    """The answer, or nothing if the connection was reset."""
    try:
        return front.get(target)
    except ConnectionResetError:
        return b""


@pytest.mark.parametrize("lasting", [0, 1], ids=["one allocation", "one allocation and all later ones"])
@pytest.mark.parametrize("target", ["/", "/webfront/processes", "/webfront/interfaces", "/debugar.cgi?cmd=ps"])
def test_request_without_memory_fails_alone(front, faults, target, lasting):
    whole = front.get(target)
    assert whole.startswith(b"HTTP/1.0 200 OK\r\n")
    failed, number, has_run_out = 0, 0, False
    while not has_run_out:
        number += 1
        faults["lasting"] = lasting
        faults["countdown"] = number
        answer = exchange(front, target)
        has_run_out = faults["countdown"] > 1 or (not lasting and faults["countdown"] == 1)
        faults["countdown"] = 0
        assert front.process.poll() is None, f"it exited at allocation {number}"
        failed += not answer.startswith(b"HTTP/1.0 200 OK\r\n")
        if answer:
            assert answer.startswith((b"HTTP/1.0 200 OK\r\n", b"HTTP/1.0 502 ", b"HTTP/1.0 503 ")), answer
        assert front.get(target).startswith(b"HTTP/1.0 200 OK\r\n"), f"after allocation {number}"
    assert number > 3 and failed > 0
    wait_for(lambda: front.sockets() == 1, "all connections closed", PATIENCE)


def test_connection_without_memory_gets_an_error(front, faults):
    faults["lasting"] = faults["countdown"] = 1
    assert b"There is not enough memory for this request; try again later.\n" in exchange(front, "/")


def test_start_without_memory_is_reported(faults, tmp_path):
    said = set()
    for number in range(1, 60):
        faults["lasting"] = 0
        faults["countdown"] = number
        words = [WEBFRONT, "--port", "none", "--socket", "/" + "x" * 100]
        done = subprocess.run(words, capture_output=True, timeout=PATIENCE)
        assert done.returncode in (1, 2), f"allocation {number}: {done}"
        said.add(done.stderr.splitlines()[0])
    assert b"webfront: Out of resources: std::bad_alloc." in said


def test_front_serves_while_poll_fails_and_does_not_spin(front, faults):
    faults["poll_error"] = errno.ENOMEM
    before, began = faults["polls"], time.monotonic()
    for _ in range(3):
        assert front.get("/").startswith(b"HTTP/1.0 200 OK\r\n")
        assert front.get("/debugar.cgi?cmd=ps").endswith(b"from the daemon")
    time.sleep(0.5)  # an idle front must not spin: its polls in this time are counted
    polls = faults["polls"] - before
    assert polls <= 2 + (time.monotonic() - began) / 0.1
    faults["poll_error"] = 0
    assert front.get("/").startswith(b"HTTP/1.0 200 OK\r\n")
