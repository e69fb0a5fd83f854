"""Traces, captures and the leak monitor on the emulated board."""

import re
import socket
import threading
import time

import pytest

from support.answers import PLAIN_HEAD, body_of, download_head
from support.archives import CAPTURE_SIZE, TRACE_SIZE, assert_whole
from support.board_daemon import pids_of, served_board, wait_for_board
from support.captures import FILE_HEADER, ICMP, TCP, frames_of
from support.web import http_get, http_open

STATUS = "/var/run/dbg-cgi/dbg-monitor.txt"
BUSY = "while :; do read x < /dev/null; done"
CALL = r"^\[%d sh\] \[[0-9a-f]+ [0-9a-f]+\] openat\("
PING = "ping -c 1 -W 1 10.0.2.2 > /dev/null"
ECHO_REQUEST, HTTP_PORT = 8, b"\0\x50"


@pytest.fixture(scope="module")
def served(board_build):
    """A board with a daemon, a web front, and a process that makes system calls all the time."""
    with served_board(board_build) as served:
        served.board.check(f"sh -c '{BUSY}' > /dev/null 2>&1 & echo $! > /tmp/busy")
        served.busy = int(served.board.get("/tmp/busy"))
        yield served


def read_until(client, pattern):
    """Reads a stream until the pattern is in it. Returns the text so far."""
    text = b""
    while not re.search(pattern, text, re.MULTILINE):
        piece = client.recv(1 << 16)
        assert piece, text[-1000:]
        text += piece
    return text


def is_detached(board, pid):
    fields = board.get(f"/proc/{pid}/status").decode()
    return re.search(r"^TracerPid:\s+0$", fields, re.MULTILINE) and re.search(r"^State:\s+[RS]", fields, re.MULTILINE)


def test_trace_streams_until_the_browser_leaves(served):
    with http_open(served.url, f"/x?cmd=strace&pid={served.busy}") as client:
        text = read_until(client, (CALL % served.busy).encode())
        assert not is_detached(served.board, served.busy)
    assert text.startswith(download_head("text/plain", "stracedump.txt"))
    wait_for_board(lambda: is_detached(served.board, served.busy), "the process detached", 10)


@pytest.fixture(scope="module")
def archive(served):
    """The members of an archive that was made while a ping was running, after the monitor's first round."""
    wait_for_board(lambda: served.board.run(f"test -s {STATUS}").status == 0, "the monitor's status", 60)
    served.board.check(f"while :; do {PING}; usleep 200000; done > /dev/null 2>&1 & echo $! > /tmp/pinger")
    try:
        members = assert_whole(body_of(http_get(served.url, "/debug.tar"), PLAIN_HEAD))
    finally:
        served.board.check("kill $(cat /tmp/pinger)")
    return {member.name: member.data for member in members}


def test_archive_has_a_trace_and_detaches_every_process(served, archive):
    text = archive["strace.log"].decode()
    assert len(text) == TRACE_SIZE
    assert re.search(CALL % served.busy, text, re.MULTILINE)
    wait_for_board(lambda: is_detached(served.board, served.busy), "the process detached", 10)


def test_archive_has_the_monitors_status(served, archive):
    assert re.match(rb"Debug monitor status round=[0-9a-f]+\n\n", archive["dbg-monitor.txt"])
    assert archive["dbg-monitor.txt"] == served.board.get(STATUS)


def is_ping_to(address):
    """A function that tells if a frame is an echo request to an address."""
    return lambda frame: frame[12:14] == b"\x08\0" and frame[23] == ICMP and frame[34] == ECHO_REQUEST and (
        frame[30:34] == socket.inet_aton(address))


def is_own(frame):
    """True if a frame belongs to a connection with a browser."""
    return frame[12:14] == b"\x08\0" and frame[23] == TCP and HTTP_PORT in (frame[34:36], frame[36:38])


def test_archive_has_a_capture_without_its_own_packets(archive):
    capture = archive["netdump.cap"]
    assert len(capture) == CAPTURE_SIZE and capture.startswith(FILE_HEADER)
    frames = frames_of(capture)
    assert any(map(is_ping_to("10.0.2.2"), frames))
    assert not any(map(is_own, frames))


@pytest.mark.parametrize("interface, peer", [("eth0", "10.0.2.2"), ("any", "127.0.0.1"), ("lo", "127.0.0.1")])
def test_capture_request_has_the_traffic_but_not_its_own(served, interface, peer):
    stopped = threading.Event()

    def ping():
        while not stopped.is_set():
            served.board.run(f"ping -c 1 -W 1 {peer} > /dev/null")

    pinger = threading.Thread(target=ping)
    pinger.start()
    try:
        target = f"/x?cmd=pcapdump&duration=2&totalsize=100000&interface={interface}"
        answer = http_get(served.url, target)
    finally:
        stopped.set()
        pinger.join()
    capture = body_of(answer, download_head("application/octet-stream", "pcapdump.cap"))
    assert len(capture) == 100000
    frames = frames_of(capture)
    assert any(map(is_ping_to(peer), frames))
    assert not any(map(is_own, frames))


def test_capture_into_a_file_ends_at_a_record(served):
    """SIGTERM ends it, because background jobs of a shell ignore SIGINT."""
    script = f"""
        pcapdump eth0 /tmp/own.cap & capture=$!
        until [ -s /tmp/own.cap ]; do usleep 10000; done
        {PING}
        kill -TERM $capture; wait $capture"""
    served.board.run(script, timeout=60)
    assert served.board.get("/sys/class/net/eth0/flags") == b"0x1003\n"  # up, broadcast, multicast: not promiscuous
    frames = frames_of(served.board.get("/tmp/own.cap"))
    assert sum(map(is_ping_to("10.0.2.2"), frames)) == 1


def test_leak_is_reported(served):
    board = served.board
    board.check("fdleak 2000 > /dev/null 2>&1 & echo $! > /tmp/leaker")
    leaker = int(board.get("/tmp/leaker"))
    try:
        board.check("mon 20000 > /dev/null 2>/tmp/said & echo $! > /tmp/mon")
        report = rf"^pid {leaker} name \S*fdleak fd_score \d+ \[\+\d+\] sk=\d+$".encode()
        wait_for_board(lambda: re.search(report, board.get("/tmp/said"), re.MULTILINE), "a line about the leak", 120)
        assert pids_of(board, "mon") == [int(board.get("/tmp/mon"))]
        board.check("kill -INT $(cat /tmp/mon)")
        wait_for_board(lambda: board.get("/tmp/said").endswith(b"\nCleanup and exit.\n"), "mon's end")
    finally:
        board.run(f"kill -9 {leaker}")  # it has ended if it has reached its limit of descriptors


def test_slowdown_by_a_trace_is_reported(served, record_property):
    """Checks no limit. Reports by how much a trace slows a program that does nothing but system calls."""
    work = "dd if=/dev/zero of=/dev/null bs=1 count=2000 2> /dev/null"
    times = []
    for words in (work, f"tstrace {work} > /tmp/trace"):
        began = time.monotonic()
        served.board.check(words)
        times.append(time.monotonic() - began)
    # Two lines for each call, and two calls for each byte.
    assert int(served.board.check("grep -cE '(read|write)\\(' /tmp/trace")) >= 8000
    record_property("traced_to_untraced", times[1] / times[0])
    print(f"traced / untraced: {times[1]:.2f} s / {times[0]:.2f} s = {times[1] / times[0]:.0f}")
