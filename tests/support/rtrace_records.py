"""Streams of resource-trace records, taken apart."""

import dataclasses
import struct

(
    IOSTAT, SMAPS, STATUS, GROUP, FOLLOWED, SMAPSTOT, FILENR, MEMINFO, DISKINFO, PAGETYPEINFO, PELLORA, EVENT,
    PIDSTAT,
) = range(1, 14)  # fmt: skip
HEADER = struct.Struct("<IIqB3s")
DISKS_HEADING = b"Filesystem          \tUsed\tAvail\tMounted on\n"


@dataclasses.dataclass
class Record:
    type: int
    time_ms: int
    more: int
    data: bytes
    pid: int = -1

    def __post_init__(self):
        if self.type in (SMAPS, STATUS) and self.more:
            self.pid = struct.unpack("<i", self.data[:4])[0]
            self.data = self.data[4:]


def split(stream):
    """The records of a stream. A truncated last record is ignored."""
    records = []
    offset = 0
    while offset + HEADER.size <= len(stream):
        kind, length, time_ms, more, zero = HEADER.unpack_from(stream, offset)
        assert 1 <= kind <= 13 and more in (0, 1) and zero == b"\0\0\0", f"invalid header at {offset}"
        offset += HEADER.size
        if offset + length > len(stream):
            break
        records.append(Record(kind, time_ms, more, stream[offset : offset + length]))
        offset += length
    return records


def read_until(receive, enough, head):
    """Reads `head` and records until `enough(records)`. Returns the records, and their bytes."""
    stream = b""
    while not (stream[: len(head)] == head and enough(split(stream[len(head) :]))):
        piece = receive(1 << 16)
        assert piece, f"end of the stream after {len(stream)} bytes"
        stream += piece
        assert head.startswith(stream[: len(head)]), stream[:200]
    return split(stream[len(head) :]), stream[len(head) :]


def count(records, kind):
    return sum(record.type == kind for record in records)
