"""The target's build on the board it is made for: the applets, and the daemon with its archive."""

import functools
import gzip
import pathlib
import random
import re
import subprocess
import sys
import types

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "board"))

import board as emulated  # noqa: E402
from board_daemon import (  # noqa: E402
    CGI_SOCKET, DEVICE_FILES, SEGFAULT_SOCKET, listens, pids_of, put_device_files, put_sender, start_daemon,
    start_front, wait_for,
)  # fmt: skip
from test_direct_mode import HELP  # noqa: E402
from zarvo_e2e import (  # noqa: E402
    BAD_REQUEST, COMPRESSED_HEAD, CORE_HEAD, KCORE_LIMIT, OFF, ON, PLAIN_HEAD, PS_HEAD, SNAPSHOT_DIRS,
    STAMPED, assert_compressed_whole, assert_whole, body_of, download_head, http_get, http_open, split_tar,
)  # fmt: skip

BUILD = ROOT / "build/mipsel"
APPLETS = [
    "tstrace", "stopper", "pcapdump", "coredump-handler", "debugar.cgi", "mon", "ctest", "oopslog",
    "forkbomb", "fdleak", "segfault",
]  # fmt: skip
SIGSEGV = 11
MONITOR = "/var/run/dbg-cgi/dbg-monitor.txt"
MONITOR_TEXT = b"pid 1 leaks nothing\n"
DUMPS = "/var/volatile/tmp/dumps"
EVERY_BYTE = bytes(range(256))


@pytest.fixture(scope="module")
def board():
    if reason := emulated.missing(BUILD):
        pytest.skip(reason)
    with emulated.Board(BUILD, http=True) as shared:
        put_device_files(shared)
        yield shared


@pytest.fixture(scope="module")
def served(board):
    """A detached daemon at the usual sockets, behind a web front."""
    return types.SimpleNamespace(pid=start_daemon(board), url=start_front(board))


# Dispatch.


@pytest.mark.parametrize("name", APPLETS)
def test_applet_is_a_link_to_the_one_program(board, name):
    assert board.check(f"readlink /usr/bin/{name}") == b"zarvo\n"


@pytest.mark.parametrize("command", ["ctest", "/usr/bin/ctest", "zarvo ctest", "/usr/bin/zarvo /x/ctest"])
def test_applet_runs_by_its_link_and_by_the_first_word(board, command):
    done = board.run(command)
    assert (done.status, done.out, done.err) == (0, b"call exit\n", b"")


def test_toolbox_without_a_word_fails_in_silence(board):
    done = board.run("zarvo")
    assert (done.status, done.out, done.err) == (1, b"", b"")


@pytest.mark.parametrize("name", ["zarvo", "dbg-cgi", "Mon", "nonsense"])
def test_unknown_applet_is_named(board, name):
    done = board.run(f"zarvo {name}")
    assert (done.status, done.out, done.err) == (1, f"{name}: unknown zarvo applet\n".encode(), b"")


def test_link_of_an_unknown_name_is_named(board):
    board.check("ln -sf /usr/bin/zarvo /tmp/dbg-cgi")
    done = board.run("/tmp/dbg-cgi -h")
    assert (done.status, done.out, done.err) == (1, b"dbg-cgi: unknown zarvo applet\n", b"")


# The test applets.


def test_segfault_dies_by_its_signal(board):
    assert board.run("segfault").status == 128 + SIGSEGV


def test_fdleak_leaks_until_no_descriptor_is_left(board):
    done = board.run("ulimit -n 64; fdleak 10")
    assert (done.status, done.out) == (0, b"leaked 16\nleaked 32\nleaked 48\n")
    assert done.err == b"open: Too many open files\n"


def test_fdleak_leaks_sockets_and_files_in_turn(board):
    board.check("fdleak 0x10000 > /dev/null 2>&1 & echo $! > /tmp/leaker")
    try:
        listing = "ls -l /proc/$(cat /tmp/leaker)/fd | sed -n 's/.* \\([0-9]*\\) -> /\\1 /p' | sort -n"

        def leaked():
            lines = board.check(listing).decode().splitlines()[3:]
            return lines if len(lines) >= 6 else None

        links = [line.split(" ", 1)[1] for line in wait_for(leaked, "six leaked descriptors")]
        assert [link.startswith("socket:") for link in links[:6]] == [True, False] * 3
        assert links[1:6:2] == ["/dev/null"] * 3
    finally:
        board.check("kill -9 $(cat /tmp/leaker)")


