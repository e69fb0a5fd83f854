"""The debug archive, read by other programs and compared with what the machine reports itself."""

import gzip
import io
import os
import pathlib
import re
import subprocess
import tarfile
import time
import types
import zlib

import pytest

from support.answers import COMPRESSED_HEAD, PLAIN_HEAD, body_of
from support.archives import (
    KCORE_LIMIT, READ_LIMIT, SNAPSHOT_DIRS, TIMESTAMPED, TOP, archive_number, assert_compressed_whole,
    assert_whole, split_tar,
)  # fmt: skip
from support.daemon import Daemon

NEEDS_SANDBOX = True

MONITOR = pathlib.Path("/var/run/dbg-cgi/dbg-monitor.txt")
MONITOR_TEXT = b"pid 1 leaks nothing\n"
NOT_READ = {"kcore", "vmcore", "kmem", "kmsg"}


def readable_files(folder):
    """The names of the files of a folder that can be read now and are not empty."""
    names = set()
    for entry in os.scandir(folder):
        try:
            fd = os.open(entry.path, os.O_RDONLY | os.O_NONBLOCK)
        except OSError:
            continue
        try:
            if os.read(fd, 4096):
                names.add(entry.name)
        except OSError:
            pass
        finally:
            os.close(fd)
    return names


def readable_proc():
    """{folder: names of the readable files} for all folders of the snapshot."""
    found = {"/proc/": readable_files("/proc") - NOT_READ}
    for folder in SNAPSHOT_DIRS:
        if os.path.isdir("/" + folder):
            found["/" + folder] = readable_files("/" + folder)
    return found


@pytest.fixture(scope="module")
def taken(sandbox, tmp_path_factory):
    """A plain and then a compressed archive of one daemon, and the state of the machine before and after."""
    MONITOR.write_bytes(MONITOR_TEXT)
    daemon = Daemon(tmp_path_factory.mktemp("daemon"))
    seen = types.SimpleNamespace(before=time.time(), proc_before=readable_proc())
    seen.plain_answer = daemon.answer(b"/cgi-bin/debug.tar")
    seen.proc_after = readable_proc()
    seen.compressed_answer = daemon.answer(b"/cgi-bin/debug.tgz")
    seen.after = time.time()
    seen.monitor = {MONITOR_TEXT, MONITOR.read_bytes()}
    seen.switches = daemon.switches()
    daemon.stop()
    return seen


@pytest.fixture(scope="module")
def plain(taken):
    return body_of(taken.plain_answer, PLAIN_HEAD)


@pytest.fixture(scope="module")
def compressed(taken):
    return body_of(taken.compressed_answer, COMPRESSED_HEAD)


@pytest.fixture(scope="module")
def members(plain):
    return split_tar(plain)


def one(members, name):
    (member,) = [member for member in members if member.name == name]
    return member.data


def test_plain_head_is_exact(taken):
    assert taken.plain_answer.startswith(PLAIN_HEAD + b"debug-")


def test_compressed_head_is_exact_with_the_type_of_a_tar_file(taken):
    assert taken.compressed_answer.startswith(COMPRESSED_HEAD + b"\x1f\x8b")
    assert b"Content-Type: application/x-tar\r\n" in COMPRESSED_HEAD


def test_plain_archive_is_complete_and_in_the_fixed_order(plain):
    assert_whole(plain)


def test_compressed_archive_is_complete_and_in_the_fixed_order(compressed):
    assert_compressed_whole(compressed)


def test_every_member_of_the_device_is_stored(members):
    names = [member.name for member in members]
    once = ["dbg-monitor.txt", "media.conf", "strace.log", "netdump.cap", "serverreport.txt", "oopslog"]
    assert [name for name in names if name in once] == once


def test_gzip_trailer_has_checksum_and_length(compressed):
    inflate = zlib.decompressobj(wbits=-15)
    content = inflate.decompress(compressed[10:]) + inflate.flush()
    assert inflate.eof
    trailer = zlib.crc32(content).to_bytes(4, "little") + len(content).to_bytes(4, "little")
    assert inflate.unused_data == trailer


def test_archive_counter_starts_at_0_and_counts_both_kinds(plain, compressed):
    assert archive_number(split_tar(plain)) == 0
    assert archive_number(split_tar(gzip.decompress(compressed))) == 1


def test_top_directory_names_the_local_time_of_the_start(taken, members):
    timestamp = TOP.match(members[0].path)[1]
    first, last = (time.strftime("%Y%m%d-%H%M%S", time.localtime(t)) for t in (taken.before, taken.after))
    assert first <= timestamp <= last


def test_member_times_are_when_their_headers_are_written(taken, members):
    times = [member.mtime for member in members]
    assert times == sorted(times)
    assert int(taken.before) <= times[0] and times[-1] <= taken.after


