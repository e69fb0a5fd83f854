"""cmd=rtrace: what it samples, the programs that it starts, and browsers that leave."""

import itertools
import os
import pathlib
import random
import subprocess
import sys
import time

import pytest

from support.answers import PLAIN_HEAD, body_of, download_head
from support.archives import assert_whole
from support.connections import SMALL_BUFFER
from support.processes import (
    children_of, in_mount_namespace, process_stat, threads_of, without_trace_programs,
)  # fmt: skip
from support.rtrace_records import (
    DISKINFO, DISKS_HEADING, EVENT, FILENR, GROUP, IOSTAT, MEMINFO, PELLORA, PIDSTAT, SMAPS, STATUS, count,
    read_until, split,
)  # fmt: skip
from support.under_test import SANITIZE
from support.waiting import PATIENCE, wait_for
from support.web import http_open

NEEDS_SANDBOX = True

SEED = 7
HEAD = download_head("application/octet-stream", "rtrace")
PROMPT = 20  # seconds within which a trace has to end on a busy machine
GRACE = 5  # seconds after SIGTERM until a program is killed


def trace_query(interval, *sources):
    return f"cmd=rtrace&interval={interval}&trace={','.join(sources)}".encode()


def records_until(browser, enough):
    return read_until(browser.near.recv, enough, HEAD)[0]


def has_all_processes(records):
    return count(records, GROUP) >= 2


@pytest.fixture
def daemon(start):
    """A daemon whose traces have no output of programs."""
    return start(before=without_trace_programs())


@pytest.fixture
def with_programs(start, tmp_path):
    """Starts a daemon that has some shell scripts, {name: text}, as programs in /usr/bin."""

    def begin(scripts):
        folder = tmp_path / "programs"
        folder.mkdir()
        for name, text in scripts.items():
            (folder / name).write_text("#!/bin/sh\n" + text)
            (folder / name).chmod(0o755)
        script = f"mount -t overlay -o lowerdir={folder}:/usr/bin none /usr/bin"
        if subprocess.run([*in_mount_namespace(script), "true"], check=False, capture_output=True).returncode != 0:
            pytest.skip("needs overlayfs, to put programs into /usr/bin")
        return start(before=in_mount_namespace(script))

    return begin


# Samples.


def test_sample_of_a_file_has_its_content(daemon, idle):
    with daemon.ask(b"/x", trace_query(1000, "meminfo")) as browser:
        records = records_until(browser, lambda records: len(records) == 2)
    data, closing = records
    assert (data.type, data.more, closing.type, closing.more, closing.data) == (MEMINFO, 1, MEMINFO, 0, b"")
    lines = pathlib.Path("/proc/meminfo").read_bytes().splitlines()
    assert [line.split(b":")[0] for line in data.data.splitlines()] == [line.split(b":")[0] for line in lines]
    assert lines[0] in data.data.splitlines()  # the total does not change
    assert abs(data.time_ms / 1000 - time.time()) < PATIENCE


def test_sample_of_all_has_every_process_between_two_marks(daemon, idle):
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


def test_fast_sources_are_the_default(daemon, idle):
    with daemon.ask(b"/x", b"cmd=rtrace") as browser:
        records = records_until(browser, lambda records: count(records, DISKINFO) == 1)
    # The kernel has no smapstot, and no program can be started.
    assert [record.type for record in records] == [FILENR, FILENR, MEMINFO, MEMINFO, DISKINFO]


def test_disks_have_the_sizes_of_statvfs(daemon, idle):
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


def test_samples_are_an_interval_apart(daemon, idle):
    with daemon.ask(b"/x", trace_query(1, "filenr")) as browser:
        records = records_until(browser, lambda records: len(records) == 6)
    times = [record.time_ms for record in records if record.more]
    assert all(later - earlier >= 990 for earlier, later in zip(times, times[1:]))


@pytest.mark.parametrize("interval", ["0", "-1", "-2147483648", "text", "", "2147483647", "99999999999999999999", "1x"])
def test_trace_with_an_odd_interval_samples_and_ends_with_its_browser(daemon, idle, interval):
    with daemon.ask(b"/x", trace_query(interval, "meminfo")) as browser:
        assert count(records_until(browser, lambda records: len(records) >= 2), MEMINFO) >= 2
    left = time.monotonic()
    daemon.wait_until_idle(idle)
    assert time.monotonic() - left < PROMPT