# Freezes the bomb's process group at one blow, lists it as "PID PARENT", and ends it.
DISARM = r"""
kill -STOP -- -$(cat /tmp/bomb)
cp /tmp/forks /tmp/forks.seen
for pid in $(pidof forkbomb); do sed 's/^\([0-9]*\) ([^)]*) . \([0-9]*\) .*/\1 \2/' /proc/$pid/stat; done
kill -9 -- -$(cat /tmp/bomb)
while pidof forkbomb > /dev/null; do usleep 10000; done
"""


def generation_of(pid, parents, bomb):
    return 0 if pid == bomb else 1 + generation_of(parents[pid], parents, bomb)


@pytest.mark.parametrize("arguments, depth", [("0x20000", 1), ("300000 2", 2), ("0400000 none", 1)])
def test_forkbomb_counts_its_forks_and_keeps_to_its_generations(board, arguments, depth):
    board.check(f"setsid forkbomb {arguments} > /tmp/forks 2>&1 & echo $! > /tmp/bomb")
    wait_for(lambda: board.run("grep -q 'forks 5' /tmp/forks").status == 0, "the fifth fork")
    listed = [line.split() for line in board.check(DISARM).decode().splitlines()]
    parents = {int(pid): int(parent) for pid, parent in listed}
    bomb = int(board.get("/tmp/bomb"))
    # A depth that is no number is 0, which ends the forking after the first generation as well.
    assert max(generation_of(pid, parents, bomb) for pid in parents) == depth
    counts = [int(line.split()[1]) for line in board.get("/tmp/forks.seen").decode().splitlines()]
    assert set(range(1, 6)) <= set(counts)
    if depth == 1:
        assert counts == list(range(1, len(counts) + 1))
        assert len(parents) - 1 - len(counts) in (0, 1), "a fork whose line is still in the buffer"


# The daemon's start.


def test_detached_daemon_let_go_of_its_starter(board, served):
    status = board.get(f"/proc/{served.pid}/stat").decode()
    _, parent, _, session, terminal = status[status.rindex(")") + 2 :].split()[:5]
    assert (int(parent), int(session), int(terminal)) == (1, served.pid, 0)
    assert board.check(f"readlink /proc/{served.pid}/cwd") == b"/\n"
    streams = board.check(f"for fd in 0 1 2; do readlink /proc/{served.pid}/fd/$fd; done")
    assert streams.split() == [b"/dev/null"] * 3


def test_everyone_may_use_the_request_socket(board, served):
    assert board.check(f"stat -c '%F %a' {CGI_SOCKET}") == b"socket 666\n"
    assert board.check(f"stat -c %F {SEGFAULT_SOCKET}") == b"socket\n"


@pytest.mark.parametrize("words", ["-h", "-x", "-c", "-d -h"])
def test_help_and_wrong_options_print_the_help_and_fail(board, words):
    done = board.run(f"debugar.cgi {words}")
    assert (done.status, done.out.decode()) == (1, HELP)


def test_daemon_stays_in_the_foreground_with_its_sockets_elsewhere(board, served):
    sockets = ["/tmp/own-cgi", "/tmp/own-segfault"]
    options = f"-n -c {sockets[0]} -s {sockets[1]} -k /tmp/none -i 1 -p /bin/false"
    board.check(f"cd /usr && debugar.cgi {options} > /tmp/own.log 2>&1 & echo $! > /tmp/own")
    pid = int(board.get("/tmp/own"))
    wait_for(lambda: all(listens(board, path) for path in sockets), "the sockets")
    try:
        assert sorted(pids_of(board, "debugar.cgi")) == sorted([served.pid, pid])
        assert board.check(f"readlink /proc/{pid}/cwd") == b"/usr\n"
        assert board.check(f"readlink /proc/{pid}/fd/1") == b"/tmp/own.log\n"
        # Nothing but what its leak monitor tells, such as the kernel threads that all have one parent.
        assert re.sub(rb"pid \d+ name .* (fd|fork)_score .*\n", b"", board.get("/tmp/own.log")) == b""
        assert http_get(served.url, "/x?cmd=none") == BAD_REQUEST
    finally:
        board.check(f"kill {pid}")


@pytest.mark.parametrize("option", ["-c", "-s"])
def test_socket_that_cannot_be_made_ends_the_start(board, option):
    other = "-s" if option == "-c" else "-c"
    done = board.run(f"debugar.cgi -n {option} /nonexistent/socket {other} /tmp/other", timeout=60)
    assert done.status == 1


