"""A resource trace of the board over HTTP, read by rtraceview on this machine."""

import json
import re
import subprocess

import pytest

import board as emulated
from support.answers import download_head
from support.board_daemon import pids_of, start_daemon, start_front, wait_for_board
from support.rtrace_records import DISKINFO, IOSTAT, PIDSTAT, count, read_until, split
from support.under_test import ROOT
from support.web import http_open

VIEWER = ROOT / "build/host/bin/rtraceview"
HEAD = download_head("application/octet-stream", "rtrace")
TARGET = "/debugar.cgi?cmd=rtrace&interval=1&trace=all"
PATIENCE = 120

# Busybox has neither iostat nor pidstat. These scripts print the kernel's numbers in the same format. They run
# without PATH.
IOSTAT_TEXT = r"""
while read name user nice system idle wait irq soft steal rest < /proc/stat; do
    all=$((user + nice + system + idle + wait + irq + soft + steal))
    echo "avg-cpu:  %user   %nice %system %iowait  %steal   %idle"
    echo "          $((100 * user / all)).00 $((100 * nice / all)).00 $((100 * system / all)).00 \
        $((100 * wait / all)).00 $((100 * steal / all)).00 $((100 * idle / all)).00"
    echo
    /bin/busybox sleep "$2"
done
"""
PIDSTAT_TEXT = r"""
while :; do
    echo "12:00:00      UID       PID    %CPU   CPU  Command"
    for folder in /proc/[0-9]*; do
        read pid name rest < $folder/stat && echo "12:00:01        0  $pid   0.00   0  $name"
    done
    echo
    /bin/busybox sleep "$1"
done 2> /dev/null
"""
PROGRAMS = {
    "iostat": IOSTAT_TEXT,
    "pidstat": PIDSTAT_TEXT,
    "eventlistener": "echo board is up; exec /bin/busybox sleep 100000",
}


@pytest.fixture(scope="module")
def machine(board_build):
    if not VIEWER.exists():
        pytest.skip("needs build/host/bin/rtraceview (cmake --build --preset host)")
    with emulated.Board(board_build, http=True) as board:
        for name, text in PROGRAMS.items():
            board.put(f"#!/bin/sh\n{text}\n".encode(), f"/usr/bin/{name}", 0o755)
        yield board


@pytest.fixture(scope="module")
def daemon(machine):
    return start_daemon(machine)


@pytest.fixture(scope="module")
def url(machine, daemon):
    return start_front(machine)


def resident_kb(machine, pid):
    return int(re.search(rb"VmRSS:\s+(\d+)", machine.get(f"/proc/{pid}/status"))[1])


@pytest.fixture(scope="module")
def trace(machine, daemon, url, tmp_path_factory):
    """A file with three samples or more, and the growth of the daemon's memory meanwhile."""
    before = resident_kb(machine, daemon)

    def enough(records):
        samples = count(records, DISKINFO)
        return samples >= 3 and (samples >= 30 or min(count(records, IOSTAT), count(records, PIDSTAT)) > 1)

    with http_open(url, TARGET) as client:
        _, stream = read_until(client.recv, enough, HEAD)
        grown = resident_kb(machine, daemon) - before
    path = tmp_path_factory.mktemp("trace") / "rtrace"
    path.write_bytes(stream)
    return path, grown


def test_json_has_the_numbers_of_the_board(machine, daemon, trace):
    done = subprocess.run([VIEWER, "--json", trace[0]], check=True, capture_output=True)
    samples = [json.loads(line) for line in done.stdout.splitlines()]
    assert len(samples) >= 3
    total = int(re.search(rb"MemTotal:\s+(\d+)", machine.get("/proc/meminfo"))[1])
    for sample in samples[:-1]:  # the last one may be truncated
        assert sample["meminfo"]["MemTotal"] == total
        assert sample["smaps"][str(daemon)]["Rss"] > 0
        assert sample["status"][str(daemon)]["VmRSS"] > 0
        assert sample["filenr"]["allocated"] > 0
    assert any(sample.get("event", {}).get("text") == "board is up\n" for sample in samples)
    assert any("%idle" in sample.get("iostat", {}).get("cpu", {}) for sample in samples)
    assert any(f"(debugar.cgi) {daemon}" in sample.get("pidstat", {}) for sample in samples)


def test_trace_has_the_processes_of_the_board(machine, trace):
    done = subprocess.run([VIEWER, "--json", trace[0]], check=True, capture_output=True)
    first = json.loads(done.stdout.split(b"\n")[0])
    running = {name.decode() for name in machine.check("ls /proc").split() if name.isdigit()}
    assert len(running & set(first["status"])) > 0.8 * len(running)


def test_page_has_the_plots_and_events_of_the_board(trace, tmp_path):
    subprocess.run([VIEWER, "--html", tmp_path / "page.html", trace[0]], check=True, capture_output=True)
    page = (tmp_path / "page.html").read_text()
    assert "Memory of the system" in page and '"board is up"' in page


def test_records_of_the_board_are_valid(trace):
    records = split(trace[0].read_bytes())
    assert all(record.more in (0, 1) and record.time_ms > 0 for record in records)


def test_trace_takes_little_memory_on_the_board(trace):
    assert trace[1] < 1024


def test_programs_end_with_the_trace(machine, trace):
    def have_ended():
        return not any(pids_of(machine, name) for name in PROGRAMS)

    wait_for_board(have_ended, "the end of all programs", PATIENCE)