def test_negative_interval_with_a_program_gives_one_sample(daemon, idle):
    records = split(body_of(daemon.answer(b"/x", trace_query(-1, "meminfo", "event")), HEAD))
    assert [(record.type, record.more) for record in records] == [(MEMINFO, 1), (MEMINFO, 0)]


def test_unknown_sources_are_ignored(daemon, idle):
    with daemon.ask(b"/x", trace_query(1000, "bogus", "%20meminfo", "x" * 40, "")) as browser:
        assert count(records_until(browser, lambda records: len(records) == 2), MEMINFO) == 2


# Mounts five file systems whose servers never answer, and then a working one. Only this process, and the
# program that it executes, see them.
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
os.mkdir(folder + "/working")
mount(b"working", folder + "/working", b"tmpfs", 0, None)
if sys.argv[2:]:
    os.execv(sys.argv[2], sys.argv[2:])
"""


def test_hanging_mounts_are_left_out_and_delay_nothing(start, tmp_path):
    wrapped = [sys.executable, "-c", MUTE_MOUNT, str(tmp_path)]
    tried = subprocess.run(wrapped, check=False, capture_output=True, text=True)
    if tried.returncode != 0:
        pytest.skip(f"needs a FUSE mount: {tried.stderr.splitlines()[-1]}")
    daemon = start(before=wrapped)
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(1, "diskinfo")) as browser:
        records = records_until(browser, lambda records: len(records) == 4)
    for record in records:
        assert b"\t/run\n" in record.data and f"\t{tmp_path}/working\n".encode() in record.data
        assert b"mute" not in record.data
    # Asking them again would cost half a second each time. The shortest gap counts, because a busy machine
    # may be late.
    gaps = [after.time_ms - before.time_ms for before, after in itertools.pairwise(records)]
    assert min(gaps) < 1500
    wait_for(lambda: len(threads_of(daemon.pid)) == idle["threads"] + 5, "one blocked thread for each")
    with daemon.ask(b"/x", trace_query(1, "diskinfo")) as browser:
        records_until(browser, lambda records: len(records) == 1)
    wait_for(lambda: len(threads_of(daemon.pid)) == idle["threads"] + 5, "no further threads")


# Programs.


def test_programs_are_started_and_their_output_is_recorded(with_programs):
    script = 'echo "$0 $*"; exec sleep 1000\n'
    daemon = with_programs({"iostat": script, "eventlistener": script, "pidstat": script})
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(1, "iostat", "event", "pidstat")) as browser:
        records = records_until(browser, lambda records: len(records) == 3)
        assert sorted((record.type, record.data) for record in records) == [
            (IOSTAT, b"/usr/bin/iostat -xcdk 1\n"),
            (EVENT, b"/usr/bin/eventlistener -s -r\n"),
            (PIDSTAT, b"/usr/bin/pidstat 1\n"),
        ]
        assert len(children_of(daemon.pid)) == 3
    daemon.wait_until_idle(idle)


def test_media_server_gets_its_three_environment_variables(with_programs):
    daemon = with_programs({"pellora": "tr '\\0' '\\n' < /proc/$$/environ; exec sleep 1000\n"})
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(1, "pellora")) as browser:
        (record,) = records_until(browser, lambda records: len(records) == 1)
    assert record.type == PELLORA
    assert record.data == b"GSTTL_LOG_NAME=-\nGSTTL_SHOW=gap\nLD_PRELOAD=/tmp/libgsttracelib.so\n"
    daemon.wait_until_idle(idle)


def test_programs_end_with_the_browser_at_any_interval(with_programs):
    daemon = with_programs({name: "exec sleep 1000\n" for name in ("iostat", "eventlistener", "pidstat")})
    idle = daemon.idle_state()
    for interval in (1, 2147483647):
        with daemon.ask(b"/x", trace_query(interval, "iostat", "event", "pidstat", "meminfo")) as browser:
            records_until(browser, lambda records: len(records) >= 2)
            wait_for(lambda: len(children_of(daemon.pid)) == 3, "started")
        wait_for(lambda: children_of(daemon.pid) == [], lambda: children_of(daemon.pid), PROMPT)
        daemon.wait_until_idle(idle)


def test_program_that_ignores_sigterm_is_killed(with_programs):
    daemon = with_programs({"pidstat": "trap '' TERM; echo up; while :; do sleep 0.1; done\n"})
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(1, "pidstat")) as browser:
        records_until(browser, lambda records: len(records) == 1)
        ((child, _),) = children_of(daemon.pid)
    left = time.monotonic()
    wait_for(lambda: process_stat(child) is None, "killed")
    assert GRACE - 0.5 < time.monotonic() - left < GRACE + 2 + PROMPT
    daemon.wait_until_idle(idle)


def test_programs_may_exit_flood_or_print_nothing(with_programs):
    daemon = with_programs({
        "iostat": "exit 3\n", "eventlistener": "exec sleep 1000\n",
        "pidstat": "head -c 1048576 /dev/zero; exec sleep 1000\n",
    })  # fmt: skip
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(0, "iostat", "event", "pidstat")) as browser:
        records = records_until(
            browser, lambda records: sum(len(record.data) for record in records) >= 1048576
        )
    assert {record.type for record in records} == {PIDSTAT}
    assert all(len(record.data) <= 204799 and not record.more for record in records)
    daemon.wait_until_idle(idle)


def test_program_that_exits_early_is_reaped_with_the_trace(with_programs):
    daemon = with_programs({"pidstat": "echo bye\n"})
    idle = daemon.idle_state()
    with daemon.ask(b"/x", trace_query(1, "pidstat")) as browser:
        records_until(browser, lambda records: len(records) == 1)
        wait_for(lambda: [state for _, state in children_of(daemon.pid)] == ["Z"], lambda: children_of(daemon.pid))
    daemon.wait_until_idle(idle)


# Browsers.


def test_browsers_may_leave_at_any_moment(daemon, idle):
    rng = random.Random(SEED)
    for number in range(100 if not SANITIZE else 30):
        sources = rng.choice([["all"], ["fast"], ["meminfo"], ["smaps", "status"]])
        with daemon.ask(b"/x", trace_query(rng.choice([0, 1, -1]), *sources), tcp=number % 2 == 1) as browser:
            browser.read(rng.randrange(len(HEAD) + 1000))  # less than any sample has


def test_slow_browser_gets_every_byte(daemon, idle):
    with daemon.ask(b"/x", trace_query(1000, "smaps", "status"), tcp=True, buffer_size=SMALL_BUFFER) as browser:
        def receive(_):
            time.sleep(0.001)
            return browser.near.recv(3000)

        records, _ = read_until(receive, has_all_processes, HEAD)
    assert daemon.pid in {record.pid for record in records}


def test_two_traces_and_an_archive_can_run_at_once(daemon, idle):
    with daemon.ask(b"/x", trace_query(0, "meminfo")) as one, daemon.ask(b"/x", trace_query(1, "status")) as other:
        records_until(other, has_all_processes)
        answer = daemon.ask(b"/x/debug.tar")
        # The first trace is not read meanwhile, and must not delay the others.
        assert_whole(body_of(answer.read_all(), PLAIN_HEAD))
        records_until(one, lambda records: len(records) > 10)


def test_trace_takes_little_memory(daemon, idle):
    if SANITIZE:
        pytest.skip("not measured with a sanitizer, which uses more memory")
    before = daemon.resident_kb()
    with daemon.ask(b"/x", trace_query(0, "all")) as browser:
        records_until(browser, lambda records: count(records, GROUP) >= 20)
        during = daemon.resident_kb()
    assert during - before < 1024


def test_trace_over_http(base_url):
    with http_open(base_url, "/debugar.cgi?cmd=rtrace&interval=1&trace=meminfo,filenr") as client:
        records, _ = read_until(client.recv, lambda records: len(records) >= 8, HEAD)
    assert [record.type for record in records[:4]] == [FILENR, FILENR, MEMINFO, MEMINFO]
