"""cmd=rtrace in the browser: what is sampled, the programs that are started, browsers that leave."""

import itertools
import os
import pathlib
import random
import subprocess
import sys
import time

import pytest

from rtrace_records import (
    DISKINFO, DISKS_HEADING, EVENT, FILENR, GROUP, IOSTAT, MEMINFO, PELLORA, PIDSTAT, SMAPS, STATUS, count, read_until,
    split,
)  # fmt: skip
from zarvo_e2e import (
    PATIENCE, PLAIN_HEAD, SANITIZE, assert_whole, body_of, children_of, download_head, http_open,
    in_mount_namespace, process_stat, wait_for, without_trace_programs,
)  # fmt: skip

NEEDS_SANDBOX = True

SEED = 7
HEAD = download_head("application/octet-stream", "rtrace")
PROMPT = 20     # seconds within which a trace has to end on a busy machine
STUBBORN = 5                        # seconds that a program has for ending by itself


def trace_query(interval, *sources):
    return f"cmd=rtrace&interval={interval}&trace={','.join(sources)}".encode()


def records_until(browser, enough):
    return read_until(browser.near.recv, enough, HEAD)[0]


def last_sample_is_whole(records):
    return count(records, GROUP) >= 2


@pytest.fixture
def daemon(start):
    """A daemon whose traces have no output of programs among their records."""
    return start(before=without_trace_programs())


@pytest.fixture
def rest(daemon):
    """What the daemon must come back to, with none of its children left."""
    before = daemon.rest()
    yield before
    daemon.wait_for_rest(before)


@pytest.fixture
def with_programs(start, tmp_path):
    """Starts a daemon that finds the shell scripts of a dictionary as programs in /usr/bin."""

    def begin(scripts):
        folder = tmp_path / "programs"
        folder.mkdir()
        for name, text in scripts.items():
            (folder / name).write_text("#!/bin/sh\n" + text)
            (folder / name).chmod(0o755)
        script = f"mount -t overlay -o lowerdir={folder}:/usr/bin none /usr/bin"
        if subprocess.run([*in_mount_namespace(script), "true"], check=False, capture_output=True).returncode != 0:
            pytest.skip("needs overlayfs, to lay programs over /usr/bin")
        return start(before=in_mount_namespace(script))

    return begin


# Samples.


def test_one_file_is_what_the_kernel_says(daemon, rest):
    with daemon.ask(b"/x", trace_query(1000, "meminfo")) as browser:
        records = records_until(browser, lambda records: len(records) == 2)
    data, closing = records
    assert (data.type, data.more, closing.type, closing.more, closing.data) == (MEMINFO, 1, MEMINFO, 0, b"")
    lines = pathlib.Path("/proc/meminfo").read_bytes().splitlines()
    assert [line.split(b":")[0] for line in data.data.splitlines()] == [line.split(b":")[0] for line in lines]
    assert lines[0] in data.data.splitlines()  # the memory there is does not change
    assert abs(data.time_ms / 1000 - time.time()) < PATIENCE


def test_all_has_every_process_between_marks(daemon, rest):
    with daemon.ask(b"/x", trace_query(1000, "all")) as browser:
        records = records_until(browser, lambda records: count(records, DISKINFO) == 1)
    kinds = [record.type for record in records]
    assert (records[0].type, records[0].more) == (GROUP, 1)
    second = kinds.index(GROUP, 1)
    assert records[second].more == 0 and count(records, GROUP) == 2
    assert set(kinds[1:second]) == {SMAPS, STATUS}
    assert kinds[second + 1 :] == [FILENR, FILENR, MEMINFO, MEMINFO, DISKINFO]
    for kind in (SMAPS, STATUS):
        found = {record.pid for record in records if record.type == kind and record.more}
        assert {1, daemon.pid, os.getpid()} <= found <= {*range(1, 1 << 22)}
    status = next(record for record in records if record.type == STATUS and record.pid == daemon.pid)
    assert f"\nPid:\t{daemon.pid}\n".encode() in status.data
    smaps = [record for record in records if record.type == SMAPS and record.pid == daemon.pid]
    assert b"/zarvo\n" in smaps[0].data and smaps[0].data.count(b"\nRss:") > 10


