"""Archives go on, whole, whatever /tmp and /proc do. Each daemon has mounts that nobody else sees."""

import os
import time

import pytest

from zarvo_e2e import (
    BIN, COMPRESSED_HEAD, KCORE_LIMIT, PATIENCE, PLAIN_HEAD, READ_BOUND, STAMPED,
    assert_compressed_whole, assert_whole, body_of, in_mount_namespace, split_tar,
)  # fmt: skip

NEEDS_SANDBOX = True

# The thread sanitizer keeps a file of its own in the folder for temporary files; it is not to fill /tmp.
ELSEWHERE = {"TMPDIR": "/run"}
READ_PATIENCE = 2   # seconds that one file may hold an archive


@pytest.fixture
def daemon_with(start):
    """A daemon after shell commands that change its mounts."""
    return lambda script: start(before=in_mount_namespace(script))


@pytest.fixture
def daemon_with_tmp(start, tmp_path):
    """A daemon whose /tmp is a tmpfs with the given options. Its programs may themselves lie below /tmp."""
    programs = tmp_path / "programs"
    programs.mkdir()

    def start_one(options, script=""):
        commands = f"mount --bind {BIN.parent} {programs}\nmount -t tmpfs -o {options} tmpfs /tmp\n{script}"
        program = str(programs / BIN.name / "debugar.cgi")
        return start(before=in_mount_namespace(commands), program=program, environment=ELSEWHERE)

    return start_one


def whole(daemon):
    return assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def named(members, name):
    return [member.data for member in members if member.name == name]


def snapshots_of(members, name):
    stamped = [member for member in members if STAMPED.fullmatch(member.name)]
    return [member.data for member in stamped if member.name.endswith("/" + name)]


def short_file():
    """A file of sysfs, which says 4096 bytes and gives a few, and what it gives."""
    path = "/sys/devices/system/cpu/online"
    with open(path, "rb") as file:
        content = file.read()
    assert os.stat(path).st_size == 4096 > len(content) > 0
    return path, content


@pytest.mark.parametrize("size", ["4k", "64k"])
def test_full_tmp_cuts_the_reports_and_no_more(daemon_with_tmp, size):
    daemon = daemon_with_tmp(f"size={size}", "dd if=/dev/zero of=/tmp/filler bs=4k 2>/dev/null || true")
    members = whole(daemon)
    assert named(members, "serverreport.txt") == named(members, "oopslog") == [b""]
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))


def test_tmp_that_fills_up_half_way_cuts_the_report(daemon_with_tmp, tmp_path):
    program = tmp_path / "report"
    program.write_text("#!/bin/sh\nwhile printf '%01000d' 7; do :; done 2>/dev/null\n")
    program.chmod(0o755)
    daemon = daemon_with_tmp("size=64k", f"mount --bind {program} /usr/sbin/gen_serverreport.sh")
    (report,) = named(whole(daemon), "serverreport.txt")
    assert 4096 <= len(report) <= 65536
    assert report.startswith(b"0" * 999 + b"7")


def test_tmp_without_room_for_names_leaves_the_reports_out(daemon_with_tmp):
    daemon = daemon_with_tmp("nr_inodes=1")
    members = whole(daemon)
    assert named(members, "serverreport.txt") + named(members, "oopslog") == []


def test_read_only_tmp_leaves_the_reports_out(daemon_with_tmp):
    daemon = daemon_with_tmp("ro")
    members = whole(daemon)
    assert named(members, "serverreport.txt") + named(members, "oopslog") == []
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))


def test_programs_that_are_missing_leave_their_error_as_report(daemon_with):
    daemon = daemon_with("mount -t tmpfs tmpfs /usr/sbin")
    members = whole(daemon)
    assert named(members, "serverreport.txt") == [b"execve: No such file or directory\n"]
    assert named(members, "oopslog") == [b"execve: No such file or directory\n"]


def test_proc_file_that_blocks_is_given_up_after_a_while(daemon_with, tmp_path):
    fifo = tmp_path / "blocks"
    os.mkfifo(fifo)
    writer = os.open(fifo, os.O_RDWR)  # as long as somebody could write, a reader waits
    covered = ["/proc/sys/kernel/ostype", "/proc/filesystems"]
    daemon = daemon_with("\n".join(f"mount --bind {fifo} {path}" for path in covered))
    begin = time.monotonic()
    members = whole(daemon)
    assert time.monotonic() - begin < 4 * READ_PATIENCE + PATIENCE
    assert named(members, "proc/sys/kernel/ostype") + snapshots_of(members, "filesystems") == []
    assert len(named(members, "proc/sys/kernel/osrelease")) == 2
    os.close(writer)


