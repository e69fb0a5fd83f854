"""archiveview: the conversations of a capture are those that tshark finds in it."""

import collections
import json
import struct
import subprocess

import pytest

from support import made_archives as made
from support.archives import CAPTURE_SIZE
from support.captures import FILE_HEADER, ICMP, SCTP, TCP, UDP, ethernet, tagged
from support.under_test import BIN
from support.waiting import PATIENCE

STORED = 1536  # bytes of each record of a usual archive
FIELDS = ["frame.len", "ip.src", "ip.dst", "ipv6.src", "ipv6.dst", "tcp.stream", "tcp.srcport", "tcp.dstport",
          "udp.stream", "udp.srcport", "udp.dstport"]  # fmt: skip
SYN, RST, ACK = 2, 4, 16
MORE = 0x2000  # fragments follow


def packet(protocol, body, source=1, target=2, number=1, fragment=0):
    head = struct.pack("!BBHHHBBH", 0x45, 0, 20 + len(body), number, fragment, 64, protocol, 0)
    return ethernet(0x800, head + bytes([10, 0, 0, source, 10, 0, 0, target]) + body)


def packet6(protocol, body, source=1, target=2):
    head = struct.pack("!IHBB", 0x60000000, len(body), protocol, 255)
    address = bytes.fromhex("20010db8") + bytes(11)
    return ethernet(0x86DD, head + address + bytes([source]) + address + bytes([target]) + body)


def udp(source, target, data=b"data"):
    return struct.pack("!4H", source, target, 8 + len(data), 0) + data


def tcp(source, target, sequence, acknowledged, flags, data=b""):
    return struct.pack("!HHIIBBHHH", source, target, sequence, acknowledged, 0x50, flags, 500, 0, 0) + data


def question(number, name=b"\4time\7example\0"):
    return struct.pack("!6H", number, 0x100, 1, 0, 0, 0) + name + b"\0\1\0\1"


def many_protocols():
    large = udp(3000, 3001, bytes(2000))
    arp = struct.pack("!HHBBH", 1, 0x800, 6, 4, 1) + b"\2" * 6 + bytes([10, 0, 0, 1]) + bytes(6) + bytes([10, 0, 0, 9])
    return [
        packet(TCP, tcp(1000, 80, 99, 0, SYN)),
        packet(TCP, tcp(80, 1000, 499, 100, SYN | ACK), 2, 1),
        packet(TCP, tcp(1000, 80, 100, 500, ACK, b"hello"), number=2),
        packet(TCP, tcp(1000, 80, 100, 500, ACK, b"hello"), number=2),  # another view of it
        packet(TCP, tcp(1000, 81, 99, 0, SYN)),
        packet(TCP, tcp(81, 1000, 0, 100, RST | ACK), 2, 1),
        packet(TCP, tcp(1000, 81, 7777, 0, SYN)),  # the same ports again
        packet(TCP, tcp(81, 1000, 0, 7778, RST | ACK), 2, 1),
        packet6(TCP, tcp(1000, 80, 5, 5, ACK, b"six")),
        packet6(UDP, udp(500, 501)),
        packet6(UDP, udp(501, 500, b""), 2, 1),
        tagged(packet(UDP, udp(600, 601))),
        packet(UDP, udp(4000, 53, question(7)), target=53),
        packet(UDP, udp(4000, 53, question(7)), target=53, number=2),
        packet(UDP, large[:1208], number=70, fragment=MORE),
        packet(UDP, large[1208:], number=70, fragment=1208 // 8),
        packet(UDP, udp(3000, 3001, bytes(100))[:48], number=71, fragment=MORE),  # the rest never comes
        packet(ICMP, struct.pack("!BBHHH", 8, 0, 0, 1, 1)),
        packet(SCTP, bytes(20)),
        ethernet(0x806, arp),
        ethernet(0x88B5, b"an experiment"),
    ]


def record(number, frame, stored):
    size = max(stored, len(frame))
    return struct.pack("<4I", 1700000000, number * 1000, size, len(frame)) + frame + bytes(size - len(frame))


def capture_of(frames, stored, is_padded):
    stream = FILE_HEADER + b"".join(record(number, frame, stored) for number, frame in enumerate(frames))
    while is_padded and CAPTURE_SIZE - len(stream) >= 16:
        size = min(CAPTURE_SIZE - len(stream) - 16, 32751)
        stream += struct.pack("<4I", 0, 0, size, size) + bytes(size)
    return stream


def view_of(capture):
    members = [(name, capture if name == "netdump.cap" else data) for name, data in made.full_members()[:-1]]
    stream = made.tar_of([*members, ("manifest.txt", made.manifest_of(members))])
    done = subprocess.run([BIN / "archiveview", "--json", "-"], input=stream, capture_output=True, timeout=PATIENCE)
    assert done.returncode == 0, (done.returncode, done.stderr)
    return json.loads(done.stdout)["capture"]


def end(address, port):
    return f"[{address}]:{port}" if ":" in address else f"{address}:{port}"


def tshark_conversations(path):
    """How many conversations of TCP and UDP have these (protocol, ends, packets, bytes), and how many frames there are."""
    words = ["tshark", "-r", path, "-Y", "frame.time_epoch > 1", "-T", "fields"]
    for field in FIELDS:
        words += ["-e", field]
    told = subprocess.run(words, capture_output=True, text=True, check=True, timeout=PATIENCE).stdout
    lines = [dict(zip(FIELDS, line.split("\t"))) for line in told.splitlines()]
    sums = collections.defaultdict(lambda: [0, 0])
    for line in lines:
        for protocol in ("tcp", "udp"):
            if line[f"{protocol}.stream"]:
                source, target = (
                    end(line[f"ip.{side}"] or line[f"ipv6.{side}"], line[f"{protocol}.{side}port"]) for side in ("src", "dst")
                )
                one = sums[protocol, tuple(sorted((source, target))), line[f"{protocol}.stream"]]
                one[0] += 1
                one[1] += int(line["frame.len"])
    counted = collections.Counter((*key[:2], *one) for key, one in sums.items())
    return counted, len(lines)


def viewed_conversations(capture):
    return collections.Counter(
        (one["protocol"], tuple(sorted((one["a"], one["b"]))), one["packets"], one["bytes"])
        for one in capture["conversations"]
        if one["protocol"] in ("tcp", "udp")
    )


@pytest.mark.parametrize("stored, is_padded", [(0, False), (0, True), (STORED, True)])
def test_conversations_are_those_of_tshark(tmp_path, stored, is_padded):
    stream = capture_of(many_protocols(), stored, is_padded)
    (tmp_path / "netdump.cap").write_bytes(stream)
    expected, frames = tshark_conversations(tmp_path / "netdump.cap")
    capture = view_of(stream)
    assert frames == capture["packets"] == len(many_protocols())
    assert viewed_conversations(capture) == expected
    assert sum(one["packets"] for one in capture["conversations"]) == frames
    assert capture["true_lengths"] == (stored == 0)


def test_unanswered_questions_and_refused_connections_are_counted():
    capture = view_of(capture_of(many_protocols(), 0, True))
    assert [(one["name"], one["server"], one["questions"], one["answers"]) for one in capture["dns"]] == [
        ("time.example", "10.0.0.53", 2, 0)
    ]
    assert [(one["name"], one["questions"], one["answers"]) for one in capture["arp"]] == [("10.0.0.9", 1, 0)]
    assert sum(one["refusals"] for one in capture["conversations"]) == 2
    assert sum(one["retransmissions"] for one in capture["conversations"]) == 0