def test_default_is_the_fast_sources(daemon, rest):
    with daemon.ask(b"/x", b"cmd=rtrace") as browser:
        records = records_until(browser, lambda records: count(records, DISKINFO) == 1)
    # The kernel has no smapstot, and no program prints anything.
    assert [record.type for record in records] == [FILENR, FILENR, MEMINFO, MEMINFO, DISKINFO]


def test_disks_are_as_df_sees_them(daemon, rest):
    with daemon.ask(b"/x", trace_query(1000, "diskinfo")) as browser:
        (record,) = records_until(browser, lambda records: len(records) == 1)
    assert record.more == 0 and record.data.startswith(DISKS_HEADING)
    found = {}
    for line in record.data[len(DISKS_HEADING) :].decode().splitlines():
        source, used, available, folder = line.split("\t")
        found[folder] = (source.rstrip(), int(used), int(available))
    sizes = os.statvfs("/run")
    source, used, available = found["/run"]
    total = (sizes.f_blocks * sizes.f_frsize) % (1 << 32) // 1024
    assert source == "sandbox" and abs((used + available) % (1 << 22) - total) < 64
    assert "/proc" in found


def test_samples_come_at_their_interval(daemon, rest):
    with daemon.ask(b"/x", trace_query(1, "filenr")) as browser:
        records = records_until(browser, lambda records: len(records) == 6)
    times = [record.time_ms for record in records if record.more]
    assert all(later - earlier >= 990 for earlier, later in zip(times, times[1:]))


@pytest.mark.parametrize("interval", ["0", "-1", "-2147483648", "text", "", "2147483647", "99999999999999999999", "1x"])
def test_odd_intervals_sample_and_end_with_their_browser(daemon, rest, interval):
    with daemon.ask(b"/x", trace_query(interval, "meminfo")) as browser:
        assert count(records_until(browser, lambda records: len(records) >= 2), MEMINFO) >= 2
    left = time.monotonic()
    daemon.wait_for_rest(rest)
    assert time.monotonic() - left < PROMPT


def test_programs_with_a_negative_interval_are_one_sample(daemon, rest):
    records = split(body_of(daemon.answer(b"/x", trace_query(-1, "meminfo", "event")), HEAD))
    assert [(record.type, record.more) for record in records] == [(MEMINFO, 1), (MEMINFO, 0)]


def test_unknown_sources_are_ignored(daemon, rest):
    with daemon.ask(b"/x", trace_query(1000, "bogus", "%20meminfo", "x" * 40, "")) as browser:
        assert count(records_until(browser, lambda records: len(records) == 2), MEMINFO) == 2


# Mounts five file systems whose server never answers and then one that is well, where only this process and what
# it executes see them.
MUTE_MOUNT = """
import ctypes, os, stat, sys
libc = ctypes.CDLL(None, use_errno=True)
folder = sys.argv[1]

def call(result):
    if result != 0:
        sys.exit(f"refused: {os.strerror(ctypes.get_errno())}")

def mount(source, target, kind, flags, data):
    call(libc.mount(source, target.encode(), kind, flags, data))

CLONE_NEWNS, MS_REC, MS_PRIVATE = 0x20000, 16384, 1 << 18
call(libc.unshare(CLONE_NEWNS))
mount(None, "/", None, MS_REC | MS_PRIVATE, None)
mount(b"devices", folder, b"tmpfs", 0, None)
os.mknod(folder + "/fuse", stat.S_IFCHR | 0o600, os.makedev(10, 229))
for number in range(5):
    os.mkdir(f"{folder}/mute{number}")
    server = os.open(folder + "/fuse", os.O_RDWR)
    os.set_inheritable(server, True)
    mount(b"mute", f"{folder}/mute{number}", b"fuse", 0, f"fd={server},rootmode=40000,user_id=0,group_id=0".encode())
os.mkdir(folder + "/well")
mount(b"well", folder + "/well", b"tmpfs", 0, None)
if sys.argv[2:]:
    os.execv(sys.argv[2], sys.argv[2:])
"""


