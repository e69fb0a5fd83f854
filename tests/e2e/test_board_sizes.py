"""What the target build needs on the device: flash, libraries, memory. Writes a table to build/check."""

import re
import struct
import subprocess

import pytest

import image
from prepare import find_tool
from support.answers import body_and_file_name
from support.archives import assert_full_whole, assert_whole, unpacked
from support.board_daemon import pids_of, wait_for_board
from support.connections import SMALL_BUFFER, receive_all
from support.under_test import ROOT
from support.web import http_open

BUILD = ROOT / "build/mipsel"
PROGRAM = BUILD / "bin/zarvo"
TABLE = ROOT / "build/check/board_sizes.txt"

KIB = 1024
PROGRAM_BOUND = 128 * KIB
IDLE_BOUND = 2048 * KIB
STREAMING_BOUND = 3072 * KIB
MON_BOUND = 512 * KIB  # without the memory that it shares with others, mostly the C library
CROWD = 1000  # processes, of 20 descriptors each
MON_STATUS = "/tmp/dbg-report.txt"
PLATFORM_LIBRARIES = {"libqorlink.so.1", "libvextor.so", "libmirnel.so", "libhollisk.so.7"}
# ld.so.1 is the C library, too: it holds __tls_get_addr.
MAY_BE_NEEDED = PLATFORM_LIBRARIES | {"libc.so.6", "libz.so.1", "libpthread.so.0", "libdl.so.2", "ld.so.1"}

REPORT_SIZE = 4 << 20  # of a server report that cannot be compressed; larger than all buffers on its way
SAMPLES = 20
READ_AT_ONCE = 4096  # bytes of the archive, between two samples


@pytest.fixture(scope="module")
def table():
    """Lines for the table, (what, bytes, bound or None). The table is written at the end."""
    lines = []
    yield lines
    text = "On the board                                            KiB   at most\n"
    for what, size, bound in lines:
        text += f"  {what:<48} {size / KIB:8.1f}  {bound // KIB if bound else '':>8}".rstrip() + "\n"
    if lines:
        TABLE.parent.mkdir(parents=True, exist_ok=True)
        TABLE.write_text(text)


@pytest.fixture(scope="module")
def build():
    if not PROGRAM.exists():
        pytest.skip("needs build/mipsel/bin/zarvo (cmake --build --preset mipsel)")


def cross_tool(name):
    tool = find_tool(image.CROSS_PREFIX + name)
    if not tool:
        pytest.skip(f"needs {image.CROSS_PREFIX}{name}")
    return tool


def test_stripped_program_is_small(build, table, tmp_path):
    subprocess.run([cross_tool("strip"), "-o", tmp_path / "zarvo", PROGRAM], check=True)
    size = (tmp_path / "zarvo").stat().st_size
    table.append(("stripped zarvo", size, PROGRAM_BOUND))
    assert 0 < size <= PROGRAM_BOUND


def test_program_needs_only_what_the_device_has(build):
    done = subprocess.run([cross_tool("readelf"), "-d", PROGRAM], capture_output=True, text=True, check=True)
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", done.stdout))
    assert "libc.so.6" in needed
    assert needed <= MAY_BE_NEEDED


def resident_of(board, pid, kind="VmRSS"):
    """A memory size of /proc/PID/status in bytes."""
    found = re.search(rf"(?m)^{kind}:\s+(\d+) kB$", board.get(f"/proc/{pid}/status").decode())
    return int(found[1]) * KIB


# Prints the pagemap entries of all pages of a process, 64 bits each.
PAGEMAP = """
while read range rest; do
    first=$((0x${range%%-*} / %(page)d)) end=$((0x${range#*-} / %(page)d))
    dd if=/proc/%(pid)d/pagemap bs=8 skip=$first count=$((end - first)) 2> /dev/null
done < /proc/%(pid)d/maps
"""
PAGE = 4096
IS_PRESENT = 1 << 63
FRAME = (1 << 55) - 1


def frames_of(board, pid):
    """The numbers of the page frames that a process maps."""
    entries = board.check(PAGEMAP % {"page": PAGE, "pid": pid})
    present = [entry for (entry,) in struct.iter_unpack("<Q", entries) if entry & IS_PRESENT]
    return {entry & FRAME for entry in present} - {0}


def children_of(board, pid):
    return [int(word) for word in board.check(f"cat /proc/{pid}/task/*/children").split()]