def test_stream_ends_after_a_block_without_an_end_marker(plain, members):
    assert len(plain) % 512 == 0
    last = members[-1]
    assert plain.endswith(last.header + last.data + bytes(-len(last.data) % 512))


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_other_tar_programs_list_the_same_members(tool, plain, members):
    done = subprocess.run([tool, "-tf", "-"], input=plain, capture_output=True, check=True)
    assert done.stdout.decode().splitlines() == [member.path for member in members]
    assert done.stderr == b""


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_other_tar_programs_extract_the_same_bytes(tool, compressed):
    done = subprocess.run([tool, "-xzOf", "-"], input=compressed, capture_output=True, check=True)
    assert done.stdout == b"".join(member.data for member in split_tar(gzip.decompress(compressed)))
    assert done.stderr == b""


def test_python_reads_names_sizes_owners_and_data(compressed):
    ours = split_tar(gzip.decompress(compressed))
    with tarfile.open(fileobj=io.BytesIO(compressed), mode="r|gz") as archive:
        for member in ours:
            info = archive.next()
            assert (info.name, info.size, info.mtime) == (member.path, len(member.data), member.mtime)
            assert (info.uid, info.gid, info.uname, info.gname) == (0o100, 0o100, "admin", "admin")
            assert info.isreg() and info.mode == 0o644
            assert archive.extractfile(info).read() == member.data
        assert archive.next() is None


def test_status_of_the_monitor_is_stored(taken, members):
    assert one(members, "dbg-monitor.txt") in taken.monitor


def test_media_configuration_is_stored_unchanged(members):
    assert one(members, "media.conf") == pathlib.Path("/etc/ws/onvif/media/media.conf").read_bytes()


def test_server_report_is_the_output_of_its_program(members):
    report = one(members, "serverreport.txt").decode()
    again = subprocess.run(["/usr/sbin/gen_serverreport.sh"], capture_output=True, text=True, env={}).stdout
    heading = re.compile(r"^----- .* -----$", re.MULTILINE)
    assert heading.findall(report) == heading.findall(again) != []
    assert report.splitlines()[:4] == again.splitlines()[:4]


def test_oops_log_has_standard_output_and_error_of_its_program(members):
    words = ["/usr/sbin/oopslog", "-r", "/dev/part/oops"]
    again = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env={})
    assert one(members, "oopslog") == again.stdout != b""


def test_kernel_core_is_stored_only_if_it_is_small(members):
    try:
        size = os.stat("/proc/kcore").st_size
    except FileNotFoundError:
        size = 0
    stored = [len(member.data) for member in members if member.name == "kcore"]
    assert stored == ([size] if 0 < size <= KCORE_LIMIT else [])


def stored_in(members, folder):
    """Yields the names that were stored from `folder`, for each of the two snapshots."""
    middle = [member.name for member in members].index("strace.log")
    for half in (members[:middle], members[middle:]):
        prefix = folder.lstrip("/")
        names = {member.name for member in half}
        if folder == "/proc/":
            yield {name.partition("/")[2] for name in names if TIMESTAMPED.fullmatch(name)}
        else:
            yield {name[len(prefix) :] for name in names if name.rpartition("/")[0] + "/" == prefix}


def test_snapshots_have_exactly_the_readable_files(taken, members):
    for folder, before in taken.proc_before.items():
        after = taken.proc_after[folder]
        for stored in stored_in(members, folder):
            assert before & after <= stored, folder
            assert stored <= before | after, folder


def test_snapshots_have_the_contents_of_the_files(members):
    def stored(pattern):
        return [member.data for member in members if re.fullmatch(pattern, member.name)]

    for name in ("version", "filesystems"):
        assert stored(rf"proc\.[^/]*/{name}") == [pathlib.Path("/proc", name).read_bytes()] * 2
    assert stored("proc/sys/kernel/ostype") == [b"Linux\n"] * 2


def test_memory_images_and_the_kernel_log_are_not_read(members):
    assert [member.name for member in members if os.path.basename(member.name) in NOT_READ - {"kcore"}] == []


def test_long_files_are_truncated_at_the_limit(members):
    if len(pathlib.Path("/proc/kallsyms").read_bytes()) <= READ_LIMIT:
        pytest.skip(f"needs a /proc/kallsyms of more than {READ_LIMIT} bytes")
    stored = [member for member in members if re.fullmatch(r"proc\.[^/]*/kallsyms", member.name)]
    assert [len(member.data) for member in stored] == [READ_LIMIT] * 2


def test_watchdogs_are_off_while_an_archive_is_made(taken):
    assert taken.switches == "Set service watchdogs state: no\nSet service watchdogs state: yes\n" * 2