# The archive, compared with what the board says itself.


def proc_as_it_is(board):
    """For each folder of the snapshot the names of the files from which a reader gets something."""
    script = f"""
        for folder in proc/ {' '.join(SNAPSHOT_DIRS)}; do
            for file in /$folder*; do
                case $file in */kcore|*/vmcore|*/kmem|*/kmsg) continue ;; esac
                [ -f "$file" ] && echo "$file"
            done
        done | xargs grep -ls ''
        true"""
    return set(board.check(script).decode().splitlines())


@pytest.fixture(scope="module")
def taken(board, served):
    """A plain and a compressed archive, and what was seen round them."""
    board.put(MONITOR_TEXT, MONITOR)
    seen = types.SimpleNamespace(proc_before=proc_as_it_is(board))
    seen.plain = body_of(http_get(served.url, "/cgi-bin/debug.tar"), PLAIN_HEAD)
    seen.proc_after = proc_as_it_is(board)
    seen.compressed = body_of(http_get(served.url, "/cgi-bin/debug.tgz"), COMPRESSED_HEAD)
    seen.monitor = {MONITOR_TEXT, board.get(MONITOR)}
    return seen


@pytest.fixture(scope="module")
def members(taken):
    return split_tar(taken.plain)


def one(members, name):
    (member,) = [member for member in members if member.name == name]
    return member.data


def test_both_archives_are_whole(taken):
    assert_whole(taken.plain)
    assert_compressed_whole(taken.compressed)


def test_gnu_tar_lists_the_members_of_both(taken):
    for options, archive in (("-tf", taken.plain), ("-tzf", taken.compressed)):
        done = subprocess.run(["tar", options, "-"], input=archive, capture_output=True, check=True)
        ours = split_tar(gzip.decompress(archive) if archive is taken.compressed else archive)
        assert done.stdout.decode().splitlines() == [member.path for member in ours]
        assert done.stderr == b""


def test_gnu_tar_extracts_the_same_bytes_from_both(taken):
    for options, archive in (("-xOf", taken.plain), ("-xzOf", taken.compressed)):
        done = subprocess.run(["tar", options, "-"], input=archive, capture_output=True, check=True)
        ours = split_tar(gzip.decompress(archive) if archive is taken.compressed else archive)
        assert done.stdout == b"".join(member.data for member in ours)
        assert done.stderr == b""


def test_files_of_the_device_are_stored(board, taken, members):
    assert one(members, "dbg-monitor.txt") in taken.monitor
    assert one(members, "media.conf") == (DEVICE_FILES / "etc/ws/onvif/media/media.conf").read_bytes()
    assert one(members, "oopslog") == board.check("/usr/sbin/oopslog -r /dev/part/oops 2>&1")


def test_server_report_is_that_of_the_board(board, members):
    report = one(members, "serverreport.txt").decode()
    heading = re.compile(r"^----- .* -----$", re.MULTILINE)
    again = board.check("/usr/sbin/gen_serverreport.sh").decode()
    assert heading.findall(report) == heading.findall(again) != []
    assert board.get("/proc/version").decode() in report


def test_snapshots_hold_what_a_reader_gets_from_the_same_folders(taken, members):
    middle = [member.name for member in members].index("strace.log")
    for half in (members[:middle], members[middle:]):
        stored = {
            "/proc/" + member.name.partition("/")[2] if STAMPED.fullmatch(member.name) else "/" + member.name
            for member in half
            if STAMPED.fullmatch(member.name) or member.name.startswith("proc/")
        }
        assert taken.proc_before & taken.proc_after <= stored
        assert stored <= taken.proc_before | taken.proc_after


def test_snapshots_hold_the_files_contents(board, members):
    for name in ("version", "cpuinfo", "modules", "filesystems"):
        stored = [member.data for member in members if re.fullmatch(rf"proc\.[^/]*/{name}", member.name)]
        if name == "cpuinfo":
            assert all(b"MIPS 24Kc" in data for data in stored) and len(stored) == 2
        else:
            assert stored == [board.get(f"/proc/{name}")] * 2


def test_process_list_is_that_of_the_boards_ps(board, served):
    body = body_of(http_get(served.url, "/x?cmd=ps"), PS_HEAD)
    assert body.splitlines()[0] == board.check("/bin/ps").splitlines()[0]
    assert re.search(rb"(?m)^ *%d .*debugar\.cgi$" % served.pid, body)


# The kernel's core image, which is stored only when it is small.


