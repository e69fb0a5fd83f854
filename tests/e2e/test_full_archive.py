"""The full form of the debug archive, read by other programs and compared with what the machine reports itself."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time
import types
import zlib

import pytest

from support.answers import BUSY_PAGE, PLAIN_HEAD, body_and_file_name, body_of
from support.archives import (
    PROCESS_FILE, READ_LIMIT, TRACE_SIZE, assert_full_whole, assert_whole, kind_of, unpacked,
)  # fmt: skip
from support.connections import receive_all
from support.daemon import Daemon, temporary_leftovers
from support.processes import in_mount_namespace
from support.under_test import ROOT, SANITIZE
from support.waiting import wait_for

NEEDS_SANDBOX = True

WHOLE_LIMIT = 8 << 20
CROWD = 100 if SANITIZE else 500
SILENCE_S = 300  # how long an archive may send nothing while a crowd is traced and dumped

# Hides files with numbers for each page of memory, which would be most of an archive on a machine with much of it.
LEAN = """for name in kpagecount kpageflags kpagecgroup; do
    [ ! -e /proc/$name ] || mount --bind /dev/null /proc/$name
done
"""
SPIN = "while True: pass"
# Opens 40 more descriptors when it receives SIGUSR1, and says so by closing its standard output.
LEAK = """
import os, signal, time
kept = []
def leak(*_):
    kept.extend(os.open("/dev/null", os.O_RDONLY) for _ in range(40))
    os.write(1, b"leaked\\n")
signal.signal(signal.SIGUSR1, leak)
os.write(1, b"ready\\n")
while True:
    time.sleep(1000)
"""
# A process with 499 children, all asleep.
MANY = f"""
import os, time
for _ in range({CROWD - 1}):
    if os.fork() == 0:
        break
else:
    os.write(1, b"ready\\n")