def test_bytes_that_a_blocking_file_gave_are_kept(daemon_with, tmp_path):
    fifo = tmp_path / "half"
    os.mkfifo(fifo)
    writer = os.open(fifo, os.O_RDWR)
    os.write(writer, b"half of it")
    daemon = daemon_with(f"mount --bind {fifo} /proc/filesystems")
    assert snapshots_of(whole(daemon), "filesystems") == [b"half of it"]
    os.close(writer)


def test_proc_file_that_is_longer_than_it_says_is_cut_at_the_bound(daemon_with):
    # Behind a size of 0 there is no end of zeros.
    daemon = daemon_with("mount --bind /dev/zero /proc/filesystems")
    assert snapshots_of(whole(daemon), "filesystems") == [bytes(READ_BOUND)] * 2


def test_proc_file_that_is_shorter_than_it_says_is_stored_as_read(daemon_with):
    source, content = short_file()
    daemon = daemon_with(f"mount --bind {source} /proc/filesystems")
    assert snapshots_of(whole(daemon), "filesystems") == [content] * 2


def test_proc_file_that_gives_an_io_error_is_left_out_and_reported(daemon_with):
    # Nothing is mapped at address 0 of any process.
    daemon = daemon_with("mount --bind /proc/1/mem /proc/filesystems")
    members = whole(daemon)
    assert snapshots_of(members, "filesystems") == []
    assert daemon.said().count("/proc/filesystems: Input/output error\n") == 2
    assert len(named(members, "proc/sys/kernel/ostype")) == 2


def test_proc_file_that_vanishes_is_left_out(daemon_with):
    daemon = daemon_with("sleep 99 &\nmount --bind /proc/$!/stat /proc/filesystems\nkill $!\nwait $! || true")
    members = whole(daemon)
    assert snapshots_of(members, "filesystems") == []
    assert daemon.said().count("/proc/filesystems: ") == 2
    assert len(named(members, "proc/sys/kernel/ostype")) == 2


def test_folder_in_a_files_place_is_passed_over_silently(daemon_with):
    daemon = daemon_with("mount -t tmpfs tmpfs /proc/sys/kernel\nmkdir /proc/sys/kernel/folder")
    members = whole(daemon)
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


def made_up_proc(folder, script):
    """Shell commands that cover /proc with a folder of files; what a process asks of itself stays."""
    real = folder / "proc"
    real.mkdir()
    return (
        f"mount --bind /proc {real}\nmount -t tmpfs tmpfs /proc\nln -s {real}/self /proc/self\n"
        "mkdir -p /proc/sys/kernel\necho made up > /proc/version\necho made up > /proc/sys/kernel/ostype\n"
        + script
    )


@pytest.mark.parametrize("size", [1, 511, 512, 513, KCORE_LIMIT])
def test_small_kernel_core_is_stored(daemon_with, tmp_path, size):
    core = tmp_path / "core"
    core.write_bytes(b"\x7f" * size)
    members = whole(daemon_with(made_up_proc(tmp_path, f"cp {core} /proc/kcore")))
    assert named(members, "kcore") == [core.read_bytes()]


@pytest.mark.parametrize("size", [0, KCORE_LIMIT + 1])
def test_empty_or_large_kernel_core_is_left_out(daemon_with, tmp_path, size):
    members = whole(daemon_with(made_up_proc(tmp_path, f"truncate -s {size} /proc/kcore")))
    assert named(members, "kcore") == []


def test_kernel_core_that_is_shorter_than_it_says_is_filled_with_zeros(daemon_with, tmp_path):
    source, content = short_file()
    promised = os.stat(source).st_size
    daemon = daemon_with(made_up_proc(tmp_path, f"touch /proc/kcore\nmount --bind {source} /proc/kcore"))
    stream = body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD)
    begin = stream.index(b"/kcore\0")
    begin += 512 - begin % 512
    # The padding to the next block is counted from what was copied, not from what was promised; deliberate.
    padding = bytes(promised - len(content)) + bytes(512 - len(content))
    assert stream[begin:].startswith(content + padding + b"debug-")


def test_made_up_files_are_stored_and_folders_and_links_to_them_passed_over(daemon_with, tmp_path):
    links = "mkdir /proc/folder\nln -s folder /proc/link\nln -s version /proc/again\n"
    script = links + ": > /proc/empty\necho k > /proc/kmsg"
    members = whole(daemon_with(made_up_proc(tmp_path, script)))
    stored = [member.name.partition("/")[2] for member in members if STAMPED.fullmatch(member.name)]
    assert sorted(stored) == ["again", "again", "version", "version"]
