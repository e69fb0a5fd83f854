"""The target build on its board: the applets, and the daemon with its archive."""

import gzip
import random
import re
import subprocess
import types

import pytest

import board as emulated
from support.answers import (
    HELP, BAD_REQUEST, COMPRESSED_HEAD, CORE_HEAD, PLAIN_HEAD, PS_HEAD, body_of, download_head,
)  # fmt: skip
from support.archives import (
    KCORE_LIMIT, SNAPSHOT_DIRS, TIMESTAMPED, assert_compressed_whole, assert_whole, split_tar,
)  # fmt: skip
from support.board_daemon import (
    CGI_SOCKET, DEVICE_FILES, SEGFAULT_SOCKET, listens, pids_of, put_device_files, put_sender, start_daemon,
    start_front, wait_for_board,
)  # fmt: skip
from support.connections import receive_all
from support.daemon import OFF, ON
from support.web import http_get, http_open

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
def board(board_build):
    with emulated.Board(board_build, http=True) as shared:
        put_device_files(shared)
        yield shared


@pytest.fixture(scope="module")
def served(board):
    """A detached daemon at the usual sockets, and a web front."""
    return types.SimpleNamespace(pid=start_daemon(board), url=start_front(board))


# Dispatch.


@pytest.mark.parametrize("name", APPLETS)
def test_applet_is_a_link_to_the_one_program(board, name):
    assert board.check(f"readlink /usr/bin/{name}") == b"zarvo\n"


@pytest.mark.parametrize("command", ["ctest", "/usr/bin/ctest", "zarvo ctest", "/usr/bin/zarvo /x/ctest"])
def test_applet_runs_by_its_link_and_by_the_first_argument(board, command):
    done = board.run(command)
    assert (done.status, done.out, done.err) == (0, b"call exit\n", b"")


def test_missing_name_fails_silently(board):
    done = board.run("zarvo")
    assert (done.status, done.out, done.err) == (1, b"", b"")


@pytest.mark.parametrize("name", ["zarvo", "dbg-cgi", "Mon", "nonsense"])
def test_unknown_name_is_reported(board, name):
    done = board.run(f"zarvo {name}")
    assert (done.status, done.out, done.err) == (1, f"{name}: unknown zarvo applet\n".encode(), b"")


def test_link_with_an_unknown_name_is_reported(board):
    board.check("ln -sf /usr/bin/zarvo /tmp/dbg-cgi")
    done = board.run("/tmp/dbg-cgi -h")
    assert (done.status, done.out, done.err) == (1, b"dbg-cgi: unknown zarvo applet\n", b"")


# The test applets.


def test_segfault_dies_by_sigsegv(board):
    assert board.run("segfault").status == 128 + SIGSEGV


def test_fdleak_ends_when_no_descriptor_is_left(board):
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

        links = [line.split(" ", 1)[1] for line in wait_for_board(leaked, "six leaked descriptors")]
        assert [link.startswith("socket:") for link in links[:6]] == [True, False] * 3
        assert links[1:6:2] == ["/dev/null"] * 3
    finally:
        board.check("kill -9 $(cat /tmp/leaker)")


# Stops the whole process group of the fork bomb, prints "PID PARENT" for each process, and kills the group.
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
def test_forkbomb_counts_its_forks_and_limits_its_generations(board, arguments, depth):
    board.check(f"setsid forkbomb {arguments} > /tmp/forks 2>&1 & echo $! > /tmp/bomb")
    wait_for_board(lambda: board.run("grep -q 'forks 5' /tmp/forks").status == 0, "the fifth fork")
    listed = [line.split() for line in board.check(DISARM).decode().splitlines()]
    parents = {int(pid): int(parent) for pid, parent in listed}
    bomb = int(board.get("/tmp/bomb"))
    # A depth that is not a number is 0, which also ends the forking after the first generation.
    assert max(generation_of(pid, parents, bomb) for pid in parents) == depth
    counts = [int(line.split()[1]) for line in board.get("/tmp/forks.seen").decode().splitlines()]
    assert set(range(1, 6)) <= set(counts)
    if depth == 1:
        assert counts == list(range(1, len(counts) + 1))
        assert len(parents) - 1 - len(counts) in (0, 1), "the line of the last fork may still be in the buffer"


# The daemon's start.


def test_detached_daemon_has_its_own_session_and_no_terminal(board, served):
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


def test_foreground_daemon_can_have_other_sockets(board, served):
    sockets = ["/tmp/own-cgi", "/tmp/own-segfault"]
    options = f"-n -c {sockets[0]} -s {sockets[1]} -k /tmp/none -i 1 -p /bin/false"
    board.check(f"cd /usr && debugar.cgi {options} > /tmp/own.log 2>&1 & echo $! > /tmp/own")
    pid = int(board.get("/tmp/own"))
    wait_for_board(lambda: all(listens(board, path) for path in sockets), "the sockets")
    try:
        assert sorted(pids_of(board, "debugar.cgi")) == sorted([served.pid, pid])
        assert board.check(f"readlink /proc/{pid}/cwd") == b"/usr\n"
        assert board.check(f"readlink /proc/{pid}/fd/1") == b"/tmp/own.log\n"
        # Its log has only reports of the leak monitor, such as the one about the parent of all kernel threads.
        assert re.sub(rb"pid \d+ name .* (fd|fork)_score .*\n", b"", board.get("/tmp/own.log")) == b""
        assert http_get(served.url, "/x?cmd=none") == BAD_REQUEST
    finally:
        board.check(f"kill {pid}")


