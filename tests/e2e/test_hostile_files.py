"""Archives are complete whatever is wrong with /tmp and /proc. Each daemon has mounts of its own."""

import os
import re
import time

import pytest

from support.answers import COMPRESSED_HEAD, PLAIN_HEAD, body_of
from support.archives import (
    KCORE_LIMIT, READ_LIMIT, TIMESTAMPED, assert_compressed_whole, assert_whole, split_tar,
)  # fmt: skip
from support.processes import in_mount_namespace
from support.under_test import BIN
from support.waiting import PATIENCE

NEEDS_SANDBOX = True

# The thread sanitizer has a temporary file of its own, which must not fill /tmp.
ELSEWHERE = {"TMPDIR": "/run"}
READ_LIMIT_S = 2  # seconds that one file may delay an archive


@pytest.fixture
def daemon_with(start):
    """Starts a daemon after shell commands that change its mounts."""
    return lambda script: start(before=in_mount_namespace(script))


@pytest.fixture
def daemon_with_tmp(start, tmp_path):
    """Starts a daemon whose /tmp is a tmpfs. The programs are mounted elsewhere first: it may hide the build."""
    programs = tmp_path / "programs"
    programs.mkdir()

    def start_one(options, script=""):
        commands = f"mount --bind {BIN.parent} {programs}\nmount -t tmpfs -o {options} tmpfs /tmp\n{script}"
        program = str(programs / BIN.name / "debugar.cgi")
        return start(before=in_mount_namespace(commands), program=program, environment=ELSEWHERE)

    return start_one


def archive_of(daemon):
    """The members of a complete archive."""
    return assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def named(members, name):
    return [member.data for member in members if member.name == name]


def snapshots_of(members, name):
    stamped = [member for member in members if TIMESTAMPED.fullmatch(member.name)]
    return [member.data for member in stamped if member.name.endswith("/" + name)]


def short_file():
    """A file of sysfs, whose size claims to be 4096 bytes, and its short content."""
    path = "/sys/devices/system/cpu/online"
    with open(path, "rb") as file:
        content = file.read()
    assert os.stat(path).st_size == 4096 > len(content) > 0
    return path, content


@pytest.mark.parametrize("size", ["4k", "64k"])
def test_full_tmp_truncates_only_the_reports(daemon_with_tmp, size):
    daemon = daemon_with_tmp(f"size={size}", "dd if=/dev/zero of=/tmp/filler bs=4k 2>/dev/null || true")
    members = archive_of(daemon)
    assert named(members, "serverreport.txt") == named(members, "oopslog") == [b""]
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))


def test_tmp_that_fills_up_truncates_the_report(daemon_with_tmp, tmp_path):
    program = tmp_path / "report"
    program.write_text("#!/bin/sh\nwhile printf '%01000d' 7; do :; done 2>/dev/null\n")
    program.chmod(0o755)
    daemon = daemon_with_tmp("size=64k", f"mount --bind {program} /usr/sbin/gen_serverreport.sh")
    (report,) = named(archive_of(daemon), "serverreport.txt")
    assert 4096 <= len(report) <= 65536
    assert report.startswith(b"0" * 999 + b"7")


def test_reports_are_left_out_if_tmp_has_no_inodes(daemon_with_tmp):
    daemon = daemon_with_tmp("nr_inodes=1")
    members = archive_of(daemon)
    assert named(members, "serverreport.txt") + named(members, "oopslog") == []


def test_reports_are_left_out_if_tmp_is_read_only(daemon_with_tmp):
    daemon = daemon_with_tmp("ro")
    members = archive_of(daemon)
    assert named(members, "serverreport.txt") + named(members, "oopslog") == []
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))


def test_missing_program_is_reported_in_its_member(daemon_with):
    daemon = daemon_with("mount -t tmpfs tmpfs /usr/sbin")
    members = archive_of(daemon)
    assert named(members, "serverreport.txt") == [b"execve: No such file or directory\n"]
    assert named(members, "oopslog") == [b"execve: No such file or directory\n"]


def test_blocking_proc_file_is_left_out_after_a_timeout(daemon_with, tmp_path):
    fifo = tmp_path / "blocks"
    os.mkfifo(fifo)
    writer = os.open(fifo, os.O_RDWR)  # a FIFO that has a writer blocks its reader
    covered = ["/proc/sys/kernel/ostype", "/proc/filesystems"]
    daemon = daemon_with("\n".join(f"mount --bind {fifo} {path}" for path in covered))
    begin = time.monotonic()
    members = archive_of(daemon)
    assert time.monotonic() - begin < 4 * READ_LIMIT_S + PATIENCE
    assert named(members, "proc/sys/kernel/ostype") + snapshots_of(members, "filesystems") == []
    assert len(named(members, "proc/sys/kernel/osrelease")) == 2
    os.close(writer)


def test_bytes_read_before_a_file_blocks_are_kept(daemon_with, tmp_path):
    fifo = tmp_path / "half"
    os.mkfifo(fifo)
    writer = os.open(fifo, os.O_RDWR)
    os.write(writer, b"half of it")
    daemon = daemon_with(f"mount --bind {fifo} /proc/filesystems")
    assert snapshots_of(archive_of(daemon), "filesystems") == [b"half of it"]
    os.close(writer)


