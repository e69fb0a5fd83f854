"""Capture files, the frames that the tests send, and a running pcapdump."""

import pathlib
import signal
import socket
import struct
import subprocess

from support.network import capturing_sockets
from support.processes import process_stat
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for

FILE_HEADER = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)
HEADER_SIZE, RECORD_HEADER_SIZE = len(FILE_HEADER), 16
NEAR, FAR = "near0", "far0"  # the two ends of a wire
ICMP, TCP, UDP, SCTP = 1, 6, 17, 132


# Frames.


def send(*frames, interface=FAR):
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as sock:
        sock.bind((interface, 0))
        for frame in frames:
            sock.send(frame)


def ethernet(kind, body):
    return b"\2" * 12 + struct.pack("!H", kind) + body


def ports(source, destination):
    return struct.pack("!HH", source, destination) + bytes(28)


def ipv4(protocol, body, options=b"", fragment=0):
    length = 20 + len(options)
    version_and_length, total, addresses = 0x40 | length // 4, length + len(body), b"\7" * 8
    head = struct.pack("!BBHHHBBH8s", version_and_length, 0, total, 0, fragment, 64, protocol, 0, addresses)
    return ethernet(0x800, head + options + body)


def ipv6(next_header, body):
    return ethernet(0x86DD, struct.pack("!IHBB32s", 0x60000000, len(body), next_header, 64, b"\7" * 32) + body)


def tagged(frame):
    return frame[:12] + struct.pack("!HH", 0x8100, 7) + frame[12:]


# Files.


def split_capture(stream):
    """[(header, frame)...] of a stream, which must consist of whole records."""
    assert stream[:HEADER_SIZE] == FILE_HEADER
    records, at = [], HEADER_SIZE
    while at < len(stream):
        header = struct.unpack_from("<4I", stream, at)
        begin = at + RECORD_HEADER_SIZE
        frame = stream[begin : begin + header[2]]
        assert len(frame) == header[2], "the last record is truncated"
        records.append((header, frame))
        at = begin + len(frame)
    return records


def frames_of(stream):
    """The captured frames in their original lengths. The rest of their records, and padding, must be zero."""
    frames = []
    for (seconds, microseconds, _, length), frame in split_capture(stream):
        assert not any(frame[length:])
        if seconds or microseconds:
            frames.append(frame[:length])
        else:
            assert not any(frame)
    return frames


def record_bytes(frames):
    """The size of the records of these frames."""
    return sum(RECORD_HEADER_SIZE + len(frame) for frame in frames)


# pcapdump.


class Applet:
    """A running pcapdump."""

    def __init__(self, file, *words, interface=NEAR, sockets=1, **how):
        self.file = pathlib.Path(file)
        self.process = subprocess.Popen([BIN / "pcapdump", interface, file, *words], stderr=subprocess.PIPE, **how)
        wait_for(lambda: capturing_sockets() == sockets, "capturing")
        wait_for(lambda: self.size() >= HEADER_SIZE, "the file's header")

    def size(self):
        return self.file.stat().st_size

    def wait(self):
        """(exit status, standard error)."""
        _, errors = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, errors

    def finish(self, size=HEADER_SIZE):
        """Interrupts it when the file has `size` bytes. Returns the file's content."""
        wait_for(lambda: self.size() >= size, lambda: f"{size} bytes: {self.size()}")
        self.process.send_signal(signal.SIGINT)
        assert self.wait() == (0, b"")
        return self.file.read_bytes()

    def cpu_ticks(self):
        fields = process_stat(self.process.pid)
        return int(fields[11]) + int(fields[12])