@pytest.mark.parametrize("option", ["-c", "-s"])
def test_daemon_that_cannot_make_a_socket_exits(board, option):
    other = "-s" if option == "-c" else "-c"
    done = board.run(f"debugar.cgi -n {option} /nonexistent/socket {other} /tmp/other", timeout=60)
    assert done.status == 1


# The archive, compared with what the board reports itself.


def readable_proc(board):
    """The files of the snapshot's folders that can be read and are not empty."""
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
    """A plain and a compressed archive, and the state of the board before and after."""
    board.put(MONITOR_TEXT, MONITOR)
    seen = types.SimpleNamespace(proc_before=readable_proc(board))
    seen.plain = body_of(http_get(served.url, "/cgi-bin/debug.tar"), PLAIN_HEAD)
    seen.proc_after = readable_proc(board)
    seen.compressed = body_of(http_get(served.url, "/cgi-bin/debug.tgz"), COMPRESSED_HEAD)
    seen.monitor = {MONITOR_TEXT, board.get(MONITOR)}
    return seen


@pytest.fixture(scope="module")
def members(taken):
    return split_tar(taken.plain)


def one(members, name):
    (member,) = [member for member in members if member.name == name]
    return member.data


def test_both_archives_are_complete(taken):
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


def test_snapshots_have_exactly_the_readable_files(taken, members):
    middle = [member.name for member in members].index("strace.log")
    for half in (members[:middle], members[middle:]):
        stored = {
            "/proc/" + member.name.partition("/")[2] if TIMESTAMPED.fullmatch(member.name) else "/" + member.name
            for member in half
            if TIMESTAMPED.fullmatch(member.name) or member.name.startswith("proc/")
        }
        assert taken.proc_before & taken.proc_after <= stored
        assert stored <= taken.proc_before | taken.proc_after


def test_snapshots_have_the_contents_of_the_files(board, members):
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


# The kernel's core image, which is stored only if it is small.


def stored_kcore(url):
    members = assert_whole(body_of(http_get(url, "/debug.tar"), PLAIN_HEAD))
    return [member.data for member in members if member.name == "kcore"]


def test_real_kernel_core_is_stored_only_if_it_is_small(board, members):
    size = int(board.run("stat -c %s /proc/kcore").out or 0)
    lengths = [len(member.data) for member in members if member.name == "kcore"]
    assert lengths == ([size] if 0 < size <= KCORE_LIMIT else [])


@pytest.mark.parametrize("size, is_stored", [(70_001, True), (KCORE_LIMIT + 1, False), (0, False)])
def test_kernel_core_of_another_size_is_stored_only_if_it_is_small(board, served, size, is_stored):
    content = random.Random(size).randbytes(size) if is_stored else b""
    board.put(content, "/tmp/kcore")
    board.check(f"truncate -s {size} /tmp/kcore && mount -o bind /tmp/kcore /proc/kcore")
    try:
        assert stored_kcore(served.url) == ([content] if is_stored else [])
    finally:
        board.check("umount /proc/kcore && rm /tmp/kcore")


# The waiting browser.


@pytest.fixture(scope="module")
def sender(board):
    return put_sender(board)


def open_descriptors(board, pid):
    return len(board.check(f"ls /proc/{pid}/fd").split())


def waiting_browser(board, served, target):
    """A browser that the daemon keeps for a dump."""
    before = open_descriptors(board, served.pid)
    client = http_open(served.url, target)
    wait_for_board(lambda: open_descriptors(board, served.pid) == before + 1, "a waiting browser")
    return client


@pytest.mark.parametrize("target", ["/x/core?listen", "/x?cmd=coredump"])
@pytest.mark.parametrize("size", [0, 1, 2049, 1_000_001])
def test_pushed_core_reaches_the_waiting_browser(board, served, sender, target, size):
    core = random.Random(size).randbytes(size)
    board.put(core, "/tmp/core")
    client = waiting_browser(board, served, target)
    board.check(f"{sender} {SEGFAULT_SOCKET} < /tmp/core > /dev/null 2>&1 &")
    with client:
        assert receive_all(client) == CORE_HEAD + core


def test_pushed_core_is_dropped_if_no_browser_waits(board, served, sender):
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
        wait_for_board(lambda: len(board.check(f"ls {DUMPS}").split()) == left, f"{left} dumps")
    assert http_get(served.url, "/x?pop") == b""


# Without a daemon: the archive on standard output.


@pytest.mark.parametrize("options, check", [("-d", assert_compressed_whole), ("-d -t", assert_whole)])
@pytest.mark.parametrize("through", ["", "| cat"], ids=["to a file", "to a pipe"])
def test_direct_mode_writes_a_complete_archive(board, options, check, through):
    done = board.run(f"(debugar.cgi {options}; echo $? > /tmp/status) 2>/tmp/errors {through} > /tmp/archive")
    assert (done.status, done.out, done.err) == (0, b"", b"")
    assert board.get("/tmp/status") == b"0\n"
    check(board.get("/tmp/archive"))
    # They are not always at the beginning of a line, since the report of a failed dump has no newline.
    assert re.findall(r"Set service watchdogs state: \w+\n", board.get("/tmp/errors").decode()) == [OFF, ON]


# The last test, after all requests.


def test_daemon_still_runs_and_has_no_children(board, served):
    assert http_get(served.url, "/x?cmd=none") == BAD_REQUEST
    assert pids_of(board, "debugar.cgi") == [served.pid]
    assert board.check(f"cat /proc/{served.pid}/task/*/children") == b""
