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
FULL_KINDS = {"system.txt": "Y", "dmesg.txt": "G", "processes.txt": "X", "manifest.txt": "Z"}
PROCESS_FILE = re.compile(
    r"processes\.(?P<stamp>\d{8}-\d{6})/(?P<pid>\d+)/(?P<file>stat|status|cmdline|maps|limits|wchan|syscall|stack|io|"
    r"cgroup|links|task/\d+/(stat|status|wchan))"
)
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
    if PROCESS_FILE.fullmatch(name):
        return "Q"
    return (KINDS | FULL_KINDS).get(name, "?")


def assert_snapshot(names):
    """A snapshot has one timestamp, which is returned, and its directories are in the fixed order."""
    timestamps = {found[1] for name in names if (found := TIMESTAMPED.fullmatch(name))}
    assert len(timestamps) == 1, timestamps
    order = [SNAPSHOT_DIRS.index(name[: name.rindex("/") + 1]) for name in names if kind_of(name) == "P"]
    assert order == sorted(order)
    return timestamps.pop()


def members_with_right_headers(stream):
    """The members, all below one top directory, and that directory's timestamp."""
    members = split_tar(stream)
    top = TOP.match(members[0].path)
    assert top, members[0].path
    assert [member.path for member in members if not member.path.startswith(top[0])] == []
    for member in members:
        assert member.header == header_of(member.path, len(member.data), member.mtime), member.path
    return members, top[1]


def match_kinds(pattern, names):
    kinds = "".join(map(kind_of, names))
    found = re.fullmatch(pattern, kinds)
    assert found, [name for name, kind in zip(names, kinds) if kind not in "TPQ"]
    return found


def assert_sizes(members):
    sizes = {member.name: len(member.data) for member in members}
    assert sizes["strace.log"] == TRACE_SIZE
    assert sizes["netdump.cap"] == CAPTURE_SIZE
    assert 0 < sizes.get("kcore", 1) <= KCORE_LIMIT


def assert_whole(stream):
    """Checks everything that is true of a usual archive of any machine. Returns the members."""
    members, began = members_with_right_headers(stream)
    names = [member.name for member in members]
    found = match_kinds(r"(M?C?)(?P<first>T+P+)(SN)(R?O?K?)(?P<second>T+P+)((?:DF?)*)", names)
    first = assert_snapshot(names[found.start("first") : found.end("first")])
    second = assert_snapshot(names[found.start("second") : found.end("second")])
    assert began <= first <= second
    assert_sizes(members)
    return members


def process_look(names):
    """The timestamp of a look at the processes. The files of each process are together."""
    found = [PROCESS_FILE.fullmatch(name) for name in names]
    assert len({one["stamp"] for one in found}) == 1
    pids = [int(one["pid"]) for one in found]
    changes = [pid for pid, before in zip(pids, [None, *pids]) if pid != before]
    assert len(changes) == len(set(changes)) > 0
    return found[0]["stamp"]


@dataclasses.dataclass
class Manifest:
    sizes: list  # (name, bytes) of each member, in order
    seconds: dict  # by name; the last one of several members of that name
    errors: dict  # the text of the last error, by name


MANIFEST_MEMBER = re.compile(r" *(\d+) +(\d+\.\d{6})  (.+)")
MANIFEST_ERROR = re.compile(r" +error +([^ ].*?): (.+)")
CLOCK = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d [+-]\d{4}"


def read_manifest(text):
    """Reads a manifest whose list is whole."""
    lines = text.decode().splitlines()
    assert text.endswith(b"\ncomplete\n")
    assert re.fullmatch(r"zarvo [\d.]+", lines[0])
    assert re.fullmatch(f"started {CLOCK}", lines[1])
    assert lines[2].split() == ["bytes", "seconds", "member"]
    assert re.fullmatch(f"ended {CLOCK}", lines[-3])
    manifest = Manifest([], {}, {})
    for line in lines[3:-3]:
        if error := MANIFEST_ERROR.fullmatch(line):
            manifest.errors[error[1]] = error[2]
            continue
        found = MANIFEST_MEMBER.fullmatch(line)
        assert found, line
        manifest.sizes.append((found[3], int(found[1])))
        manifest.seconds[found[3]] = float(found[2])
    total = sum(size for _, size in manifest.sizes)
    errors = sum(bool(MANIFEST_ERROR.fullmatch(line)) for line in lines)
    assert lines[-2] == f"members: {len(manifest.sizes)}, bytes: {total}, errors: {errors}"
    return manifest


def assert_full_whole(stream):
    """As assert_whole(), for a full archive. Returns the members and the manifest."""
    members, began = members_with_right_headers(stream)
    names = [member.name for member in members]
    found = match_kinds(
        r"(M?C?)(YG?)(?P<look1>Q+)(?P<first>T+P+)(SN)(R?O?K?)(?P<second>T+P+)(?P<look2>Q+)X((?:DF?)*)Z", names
    )
    steps = [found.span(part) for part in ("look1", "first", "second", "look2")]
    check = [process_look, assert_snapshot, assert_snapshot, process_look]
    stamps = [one(names[begin:end]) for one, (begin, end) in zip(check, steps)]
    assert [began, *stamps] == sorted([began, *stamps])
    assert_sizes(members)
    manifest = read_manifest(members[-1].data)
    assert manifest.sizes == [(member.name, len(member.data)) for member in members[:-1]]
    return members, manifest


def unpacked(stream):
    """The content of a compressed archive, whose gzip header is fixed."""
    assert stream[:10] == b"\x1f\x8b\x08\0\0\0\0\0\0\x03"
    assert subprocess.run(["gzip", "-t"], input=stream, check=True, capture_output=True).stderr == b""
    return gzip.decompress(stream)


def assert_compressed_whole(stream):
    """As assert_whole(), for a compressed archive."""
    return assert_whole(unpacked(stream))


def archive_number(members):
    return int(TOP.match(members[0].path)[2])