def test_mounts_that_hang_are_left_out_and_hold_nobody(start, tmp_path):
    wrapped = [sys.executable, "-c", MUTE_MOUNT, str(tmp_path)]
    tried = subprocess.run(wrapped, check=False, capture_output=True, text=True)
    if tried.returncode != 0:
        pytest.skip(f"needs a FUSE mount: {tried.stderr.splitlines()[-1]}")
    # The daemon's own files would be hidden below the mount.
    daemon = start(before=wrapped)
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(1, "diskinfo")) as browser:
        records = records_until(browser, lambda records: len(records) == 4)
    for record in records:
        assert b"\t/run\n" in record.data and f"\t{tmp_path}/well\n".encode() in record.data
        assert b"mute" not in record.data
    # Asking them once more would cost half a second each time; a machine that is busy may be late now and then.
    gaps = [after.time_ms - before.time_ms for before, after in itertools.pairwise(records)]
    assert min(gaps) < 1500
    wait_for(lambda: len(os.listdir(f"/proc/{daemon.pid}/task")) == rest["threads"] + 5, "one asker for each is left")
    with daemon.ask(b"/x", trace_query(1, "diskinfo")) as browser:
        records_until(browser, lambda records: len(records) == 1)
    wait_for(lambda: len(os.listdir(f"/proc/{daemon.pid}/task")) == rest["threads"] + 5, "and no other")


# Programs.


def test_programs_are_started_and_their_output_recorded(with_programs):
    say = 'echo "$0 $*"; exec sleep 1000\n'
    daemon = with_programs({"iostat": say, "eventlistener": say, "pidstat": say})
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(1, "iostat", "event", "pidstat")) as browser:
        records = records_until(browser, lambda records: len(records) == 3)
        assert sorted((record.type, record.data) for record in records) == [
            (IOSTAT, b"/usr/bin/iostat -xcdk 1\n"),
            (EVENT, b"/usr/bin/eventlistener -s -r\n"),
            (PIDSTAT, b"/usr/bin/pidstat 1\n"),
        ]
        assert len(children_of(daemon.pid)) == 3
    daemon.wait_for_rest(rest)


def test_media_server_gets_its_three_variables(with_programs):
    daemon = with_programs({"pellora": "tr '\\0' '\\n' < /proc/$$/environ; exec sleep 1000\n"})
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(1, "pellora")) as browser:
        (record,) = records_until(browser, lambda records: len(records) == 1)
    assert record.type == PELLORA
    assert record.data == b"GSTTL_LOG_NAME=-\nGSTTL_SHOW=gap\nLD_PRELOAD=/tmp/libgsttracelib.so\n"
    daemon.wait_for_rest(rest)


def test_programs_end_when_the_browser_goes_whatever_the_interval(with_programs):
    daemon = with_programs({name: "exec sleep 1000\n" for name in ("iostat", "eventlistener", "pidstat")})
    rest = daemon.rest()
    for interval in (1, 2147483647):
        with daemon.ask(b"/x", trace_query(interval, "iostat", "event", "pidstat", "meminfo")) as browser:
            records_until(browser, lambda records: len(records) >= 2)
            wait_for(lambda: len(children_of(daemon.pid)) == 3, "started")
        wait_for(lambda: children_of(daemon.pid) == [], lambda: children_of(daemon.pid), PROMPT)
        daemon.wait_for_rest(rest)