def stored_kcore(url):
    members = assert_whole(body_of(http_get(url, "/debug.tar"), PLAIN_HEAD))
    return [member.data for member in members if member.name == "kcore"]


def test_real_kernel_core_is_stored_only_when_it_is_small(board, members):
    size = int(board.run("stat -c %s /proc/kcore").out or 0)
    lengths = [len(member.data) for member in members if member.name == "kcore"]
    assert lengths == ([size] if 0 < size <= KCORE_LIMIT else [])


@pytest.mark.parametrize("size, is_stored", [(70_001, True), (KCORE_LIMIT + 1, False), (0, False)])
def test_kernel_core_of_another_size(board, served, size, is_stored):
    content = random.Random(size).randbytes(size) if is_stored else b""
    board.put(content, "/tmp/kcore")
    board.check(f"truncate -s {size} /tmp/kcore && mount -o bind /tmp/kcore /proc/kcore")
    try:
        assert stored_kcore(served.url) == ([content] if is_stored else [])
    finally:
        board.check("umount /proc/kcore && rm /tmp/kcore")


# The browser that waits.


@pytest.fixture(scope="module")
def sender(board):
    return put_sender(board)


def read_all(client):
    with client:
        return b"".join(iter(functools.partial(client.recv, 1 << 16), b""))


def open_descriptors(board, pid):
    return len(board.check(f"ls /proc/{pid}/fd").split())


def waiting(board, served, target):
    """A browser that the daemon keeps for a dump."""
    before = open_descriptors(board, served.pid)
    client = http_open(served.url, target)
    wait_for(lambda: open_descriptors(board, served.pid) == before + 1, "a waiting browser")
    return client


@pytest.mark.parametrize("target", ["/x/core?listen", "/x?cmd=coredump"])
@pytest.mark.parametrize("size", [0, 1, 2049, 1_000_001])
def test_pushed_core_reaches_the_waiting_browser(board, served, sender, target, size):
    core = random.Random(size).randbytes(size)
    board.put(core, "/tmp/core")
    client = waiting(board, served, target)
    board.check(f"{sender} {SEGFAULT_SOCKET} < /tmp/core > /dev/null 2>&1 &")
    assert read_all(client) == CORE_HEAD + core


def test_pushed_core_is_dropped_when_nobody_waits(board, served, sender):
    before = open_descriptors(board, served.pid)
    board.put(b"core", "/tmp/core")
    board.run(f"{sender} {SEGFAULT_SOCKET} < /tmp/core", timeout=60)
    assert http_get(served.url, "/x?cmd=none") == BAD_REQUEST
    assert open_descriptors(board, served.pid) == before


def test_each_pop_delivers_a_stored_dump_and_deletes_it(board, served):
    dumps = {"core.413": EVERY_BYTE * 200, "core.907": b"short"}
    for name, content in dumps.items():
        board.put(content, f"{DUMPS}/{name}")
    for left in (1, 0):
        answer = http_get(served.url, "/x?pop")
        kind = "application/octet-stream"
        (name,) = [name for name in dumps if answer == download_head(kind, name) + dumps[name]]
        del dumps[name]
        wait_for(lambda: len(board.check(f"ls {DUMPS}").split()) == left, f"{left} dumps")
    assert http_get(served.url, "/x?pop") == b""


# Without a daemon: the archive on standard output.


@pytest.mark.parametrize("options, check", [("-d", assert_compressed_whole), ("-d -t", assert_whole)])
@pytest.mark.parametrize("through", ["", "| cat"], ids=["into a file", "into a pipe"])
def test_direct_mode_writes_a_whole_archive(board, options, check, through):
    done = board.run(f"(debugar.cgi {options}; echo $? > /tmp/status) 2>/tmp/errors {through} > /tmp/archive")
    assert (done.status, done.out, done.err) == (0, b"", b"")
    assert board.get("/tmp/status") == b"0\n"
    check(board.get("/tmp/archive"))
    # Not always at the beginning of a line: a failed dump is told without a line's end.
    assert re.findall(r"Set service watchdogs state: \w+\n", board.get("/tmp/errors").decode()) == [OFF, ON]


# Last, when everything has been asked of it.


def test_daemon_still_runs_and_holds_nothing(board, served):
    assert http_get(served.url, "/x?cmd=none") == BAD_REQUEST
    assert pids_of(board, "debugar.cgi") == [served.pid]
    assert board.check(f"cat /proc/{served.pid}/task/*/children") == b""
