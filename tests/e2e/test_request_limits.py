"""Limits and defaults of request parameters, as they show in what a request does."""

import contextlib
import ctypes
import os
import re
import shutil
import socket
import subprocess
import time

import pytest

import rtrace_records
from zarvo_e2e import PATIENCE, body_of, download_head, wait_for

NEEDS_SANDBOX = True

TRACE_HEAD = download_head("text/plain", "stracedump.txt")
CAPTURE_HEAD = download_head("application/octet-stream", "pcapdump.cap")
RECORDS_HEAD = download_head("application/octet-stream", "rtrace")
CLONE_NEWNET = 0x40000000
MARK = b"a datagram that no other test sends"


def has_command_line(process):
    """Popen returns when the descriptors for exec are closed, a moment before the new command line is there."""
    with open(f"/proc/{process.pid}/cmdline", "rb") as file:
        return file.read() != b""


@contextlib.contextmanager
def running(count, program):
    processes = [subprocess.Popen([program, "1000"]) for _ in range(count)]
    try:
        wait_for(lambda: all(map(has_command_line, processes)), "named")
        yield [process.pid for process in processes]
    finally:
        for process in processes:
            process.kill()
        for process in processes:
            process.wait()


def is_traced(pid):
    with open(f"/proc/{pid}/status") as file:
        return re.search(r"^TracerPid:\s*0$", file.read(), re.MULTILINE) is None


def traced(pids):
    return [pid for pid in pids if is_traced(pid)]


def assert_traced_count(daemon, pids, query, wanted):
    """The trace attaches in the order of its list, so that one process too many would be traced as well."""
    with daemon.ask(b"/x", b"cmd=strace&pid=" + query) as browser:
        assert browser.read(len(TRACE_HEAD)) == TRACE_HEAD
        wait_for(lambda: len(traced(pids)) >= wanted, lambda: f"{wanted} traced: {len(traced(pids))}", 4 * PATIENCE)
        time.sleep(0.5)
        assert len(traced(pids)) == wanted
    wait_for(lambda: traced(pids) == [], "all let go", 4 * PATIENCE)


def test_trace_takes_512_processes_and_no_more(daemon):
    with running(520, "sleep") as pids:
        assert_traced_count(daemon, pids, b",".join(b"%d" % pid for pid in pids), 512)


def test_trace_takes_32_processes_of_one_name(daemon, tmp_path):
    program = shutil.copy(shutil.which("sleep"), tmp_path / "sleep")
    name = tmp_path / "many-of-a-name"
    name.symlink_to(program)
    with running(40, str(name)) as pids:
        wait_for(lambda: all(os.readlink(f"/proc/{pid}/exe") == str(program) for pid in pids), "all programs")
        assert_traced_count(daemon, pids, b"many-of-a-name", 32)


def times(records):
    return sorted({record.time_ms for record in records})


def test_resource_trace_without_an_interval_samples_every_10_seconds(daemon):
    with daemon.ask(b"/x", b"cmd=rtrace&trace=filenr") as browser:
        records, _ = rtrace_records.read_until(browser.near.recv, lambda got: len(times(got)) >= 2, RECORDS_HEAD)
    first, second = times(records)
    assert 9500 <= second - first < 20000


@pytest.fixture
def loopback(here):
    """A network of the test's own with the interfaces "lo" and "l", where only the test sends anything."""
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as before:
        assert libc.unshare(CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        subprocess.run(["ip", "link", "add", "name", "l", "type", "veth", "peer", "name", "other"], check=True)
        for name in ("lo", "l", "other"):
            subprocess.run(["ip", "link", "set", "dev", name, "up"], check=True)
        yield
        assert libc.setns(before.fileno(), CLONE_NEWNET) == 0


def capture(daemon, query):
    """The capture in the answer, with a marked datagram on its way all the time."""
    browser = daemon.ask(b"/x", b"cmd=pcapdump&totalsize=100000&" + query)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        browser.near.settimeout(0.1)
        end, answer = time.monotonic() + PATIENCE, b""
        while time.monotonic() < end:
            sender.sendto(MARK, ("127.0.0.1", 9))
            with contextlib.suppress(TimeoutError):
                piece = browser.near.recv(1 << 20)
                answer += piece
                if not piece:
                    break
    browser.close()
    return body_of(answer, CAPTURE_HEAD)


@pytest.mark.parametrize("length, is_whole", [(46, True), (47, True), (48, False)])
def test_interface_names_are_cut_behind_47_characters(loopback, start, length, is_whole):
    daemon = start()
    names = b"lo".rjust(length, b",")
    found = MARK in capture(daemon, b"duration=1&interface=" + names)
    assert found == is_whole


def test_negative_duration_is_the_usual_one(loopback, start):
    daemon = start()
    begin = time.monotonic()
    assert len(body_of(daemon.answer(b"/x", b"cmd=pcapdump&duration=-5&totalsize=2000&interface=lo"), CAPTURE_HEAD)) == 2000
    assert time.monotonic() - begin >= 4.5