def test_program_that_ignores_sigterm_is_killed(with_programs):
    daemon = with_programs({"pidstat": "trap '' TERM; echo up; while :; do sleep 0.1; done\n"})
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(1, "pidstat")) as browser:
        records_until(browser, lambda records: len(records) == 1)
        ((child, _),) = children_of(daemon.pid)
    left = time.monotonic()
    wait_for(lambda: process_stat(child) is None, "killed")
    assert STUBBORN - 0.5 < time.monotonic() - left < STUBBORN + 2 + PROMPT
    daemon.wait_for_rest(rest)


def test_programs_that_flood_exit_or_say_nothing_are_no_trouble(with_programs):
    daemon = with_programs({
        "iostat": "exit 3\n", "eventlistener": "exec sleep 1000\n",
        "pidstat": "head -c 1048576 /dev/zero; exec sleep 1000\n",
    })  # fmt: skip
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(0, "iostat", "event", "pidstat")) as browser:
        records = records_until(
            browser, lambda records: sum(len(record.data) for record in records) >= 1048576
        )
    assert {record.type for record in records} == {PIDSTAT}
    assert all(len(record.data) <= 204799 and not record.more for record in records)
    daemon.wait_for_rest(rest)


def test_program_that_ended_early_is_reaped_with_the_trace(with_programs):
    daemon = with_programs({"pidstat": "echo bye\n"})
    rest = daemon.rest()
    with daemon.ask(b"/x", trace_query(1, "pidstat")) as browser:
        records_until(browser, lambda records: len(records) == 1)
        wait_for(lambda: [state for _, state in children_of(daemon.pid)] == ["Z"], lambda: children_of(daemon.pid))
    daemon.wait_for_rest(rest)


# Browsers.


def test_browsers_that_leave_at_any_moment_harm_nobody(daemon, rest):
    rng = random.Random(SEED)
    for number in range(100 if not SANITIZE else 30):
        sources = rng.choice([["all"], ["fast"], ["meminfo"], ["smaps", "status"]])
        with daemon.ask(b"/x", trace_query(rng.choice([0, 1, -1]), *sources), tcp=number % 2 == 1) as browser:
            browser.read(rng.randrange(len(HEAD) + 1000))  # which is less than any sample has


def test_browser_that_reads_slowly_gets_every_byte(daemon, rest):
    with daemon.ask(b"/x", trace_query(1000, "smaps", "status"), tcp=True, room=4096) as browser:
        stream = b""

        def receive(_):
            time.sleep(0.001)
            return browser.near.recv(3000)

        records, _ = read_until(receive, last_sample_is_whole, HEAD)
    assert daemon.pid in {record.pid for record in records}


def test_two_traces_and_an_archive_at_once(daemon, rest):
    with daemon.ask(b"/x", trace_query(0, "meminfo")) as one, daemon.ask(b"/x", trace_query(1, "status")) as other:
        records_until(other, last_sample_is_whole)
        answer = daemon.ask(b"/x/debug.tar")
        # Nobody reads the first trace meanwhile, which holds nobody else up.
        assert_whole(body_of(answer.read_all(), PLAIN_HEAD))
        records_until(one, lambda records: len(records) > 10)


def test_trace_takes_little_memory(daemon, rest):
    if SANITIZE:
        pytest.skip("a sanitizer takes memory of its own")
    before = daemon.resident_kb()
    with daemon.ask(b"/x", trace_query(0, "all")) as browser:
        records_until(browser, lambda records: count(records, GROUP) >= 20)
        during = daemon.resident_kb()
    assert during - before < 1024


def test_trace_over_http(base_url):
    with http_open(base_url, "/debugar.cgi?cmd=rtrace&interval=1&trace=meminfo,filenr") as client:
        records, _ = read_until(client.recv, lambda records: len(records) >= 8, HEAD)
    assert [record.type for record in records[:4]] == [FILENR, FILENR, MEMINFO, MEMINFO]