def test_idle_daemon_is_small(served, table):
    size = max(resident_of(served.board, served.pid) for _ in range(SAMPLES))
    table.append(("idle daemon, resident", size, IDLE_BOUND))
    assert 0 < size <= IDLE_BOUND


@pytest.fixture
def long_report(served):
    """A server report that is far larger than the buffers between daemon and browser."""
    path = "/usr/sbin/gen_serverreport.sh"
    usual = served.board.get(path)
    served.board.put(b"#!/bin/sh\n/usr/bin/head -c %d /dev/urandom\n" % REPORT_SIZE, path, 0o755)
    yield
    served.board.put(usual, path, 0o755)


@pytest.mark.parametrize("form", ["", "?full"])
def test_daemon_and_compressor_are_small_while_a_slow_browser_reads(form, served, long_report, table):
    """The memory that both share, mostly their code, counts once."""
    together, added_up, pieces = [], [], []
    with http_open(served.url, f"/debug.tgz{form}", buffer_size=SMALL_BUFFER) as client:
        (compressor, *_) = wait_for_board(lambda: children_of(served.board, served.pid), "a compressor")
        for _ in range(SAMPLES):
            pieces.append(client.recv(READ_AT_ONCE))
            both = [frames_of(served.board, pid) for pid in (served.pid, compressor)]
            together.append(len(both[0] | both[1]) * PAGE)
            added_up.append(sum(resident_of(served.board, pid) for pid in (served.pid, compressor)))
        assert children_of(served.board, served.pid)[0] == compressor, "the compressor must run until the last sample"
        pieces.append(receive_all(client))
    body, _ = body_and_file_name(b"".join(pieces))
    (assert_full_whole if form else assert_whole)(unpacked(body))
    what = "a full archive" if form else "an archive"
    table.append((f"daemon and compressor while streaming {what}", max(together), STREAMING_BOUND))
    table.append(("  the same, shared memory counted twice", max(added_up), None))
    assert min(together) > 0
    assert max(together) <= STREAMING_BOUND


def test_daemon_is_small_again_after_an_archive(served, table):
    wait_for_board(lambda: not children_of(served.board, served.pid), "the archive's end")
    size = resident_of(served.board, served.pid)
    table.append(("idle daemon after an archive, resident", size, IDLE_BOUND))
    assert 0 < size <= IDLE_BOUND


@pytest.fixture
def crowd(served):
    """Sleeping processes with descriptors, in addition to those of the board."""
    board = served.board
    board.check("mkfifo /tmp/crowd-end")
    # The crowd runs until this process, which holds the other end of the pipe, is killed.
    board.check("sleep 100000 > /tmp/crowd-end & echo $! > /tmp/crowd-holder")
    board.check(f"bench_crowd {CROWD} 20 < /tmp/crowd-end > /tmp/crowd 2>&1 &")
    try:
        wait_for_board(lambda: board.get("/tmp/crowd") == b"ready\n", "the crowd", 300)
        yield
    finally:
        board.check("kill $(cat /tmp/crowd-holder)")
        wait_for_board(lambda: not pids_of(board, "bench_crowd"), "the crowd's end")
        board.check("rm /tmp/crowd-end /tmp/crowd-holder /tmp/crowd")


def monitor_rounds(board):
    """The number of the last round in the status file, or 0 before the first."""
    head = board.run(f"head -n 1 {MON_STATUS}").out.decode()
    found = re.fullmatch(r"Debug monitor status round=([0-9a-f]+)\n", head)
    return int(found[1], 16) if found else 0


def test_monitor_of_a_thousand_processes_is_small(served, crowd, table):
    board = served.board
    pid = int(board.check("mon 50000 > /dev/null 2>&1 & echo $!"))
    try:
        wait_for_board(lambda: monitor_rounds(board) >= 4, "a few rounds of the monitor", 120)
        size, own_size = (resident_of(board, pid, kind) for kind in ("VmRSS", "RssAnon"))
    finally:
        board.check(f"kill -INT {pid}")
        wait_for_board(lambda: pid not in pids_of(board, "mon"), "mon's end")
        board.check(f"rm -f {MON_STATUS}")
    table.append((f"mon with {CROWD} processes, resident", size, None))
    table.append(("  of it not shared with other programs", own_size, MON_BOUND))
    assert 0 < own_size <= MON_BOUND
