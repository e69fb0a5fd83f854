"""Limits and defaults of request parameters."""

import contextlib
import os
import shutil
import socket
import time

import pytest

from support.answers import body_of, download_head
from support.network import ip, private_network
from support.processes import has_command_line, started, tracer_of
from support.rtrace_records import read_until
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

TRACE_HEAD = download_head("text/plain", "stracedump.txt")
CAPTURE_HEAD = download_head("application/octet-stream", "pcapdump.cap")
RECORDS_HEAD = download_head("application/octet-stream", "rtrace")
MARK = b"a datagram that no other test sends"


@contextlib.contextmanager
def sleepers(count, program):
    """The pids of sleeping processes, which are killed at the end."""
    with started() as start:
        pids = [start(program, "1000").pid for _ in range(count)]
        wait_for(lambda: all(map(has_command_line, pids)), "command lines")
        yield pids


def traced(pids):
    return [pid for pid in pids if tracer_of(pid)]


def assert_traced_count(daemon, pids, query, wanted):
    """One process too many would be traced soon: the trace attaches in the order of the list."""
    with daemon.ask(b"/x", b"cmd=strace&pid=" + query) as browser:
        assert browser.read(len(TRACE_HEAD)) == TRACE_HEAD
        wait_for(lambda: len(traced(pids)) >= wanted, lambda: f"{wanted} traced, but {len(traced(pids))}", 4 * PATIENCE)
        time.sleep(0.5)  # time to attach to one too many
        assert len(traced(pids)) == wanted
    wait_for(lambda: traced(pids) == [], "all detached", 4 * PATIENCE)


def test_trace_takes_512_processes_at_most(daemon):
    with sleepers(520, "sleep") as pids:
        assert_traced_count(daemon, pids, b",".join(b"%d" % pid for pid in pids), 512)


def test_trace_takes_32_processes_of_one_name_at_most(daemon, tmp_path):
    program = shutil.copy(shutil.which("sleep"), tmp_path / "sleep")
    name = tmp_path / "many-of-a-name"
    name.symlink_to(program)
    with sleepers(40, str(name)) as pids:
        wait_for(lambda: all(os.readlink(f"/proc/{pid}/exe") == str(program) for pid in pids), "all executed")
        assert_traced_count(daemon, pids, b"many-of-a-name", 32)


def times(records):
    return sorted({record.time_ms for record in records})


def test_resource_trace_without_an_interval_samples_every_10_seconds(daemon):
    with daemon.ask(b"/x", b"cmd=rtrace&trace=filenr") as browser:
        records, _ = read_until(browser.near.recv, lambda got: len(times(got)) >= 2, RECORDS_HEAD)
    first, second = times(records)
    assert 9500 <= second - first < 20000


@pytest.fixture
def loopback(clean_sandbox):
    """A private network with the interfaces "lo" and "l"."""
    with private_network():
        ip("link", "add", "name", "l", "type", "veth", "peer", "name", "other")
        for name in ("lo", "l", "other"):
            ip("link", "set", "dev", name, "up")
        yield


def capture(daemon, query):
    """The capture in the answer. Datagrams with the mark are sent all the time."""
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


@pytest.mark.parametrize("length, is_kept", [(46, True), (47, True), (48, False)])
def test_interface_list_is_truncated_after_47_characters(loopback, start, length, is_kept):
    daemon = start()
    names = b"lo".rjust(length, b",")
    found = MARK in capture(daemon, b"duration=1&interface=" + names)
    assert found == is_kept


def test_negative_duration_gives_the_default(loopback, start):
    daemon = start()
    begin = time.monotonic()
    answer = daemon.answer(b"/x", b"cmd=pcapdump&duration=-5&totalsize=2000&interface=lo")
    assert len(body_of(answer, CAPTURE_HEAD)) == 2000
    assert time.monotonic() - begin >= 4.5
