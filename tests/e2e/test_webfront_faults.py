"""The web front when memory runs out and when poll fails: one request suffers, the front goes on."""

import mmap
import os
import struct
import subprocess
import time

import pytest

from test_webfront import PATIENCE, WEBFRONT, FakeDaemon, Front
from zarvo_e2e import SANITIZE, wait_for

NEEDS_SANDBOX = True  # it lists processes

pytestmark = pytest.mark.skipif(not WEBFRONT.exists(), reason=f"{WEBFRONT} is not built")

# Makes calls fail as four numbers say that lie in a file which the test changes meanwhile.
FAULTS = r"""
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

struct faults {
    std::atomic<long> countdown;  // the allocation that fails is this many away; 0: none does
    std::atomic<long> lasting;    // not 0: all after it fail as well
    std::atomic<long> poll_error;
    std::atomic<long> polls;      // since it began
};

static faults *shared;

__attribute__((constructor)) static void begin() {
    int fd = open(getenv("FAULTS"), O_RDWR | O_CLOEXEC);
    void *memory = mmap(nullptr, sizeof(faults), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    shared = memory == MAP_FAILED ? nullptr : static_cast<faults *>(memory);
    close(fd);
}

extern "C" void *__libc_malloc(size_t size);

extern "C" void *malloc(size_t size) {
    if (shared) {
        long left = shared->countdown;
        while (left > 0 && !shared->countdown.compare_exchange_weak(left, left - 1)) {
        }
        if (left == 1) {
            if (shared->lasting) {
                shared->countdown = 1;
            }
            errno = ENOMEM;
            return nullptr;
        }
    }
    return __libc_malloc(size);
}

extern "C" int poll(pollfd *fds, nfds_t count, int timeout_ms) {
    if (shared) {
        shared->polls++;
        if (shared->poll_error) {
            errno = static_cast<int>(shared->poll_error);
            return -1;
        }
    }
    return static_cast<int>(syscall(SYS_poll, fds, count, timeout_ms));
}
"""
NUMBERS = ("countdown", "lasting", "poll_error", "polls")
ENOMEM = 12


class Faults:
    def __init__(self, path):
        path.write_bytes(bytes(8 * len(NUMBERS)))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 0)

    def __getitem__(self, name):
        return struct.unpack_from("=q", self.memory, 8 * NUMBERS.index(name))[0]

    def __setitem__(self, name, value):
        struct.pack_into("=q", self.memory, 8 * NUMBERS.index(name), value)


@pytest.fixture(scope="module")
def library(tmp_path_factory):
    if SANITIZE:
        pytest.skip("the sanitizer's library wants to be the first that is loaded")
    path = tmp_path_factory.mktemp("faults") / "faults.so"
    words = ["g++", "-x", "c++", "-O1", "-", "-shared", "-fPIC", "-o", path]
    subprocess.run(words, input=FAULTS, text=True, check=True)
    return path


@pytest.fixture
def faults(library, tmp_path, monkeypatch):
    monkeypatch.setenv("LD_PRELOAD", str(library))
    monkeypatch.setenv("FAULTS", str(tmp_path / "numbers"))
    return Faults(tmp_path / "numbers")


@pytest.fixture
def front(faults, tmp_path):
    daemon = FakeDaemon(tmp_path / "socket", lambda message, fd: os.write(fd, b"HTTP/1.0 200 OK\r\n\r\nfrom the daemon"))
    running = Front(tmp_path / "socket")
    assert running.get("/").startswith(b"HTTP/1.0 200 OK\r\n")  # it has all that it takes at its start
    yield running
    faults["countdown"] = faults["poll_error"] = 0
    running.stop()
    daemon.stop()


def exchange(front, target):
    """The answer; nothing when the connection was reset."""
    try:
        return front.get(target)
    except ConnectionResetError:
        return b""


@pytest.mark.parametrize("lasting", [0, 1], ids=["one allocation", "all from one on"])
@pytest.mark.parametrize("target", ["/", "/webfront/processes", "/webfront/interfaces", "/debugar.cgi?cmd=ps"])
def test_request_without_memory_fails_alone(front, faults, target, lasting):
    whole = front.get(target)
    assert whole.startswith(b"HTTP/1.0 200 OK\r\n")
    failed, number, is_over = 0, 0, False
    while not is_over:
        number += 1
        faults["lasting"] = lasting
        faults["countdown"] = number
        answer = exchange(front, target)
        is_over = faults["countdown"] > 1 or (not lasting and faults["countdown"] == 1)
        faults["countdown"] = 0
        assert front.process.poll() is None, f"it ended at allocation {number}"
        failed += not answer.startswith(b"HTTP/1.0 200 OK\r\n")
        if answer:
            assert answer.startswith((b"HTTP/1.0 200 OK\r\n", b"HTTP/1.0 502 ", b"HTTP/1.0 503 ")), answer
        assert front.get(target).startswith(b"HTTP/1.0 200 OK\r\n"), f"after allocation {number}"
    assert number > 3 and failed > 0
    wait_for(lambda: front.sockets() == 1, "all connections closed", PATIENCE)


def test_connection_without_memory_is_told_so(front, faults):
    faults["lasting"] = faults["countdown"] = 1
    assert b"There is not enough memory for this request; try again later.\n" in exchange(front, "/")


def test_start_without_memory_is_said(faults, tmp_path):
    said = set()
    for number in range(1, 60):
        faults["lasting"] = 0
        faults["countdown"] = number
        words = [WEBFRONT, "--port", "none", "--socket", "/" + "x" * 100]
        done = subprocess.run(words, capture_output=True, timeout=PATIENCE)
        assert done.returncode in (1, 2), f"allocation {number}: {done}"
        said.add(done.stderr.splitlines()[0])
    assert b"webfront: Out of resources: std::bad_alloc." in said


def test_front_without_poll_pauses_and_serves(front, faults):
    faults["poll_error"] = ENOMEM
    before, began = faults["polls"], time.monotonic()
    for _ in range(3):
        assert front.get("/").startswith(b"HTTP/1.0 200 OK\r\n")
        assert front.get("/debugar.cgi?cmd=ps").endswith(b"from the daemon")
    time.sleep(0.5)  # it has nothing to do, and does little
    polls = faults["polls"] - before
    assert polls <= 2 + (time.monotonic() - began) / 0.1
    faults["poll_error"] = 0
    assert front.get("/").startswith(b"HTTP/1.0 200 OK\r\n")
