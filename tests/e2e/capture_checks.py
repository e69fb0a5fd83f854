"""Other programs must be able to read our captures."""

import re
import shutil
import subprocess

import pytest

from support.captures import split_capture


def assert_tcpdump_reads(stream, count):
    if not shutil.which("tcpdump"):
        pytest.skip("needs tcpdump, to read the capture")
    read = subprocess.run(["tcpdump", "-n", "-r", "-"], input=stream, capture_output=True)
    assert read.returncode == 0, read.stderr
    # It always says what it reads, and nothing else unless there is something wrong.
    assert re.fullmatch(rb"reading from file -, link-type EN10MB \(Ethernet\)[^\n]*\n", read.stderr), read.stderr
    records = [line for line in read.stdout.splitlines() if line[:1].isdigit()]
    assert len(records) == count


def assert_capinfos_reads(stream, count, folder):
    """capinfos uses another library, and complains about a file that it cannot read to the end."""
    if not shutil.which("capinfos"):
        pytest.skip("needs capinfos, to read the capture")
    file = folder / "read-back.pcap"
    file.write_bytes(stream)
    read = subprocess.run(["capinfos", "-M", "-t", "-E", "-c", "-d", file], capture_output=True, text=True)
    assert (read.returncode, read.stderr) == (0, "")
    said = dict(re.split(r":\s+", line, maxsplit=1) for line in read.stdout.splitlines() if ": " in line)
    assert said["File type"] == "pcap"
    assert said["File encapsulation"] == "ether"
    assert said["Number of packets"] == str(count)
    assert said["Data size"] == f"{sum(fields[3] for fields, _ in split_capture(stream))} bytes"


def assert_tshark_reads(stream, folder):
    """tshark dissects each frame; expects no complaint, and the records' own lengths."""
    if not shutil.which("tshark"):
        pytest.skip("needs tshark, to read the capture")
    file = folder / "read-back.pcap"
    file.write_bytes(stream)
    words = ["tshark", "-n", "-r", file, "-T", "fields", "-e", "frame.cap_len", "-e", "frame.len"]
    read = subprocess.run(words, capture_output=True, text=True)
    # Wireshark's own remark about its user, not about the file.
    complaints = [line for line in read.stderr.splitlines() if not line.startswith("Running as user")]
    assert (read.returncode, complaints) == (0, [])
    lengths = [tuple(int(length) for length in line.split()) for line in read.stdout.splitlines()]
    assert lengths == [(fields[2], fields[3]) for fields, _ in split_capture(stream)]