time.sleep(1000)
"""


@pytest.fixture
def start_lean(start):
    """As start(), with less in /proc."""
    return lambda *options, script="": start(*options, before=in_mount_namespace(LEAN + script))


def python(script):
    return subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True)


def end_all(*processes):
    for process in processes:
        process.kill()
        process.wait()
        process.stdout.close()


@pytest.fixture(scope="module")
def taken(sandbox, tmp_path_factory):
    """A plain and a compressed full archive, made beside a process that spins and one that leaks descriptors."""
    daemon = Daemon(tmp_path_factory.mktemp("daemon"), before=in_mount_namespace(LEAN))
    spinner, leaker = python(SPIN), python(LEAK)
    assert leaker.stdout.readline() == "ready\n"
    seen = types.SimpleNamespace(before=time.time(), spinner=spinner.pid, leaker=leaker.pid)
    try:
        # The leak happens during the trace, between the two looks at the processes.
        with daemon.ask(b"/x/debug.tar", b"full") as browser:
            answer = b""
            while b"/strace.log\0" not in answer:
                answer += browser.near.recv(1 << 16)
            os.kill(leaker.pid, signal.SIGUSR1)
            assert leaker.stdout.readline() == "leaked\n"
            seen.plain = answer + receive_all(browser.near)
        seen.compressed = daemon.answer(b"/x/debug.tgz", b"full")
        seen.after = time.time()
        seen.usual = daemon.answer(b"/x/debug.tar", b"xfull")
        seen.said, seen.pid = daemon.said(), daemon.pid
    finally:
        end_all(spinner, leaker)
        daemon.stop()
    return seen


@pytest.fixture(scope="module")
def whole(taken):
    return assert_full_whole(body_and_file_name(taken.plain)[0])


@pytest.fixture(scope="module")
def members(whole):
    return whole[0]


@pytest.fixture(scope="module")
def manifest(whole):
    return whole[1]


def one(members, name):
    (member,) = [member for member in members if member.name == name]
    return member.data


def process_line(members, pid):
    """The line of a process in the table, by the words of its heading."""
    heading, *lines = one(members, "processes.txt").decode().splitlines()
    (line,) = [line for line in lines if line.split()[0] == str(pid)]
    return dict(zip(heading.lower().split(), line.split()))


def test_both_forms_are_whole(taken):
    assert_full_whole(body_and_file_name(taken.plain)[0])
    assert_full_whole(unpacked(body_and_file_name(taken.compressed)[0]))


def test_file_names_tell_host_and_time(taken):
    for answer, suffix in ((taken.plain, "tar"), (taken.compressed, "tgz")):
        name = body_and_file_name(answer)[1]
        found = re.fullmatch(rf"debug-({re.escape(os.uname().nodename)})-(\d{{8}}-\d{{6}})\.{suffix}", name)
        assert found, name
        first, last = (time.strftime("%Y%m%d-%H%M%S", time.localtime(t)) for t in (taken.before, taken.after))
        assert first <= found[2] <= last


def test_other_queries_give_the_usual_form(taken):
    assert_whole(body_of(taken.usual, PLAIN_HEAD))


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_other_tar_programs_list_the_same_members(tool, taken, members):
    done = subprocess.run([tool, "-tf", "-"], input=body_and_file_name(taken.plain)[0], capture_output=True, check=True)
    assert done.stdout.decode().splitlines() == [member.path for member in members]
    assert done.stderr == b""


def test_without_its_additions_the_full_form_has_the_order_of_the_usual_one(taken, members):
    usual = assert_whole(body_of(taken.usual, PLAIN_HEAD))

    def kinds(found):
        """The kinds of members, each run of equal kinds once."""
        return re.sub(r"(.)\1+", r"\1", "".join(kind_of(member.name) for member in found))

    # The monitor's status and some cores may be in one of them only.
    def shared(found):
        return [member for member in found if kind_of(member.name) not in "YGQXZ" "MDF"]

    assert kinds(shared(members)) == kinds(shared(usual))


def test_long_files_are_stored_whole_up_to_the_limit(members, manifest):
    size = len(pathlib.Path("/proc/kallsyms").read_bytes())
    if size <= READ_LIMIT:
        pytest.skip(f"needs a /proc/kallsyms of more than {READ_LIMIT} bytes")
    stored = [member for member in members if re.fullmatch(r"proc\.[^/]*/kallsyms", member.name)]
    assert [len(member.data) for member in stored] == [min(size, WHOLE_LIMIT)] * 2
    is_noted = {member.name for member in stored} <= set(manifest.errors)
    assert is_noted == (size > WHOLE_LIMIT)


def test_every_process_has_its_files_in_both_looks(taken, members):
    found = {}
    for member in members:
        if file := PROCESS_FILE.fullmatch(member.name):
            found.setdefault((file["stamp"], int(file["pid"])), {})[file["file"]] = member.data
    looks = sorted({stamp for stamp, _ in found})
    assert len(looks) == 2
    for stamp in looks:
        for pid in (1, taken.pid, taken.spinner, taken.leaker):
            files = found[stamp, pid]
            assert {"stat", "status", "cmdline", "maps", "limits", "links", f"task/{pid}/stat"} <= set(files)
            assert files["stat"].startswith(b"%d (" % pid)
            assert f"Pid:\t{pid}\n" in files["status"].decode()
        spinner = found[stamp, taken.spinner]
        assert spinner["cmdline"] == b"\0".join([sys.executable.encode(), b"-c", SPIN.encode(), b""])
        assert f"exe -> {os.path.realpath(sys.executable)}\n" in spinner["links"].decode()
        assert "fd/1 -> pipe:[" in spinner["links"].decode()


def test_environment_of_processes_is_never_stored(members):
    assert [member.name for member in members if "environ" in member.name] == []


def test_table_shows_the_process_that_spins(taken, members):
    line = process_line(members, taken.spinner)
    assert float(line["cpu"].rstrip("%")) > 5 if "cpu" in line else False, line


def test_table_shows_the_process_that_leaks_descriptors(taken, members):
    assert re.search(rf"(?m)^ *{taken.leaker} .* \+40 ", one(members, "processes.txt").decode())


def test_kernel_log_is_stored_whole(members):
    done = subprocess.run(["dmesg", "--raw"], capture_output=True)
    if done.returncode != 0 or not done.stdout:
        pytest.skip("the kernel's log is empty or cannot be read here")
    stored = [line for line in one(members, "dmesg.txt").splitlines() if line]
    now = done.stdout.splitlines()
    # Lines may have been added since then, and old ones dropped.
    assert stored[-1] in now
    assert len(stored) >= len(now[: now.index(stored[-1]) + 1])


def test_description_of_the_system_has_its_sections(members):
    text = one(members, "system.txt").decode()
    sections = re.findall(r"(?m)^\[(.*)\]$", text)
    wanted = ["system", "memory", "file systems", "interfaces", "routes", "neighbours"]
    assert [name for name in sections if name in wanted] == wanted
    assert os.uname().nodename in text and os.uname().release in text
    assert pathlib.Path("/proc/cmdline").read_text().strip() in text
    assert re.search(r"(?m)^lo\b|\blo:", text)


def test_lines_of_the_trace_begin_with_the_time(members):
    text = one(members, "strace.log")
    assert len(text) == TRACE_SIZE
    lines = [line for line in text.decode(errors="replace").splitlines() if line.strip()]
    assert len(lines) > 10
    for line in lines[:-1]:  # the last one may be cut at the member's end
        assert re.match(r"\d\d:\d\d:\d\d\.\d{6} ", line), line


@pytest.mark.parametrize("tool", [["tcpdump", "-nr", "-"], ["tshark", "-nr", "-"]])
def test_capture_is_read_without_a_complaint(tool, members):
    if not shutil.which(tool[0]):
        pytest.skip(f"needs {tool[0]}")
    done = subprocess.run(tool, input=one(members, "netdump.cap"), capture_output=True)
    assert done.returncode == 0
    assert b"nvalid" not in done.stdout and b"alformed" not in done.stdout
    complaints = [line for line in done.stderr.decode().splitlines() if not re.match("reading from|Running as", line)]
    assert complaints == []


def test_manifest_has_the_seconds_of_the_trace_and_of_the_capture(manifest):
    assert 4.5 < manifest.seconds["strace.log"] < 60
    assert 4.5 < manifest.seconds["netdump.cap"] < 60


def test_manifest_names_what_is_missing(start_lean):
    daemon = start_lean(script="mount -t tmpfs tmpfs /etc/ws\n")
    _, manifest = assert_full_whole(body_and_file_name(daemon.answer(b"/x/debug.tar", b"full"))[0])
    assert manifest.errors["media.conf"] == "No such file or directory"


@pytest.fixture
def crowd():
    """The pids of a crowd of sleeping processes."""
    first = python(MANY)
    assert first.stdout.readline() == "ready\n"
    others = pathlib.Path(f"/proc/{first.pid}/task/{first.pid}/children").read_text().split()
    yield {first.pid, *map(int, others)}
    for pid in others:
        os.kill(int(pid), signal.SIGKILL)
    end_all(first)


def test_a_crowd_of_processes_is_stored_in_both_looks(start_lean, crowd):
    assert len(crowd) == CROWD
    daemon = start_lean("-p", "/bin/false")
    with daemon.ask(b"/x/debug.tar", b"full") as browser:
        browser.near.settimeout(SILENCE_S)
        members, _ = assert_full_whole(body_and_file_name(receive_all(browser.near))[0])
    stats = [PROCESS_FILE.fullmatch(member.name) for member in members if member.name.endswith("/stat")]
    pids = [int(found["pid"]) for found in stats if found and found["file"] == "stat"]
    assert {pid: pids.count(pid) for pid in crowd} == dict.fromkeys(crowd, 2)
    table = one(members, "processes.txt").decode()
    assert crowd <= {int(line.split()[0]) for line in table.splitlines()[1:]}


def cuts_of(members):
    """Offsets in the plain stream: inside the header and inside the data of one member of each new kind, and before the
    last byte of the manifest."""
    offset = 0
    seen = set()
    for member in members:
        kind = kind_of(member.name)
        if kind in "YGQXZ" and kind not in seen:
            seen.add(kind)
            yield f"header of {member.name}", offset + 100
            yield f"data of {member.name}", offset + 512 + len(member.data) // 2
        offset += 512 + len(member.data) + -len(member.data) % 512
    yield "the last byte", offset - 1


def test_archives_cut_in_any_new_member_are_recognised(members, tmp_path):
    small = [member for member in members if kind_of(member.name) not in "TP" or len(member.data) < READ_LIMIT]
    plain = b"".join(member.header + member.data + bytes(-len(member.data) % 512) for member in small)
    (tmp_path / "whole.tar").write_bytes(plain)
    subprocess.run([ROOT / "tools/archive_list", tmp_path / "whole.tar"], check=True, stdout=subprocess.DEVNULL)
    for what, offset in cuts_of(small):
        packed = zlib.compressobj(1, wbits=31)
        cut = packed.compress(plain[:offset]) + packed.flush(zlib.Z_SYNC_FLUSH)
        for name, stream in (("cut.tar", plain[:offset]), ("cut.tgz", cut)):
            path = tmp_path / name
            path.write_bytes(stream)
            done = subprocess.run([ROOT / "tools/archive_list", path], capture_output=True, text=True)
            assert done.returncode == 1, (what, name)
            assert "incomplete: " in done.stderr


def test_list_of_a_whole_archive_has_a_line_for_each_folder(taken, tmp_path):
    path = tmp_path / "whole.tgz"
    path.write_bytes(body_and_file_name(taken.compressed)[0])
    done = subprocess.run([ROOT / "tools/archive_list", path], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    assert len([line for line in lines if re.search(r"/processes\.[\d-]+/ \(\d+ files\)$", line)]) == 2
    assert any(line.endswith("/manifest.txt") for line in lines)
    everything = subprocess.run([ROOT / "tools/archive_list", "--all", path], capture_output=True, text=True)
    assert len(everything.stdout.splitlines()) > 10 * len(lines)
    assert everything.stdout.splitlines()[-1] == lines[-1]


def test_browser_that_leaves_at_any_point_leaves_nothing_behind(start_lean):
    daemon = start_lean("-p", "/bin/false")
    idle = daemon.idle_state()
    sizes = [1, 20000, 300000, 2000000]
    for size in sizes:
        with daemon.ask(b"/x/debug.tar", b"full") as browser:
            got = 0
            while got < size and (piece := browser.near.recv(min(size - got, 65536))):
                got += len(piece)
        daemon.wait_until_idle(idle)
    assert temporary_leftovers() == []
    assert daemon.switches().count("no\n") == daemon.switches().count("yes\n") == len(sizes)
    assert_whole(body_of(daemon.answer(b"/x/debug.tar"), PLAIN_HEAD))


def test_second_archive_is_refused_while_a_full_one_is_made(start_lean):
    daemon = start_lean("-p", "/bin/false")
    with daemon.ask(b"/x/debug.tar", b"full") as browser:
        assert browser.near.recv(10) != b""
        assert daemon.answer(b"/x/debug.tgz") == BUSY_PAGE
        assert daemon.answer(b"/x/debug.tgz", b"full") == BUSY_PAGE


def test_download_moves_while_nothing_new_comes(start_lean):
    """What was made before the five seconds of the capture can be unpacked during them."""
    daemon = start_lean("-p", "/bin/false")
    with daemon.ask(b"/x/debug.tgz", b"full") as browser:
        answer, plain, inflate = b"", b"", None

        def capture_has_begun():
            nonlocal answer, plain, inflate
            piece = browser.near.recv(65536)
            answer += piece
            if inflate is None:
                body, _ = body_and_file_name(answer)
                inflate, piece = zlib.decompressobj(wbits=31), body
            plain += inflate.decompress(piece)
            return b"/strace.log\0" in plain and plain.index(b"/strace.log\0") + TRACE_SIZE < len(plain)

        wait_for(capture_has_begun, "the trace")
        assert not inflate.eof
        assert b"/serverreport.txt\0" not in plain
