"""Debug archives, taken apart and checked."""

import dataclasses
import gzip
import re
import subprocess

BLOCK = 512
TOP = re.compile(r"debug-(\d{8}-\d{6})-c(\d+)/")
TIMESTAMPED = re.compile(r"proc\.(\d{8}-\d{6})/[^/]+")
SNAPSHOT_DIRS = [
    "proc/sys/", "proc/sys/fs/", "proc/sys/kernel/", "proc/sys/kernel/random/", "proc/sys/net/bridge/",
    "proc/sys/net/core/", "proc/sys/net/ipv4/", "proc/sys/net/ipv4/conf/", "proc/sys/net/ipv4/neigh/",
    "proc/sys/net/ipv4/route/", "proc/sys/net/ipv6/", "proc/sys/net/ipv6/conf/", "proc/sys/net/ipv6/icmp/",
    "proc/sys/net/ipv6/neigh/", "proc/sys/net/ipv6/route/", "proc/sys/net/unix/", "proc/sys/vm/",
    "proc/driver/", "proc/net/", "proc/net/dev_snmp6/", "proc/net/ip6t_hashlimit/", "proc/net/ipt_hashlimit/",
    "proc/net/netfilter/", "proc/net/rpc/", "proc/net/stat/", "proc/net/vlan/",
]  # fmt: skip
KINDS = {
    "dbg-monitor.txt": "M", "media.conf": "C", "strace.log": "S", "netdump.cap": "N",
    "serverreport.txt": "R", "oopslog": "O", "kcore": "K",
}  # fmt: skip
READ_LIMIT = 102400  # bytes of a file of /proc that are stored
TRACE_SIZE, CAPTURE_SIZE = 204800, 512000
KCORE_LIMIT = 10485760  # a larger kernel core is not stored


@dataclasses.dataclass
class Member:
    path: str  # as in the header
    name: str  # without the top directory
    data: bytes
    header: bytes
    mtime: int


def header_of(path, size, mtime):
    """The 512-byte header of a member, built from the table of the ustar format."""
    header = bytearray(BLOCK)

    def set_field(offset, text):
        header[offset : offset + len(text)] = text

    set_field(0, path.encode("utf-8", "surrogateescape")[:100])
    set_field(100, b"0000644\0")
    set_field(108, b"0000100\0")
    set_field(116, b"0000100\0")
    set_field(124, b"%011o\0" % size)
    set_field(136, b"%011o\0" % mtime)
    set_field(148, b" " * 8)
    set_field(156, b"0")
    set_field(257, b"ustar\0  ")
    set_field(265, b"admin")
    set_field(297, b"admin")
    set_field(148, b"%06o\0 " % sum(header))
    return bytes(header)


def split_tar(stream):
    """The members of a stream, which must consist of whole members with their padding."""
    members = []
    offset = 0
    while offset < len(stream):
        header = stream[offset : offset + BLOCK]
        assert len(header) == BLOCK, f"a header of {len(header)} bytes at {offset}"
        path = header[:100].rstrip(b"\0").decode("utf-8", "surrogateescape")
        size, mtime = int(header[124:135], 8), int(header[136:147], 8)
        data = stream[offset + BLOCK : offset + BLOCK + size]
        offset += BLOCK + size + -size % BLOCK
        assert offset <= len(stream), f"{path} is cut off"
        padding = stream[offset - (-size % BLOCK) : offset]
        assert padding == bytes(len(padding)), f"the padding of {path} is not zero"
        members.append(Member(path, path.partition("/")[2], data, header, mtime))
    return members


def kind_of(name):
    if TIMESTAMPED.fullmatch(name):
        return "T"
    if name.startswith("proc/"):
        return "P"
    if found := re.fullmatch(r"[^/]*\.\d+/(core|fdmap)", name):
        return {"core": "D", "fdmap": "F"}[found[1]]
    return KINDS.get(name, "?")


def assert_snapshot(names):
    """A snapshot has one timestamp, which is returned, and its directories are in the fixed order."""
    timestamps = {found[1] for name in names if (found := TIMESTAMPED.fullmatch(name))}
    assert len(timestamps) == 1, timestamps
    order = [SNAPSHOT_DIRS.index(name[: name.rindex("/") + 1]) for name in names if kind_of(name) == "P"]
    assert order == sorted(order)
    return timestamps.pop()


def assert_whole(stream):
    """Checks everything that is true of an archive of any machine. Returns the members."""
    members = split_tar(stream)
    top = TOP.match(members[0].path)
    assert top, members[0].path
    assert [member.path for member in members if not member.path.startswith(top[0])] == []
    for member in members:
        assert member.header == header_of(member.path, len(member.data), member.mtime), member.path
    names = [member.name for member in members]
    kinds = "".join(map(kind_of, names))
    found = re.fullmatch(r"(M?C?)(T+P+)(SN)(R?O?K?)(T+P+)((?:DF?)*)", kinds)
    assert found, [name for name, kind in zip(names, kinds) if kind not in "TP"]
    first = assert_snapshot(names[found.start(2) : found.end(2)])
    second = assert_snapshot(names[found.start(5) : found.end(5)])
    assert top[1] <= first <= second
    sizes = {member.name: len(member.data) for member in members}
    assert sizes["strace.log"] == TRACE_SIZE
    assert sizes["netdump.cap"] == CAPTURE_SIZE
    assert 0 < sizes.get("kcore", 1) <= KCORE_LIMIT
    return members


def assert_compressed_whole(stream):
    """As assert_whole(), for a compressed archive, whose gzip header is fixed."""
    assert stream[:10] == b"\x1f\x8b\x08\0\0\0\0\0\0\x03"
    assert subprocess.run(["gzip", "-t"], input=stream, check=True, capture_output=True).stderr == b""
    return assert_whole(gzip.decompress(stream))


def archive_number(members):
    return int(TOP.match(members[0].path)[2])