def test_endless_proc_file_is_truncated_at_the_limit(daemon_with):
    daemon = daemon_with("mount --bind /dev/zero /proc/filesystems")
    assert snapshots_of(archive_of(daemon), "filesystems") == [bytes(READ_LIMIT)] * 2


def test_proc_file_shorter_than_its_size_is_stored_as_read(daemon_with):
    source, content = short_file()
    daemon = daemon_with(f"mount --bind {source} /proc/filesystems")
    assert snapshots_of(archive_of(daemon), "filesystems") == [content] * 2


def test_proc_file_with_an_io_error_is_left_out_and_reported(daemon_with):
    # Reading fails: no process has memory at address 0.
    daemon = daemon_with("mount --bind /proc/1/mem /proc/filesystems")
    members = archive_of(daemon)
    assert snapshots_of(members, "filesystems") == []
    assert daemon.said().count("/proc/filesystems: Input/output error\n") == 2
    assert len(named(members, "proc/sys/kernel/ostype")) == 2


def test_proc_file_that_vanishes_is_left_out(daemon_with):
    daemon = daemon_with("sleep 99 &\nmount --bind /proc/$!/stat /proc/filesystems\nkill $!\nwait $! || true")
    members = archive_of(daemon)
    assert snapshots_of(members, "filesystems") == []
    assert daemon.said().count("/proc/filesystems: ") == 2
    assert len(named(members, "proc/sys/kernel/ostype")) == 2


def test_folder_among_the_files_is_skipped_silently(daemon_with):
    daemon = daemon_with("mount -t tmpfs tmpfs /proc/sys/kernel\nmkdir /proc/sys/kernel/folder")
    members = archive_of(daemon)
    assert [member.name for member in members if member.name.startswith("proc/sys/kernel/")] == []
    assert "/proc/sys/kernel/" not in daemon.said()


def test_odd_names_are_stored_and_shortened_to_99_bytes(daemon_with):
    long_name = "n" * 150
    daemon = daemon_with(
        f"mount -t tmpfs tmpfs /proc/sys/kernel\necho long > /proc/sys/kernel/{long_name}\n"
        "printf 'blank\\n' > '/proc/sys/kernel/a b'"
    )
    answer = body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD)
    members = split_tar(answer)
    assert named(members, "proc/sys/kernel/a b") == [b"blank\n"] * 2
    cut = [member for member in members if "/proc/sys/kernel/nnn" in member.path]
    assert [(len(member.path), member.data) for member in cut] == [(99, b"long\n")] * 2


def fake_proc(folder, script):
    """Shell commands that mount a folder of files over /proc. /proc/self stays."""
    real = folder / "proc"
    real.mkdir()
    return (
        f"mount --bind /proc {real}\nmount -t tmpfs tmpfs /proc\nln -s {real}/self /proc/self\n"
        "mkdir -p /proc/sys/kernel\necho fake > /proc/version\necho fake > /proc/sys/kernel/ostype\n"
        + script
    )


@pytest.mark.parametrize("size", [1, 511, 512, 513, KCORE_LIMIT])
def test_small_kernel_core_is_stored(daemon_with, tmp_path, size):
    core = tmp_path / "core"
    core.write_bytes(b"\x7f" * size)
    members = archive_of(daemon_with(fake_proc(tmp_path, f"cp {core} /proc/kcore")))
    assert named(members, "kcore") == [core.read_bytes()]


@pytest.mark.parametrize("size", [0, KCORE_LIMIT + 1])
def test_empty_or_large_kernel_core_is_left_out(daemon_with, tmp_path, size):
    members = archive_of(daemon_with(fake_proc(tmp_path, f"truncate -s {size} /proc/kcore")))
    assert named(members, "kcore") == []


def test_kernel_core_shorter_than_its_size_is_padded_with_zeros(daemon_with, tmp_path):
    source, content = short_file()
    announced = os.stat(source).st_size
    daemon = daemon_with(fake_proc(tmp_path, f"touch /proc/kcore\nmount --bind {source} /proc/kcore"))
    stream = body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD)
    begin = re.search(rb"debug-[\w-]+/kcore\0", stream).start() + 512
    # On purpose, the padding to the next block is computed from the copied bytes, not from the announced
    # size.
    padding = bytes(announced - len(content)) + bytes(512 - len(content))
    assert stream[begin:].startswith(content + padding + b"debug-")


def test_links_to_files_are_stored_and_links_to_folders_skipped(daemon_with, tmp_path):
    links = "mkdir /proc/folder\nln -s folder /proc/link\nln -s version /proc/again\n"
    script = links + ": > /proc/empty\necho k > /proc/kmsg"
    members = archive_of(daemon_with(fake_proc(tmp_path, script)))
    stored = [member.name.partition("/")[2] for member in members if TIMESTAMPED.fullmatch(member.name)]
    assert sorted(stored) == ["again", "again", "version", "version"]
