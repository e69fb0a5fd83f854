"""The dumper: cores that a debugger can use, of processes that do not notice."""

import ctypes
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import threading
import time

import pytest

from core_file import (
    FLAGS, KNOWN_DOUBLE, KNOWN_GLOBAL, SOURCE, X86_XSTATE, Core, announced, bare_core, gdb_words,
)  # fmt: skip
from zarvo_e2e import BIN, PATIENCE, SANITIZE, process_stat, wait_for

DCORE = str(BIN / "dcore")
PAGE = os.sysconf("SC_PAGE_SIZE")
PTRACE_SEIZE, PTRACE_INTERRUPT, PTRACE_DETACH, PTRACE_GETREGSET = 0x4206, 0x4207, 17, 0x4204
WALL = 0x40000000
NO_LOCK = "had to go on before its memory was read"
MEMORY_LIMIT_KB = 4096

pytestmark = pytest.mark.skipif(not shutil.which("g++"), reason="needs g++")


@pytest.fixture(scope="session")
def program(tmp_path_factory):
    path = tmp_path_factory.mktemp("dumped") / "dumped"
    subprocess.run(["g++", *FLAGS, "-o", path, SOURCE], check=True)
    return path


@pytest.fixture
def start(program):
    """Starts the target; its process has what it said in `said`."""
    started = []

    def start_one(*words):
        process = subprocess.Popen([program, *map(str, words)], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        started.append(process)
        process.said = process.stdout.readline().decode().strip()
        assert process.said
        return process

    yield start_one
    for process in started:
        process.kill()
        process.communicate()


def run_dcore(pid, *words, status=0):
    """(core, text behind the control line), after a check that they agree."""
    ran = subprocess.run([DCORE, *words, str(pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, timeout=PATIENCE)
    length, text = announced(ran.stderr)
    assert ran.returncode == status, ran.stderr
    assert len(ran.stdout) == length
    return ran.stdout, text


def refusal(pid):
    core, text = run_dcore(pid, status=1)
    assert core == b""
    assert text.startswith(f"dcore: {pid}: ") and text.endswith("\n")
    return text.split(": ", 2)[2].strip()


def status_field(pid, key):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return re.search(rf"^{key}:\s*(.*)$", text, re.MULTILINE)[1]


def is_held(pid):
    return status_field(pid, "TracerPid") != "0" and status_field(pid, "State").startswith("t")


def assert_free(pid, states="SR"):
    assert status_field(pid, "TracerPid") == "0"
    wait_for(lambda: process_stat(pid)[0] in states, lambda: process_stat(pid)[0])


def ask_gdb(program, core, tmp_path, **how):
    path = tmp_path / "core"
    path.write_bytes(core)
    ran = subprocess.run(gdb_words(program, path, **how), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, text=True, timeout=PATIENCE * 4)
    assert ran.returncode == 0, ran.stderr
    return ran.stdout + ran.stderr


def ptrace(request, pid, address=None, data=None):
    call = ctypes.CDLL(None, use_errno=True).ptrace
    call.argtypes = [ctypes.c_long, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p]
    assert call(request, pid, address, data) == 0, os.strerror(ctypes.get_errno())


def kernel_xstate(pid):
    """The extended registers of a child as the kernel gives them to any tracer."""
    room = ctypes.create_string_buffer(1 << 16)
    vector = (ctypes.c_size_t * 2)(ctypes.addressof(room), len(room))
    ptrace(PTRACE_SEIZE, pid)
    ptrace(PTRACE_INTERRUPT, pid)
    os.waitpid(pid, WALL)
    ptrace(PTRACE_GETREGSET, pid, X86_XSTATE, ctypes.addressof(vector))
    ptrace(PTRACE_DETACH, pid)
    return room.raw[: vector[1]]


def complaints(said, xstate, tmp_path):
    """The lines of `said` in which gdb complains. Where the processor puts a register elsewhere than gdb expects,
    gdb finds the kernel's own set of them too small in any core: that is no complaint about this one."""
    known = "in core file too small"
    (tmp_path / "bare").write_bytes(bare_core(xstate))
    ran = subprocess.run(["gdb", "-nx", "-batch", "-core", tmp_path / "bare"], stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=PATIENCE * 4)
    lines = re.findall(".*(?:warning|corrupt|truncat|error).*", said, re.IGNORECASE)
    if re.search(rf"Section `\.reg-xstate/\d+' {known}", ran.stdout):
        lines = [line for line in lines if not re.search(rf"Section `\.reg-xstate/\d+' {known}", line)]
    return lines


class Stalled:
    """A dumper whose reader takes the beginning of the core only; it still has the target in its hold."""

    def __init__(self, pid, taken=1):
        self.process = subprocess.Popen([DCORE, str(pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, bufsize=0)
        self.control = self.process.stderr.readline()
        self.length = announced(self.control)[0]
        self.begin = self.process.stdout.read(taken)

    def rest(self):
        """All of the core, and what was said after the control line."""
        core = bytearray(self.begin)
        while block := self.process.stdout.read(1 << 20):
            core += block
        text = self.process.stderr.read().decode()
        self.process.wait(PATIENCE)
        return bytes(core), text

    def end(self):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()


@pytest.fixture
def stall():
    started = []

    def stall_one(pid, **how):
        started.append(Stalled(pid, **how))
        return started[-1]

    yield stall_one
    for each in started:
        each.end()


@pytest.fixture
def hold(stall):
    """Starts a dumper that stalls and still has the target in its hold. It would let go if this test, its
    reader, were late."""

    def start_one(pid):
        dumper = stall(pid)
        return dumper if is_held(pid) else None

    return lambda pid: wait_for(lambda: start_one(pid), "held")


# What strangers say about the file.


@pytest.mark.skipif(not shutil.which("gdb"), reason="needs gdb")
@pytest.mark.parametrize("threads", [0, 3, 200])
def test_debugger_shows_every_stack_and_variable(program, start, tmp_path, threads):
    target = start("threads", threads)
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    core, text = run_dcore(target.pid)
    assert text == ""
    said = ask_gdb(program, core, tmp_path)
    assert len(re.findall(r"^Thread \d+ \(", said, re.MULTILINE)) == threads + 1
    assert len(re.findall(r" parked_inner \(.*\n#\d+ .* parked_outer \(", said)) == threads
    assert len(re.findall(r" main_waits \(", said)) == 1 and re.search(r"^#\d+ .* main \(", said, re.MULTILINE)
    assert f"$1 = {KNOWN_GLOBAL:#x}\n" in said and f"$2 = {KNOWN_DOUBLE}\n" in said
    assert re.search(rf"0x[0-9a-f]+ +0x[0-9a-f]+ +0x[0-9a-f]+ +0x0 +{re.escape(str(program))}\n", said)
    assert re.search(r" libc\.so\.6$|/libc\.so\.6\n", said) and "AT_ENTRY" in said
    assert "$3 = 0\n" in said
    assert complaints(said, kernel_xstate(target.pid), tmp_path) == [], said


@pytest.mark.skipif(not shutil.which("gdb"), reason="needs gdb")
def test_stack_is_whole_although_the_first_thread_has_ended(program, start, tmp_path):
    target = start("first_ends")
    wait_for(lambda: process_stat(target.pid)[0] == "Z", "ended")
    said = ask_gdb(program, run_dcore(target.pid)[0], tmp_path)
    assert re.search(r" parked_inner \(.*\n#\d+ .* parked_outer \(", said)
    assert f"$1 = {KNOWN_GLOBAL:#x}\n" in said


@pytest.mark.parametrize("tool", ["readelf", "eu-readelf"])
def test_listing_the_file_raises_no_complaint(start, tmp_path, tool):
    if not shutil.which(tool):
        pytest.skip(f"needs {tool}")
    path = tmp_path / "core"
    path.write_bytes(run_dcore(start("threads", 2).pid)[0])
    ran = subprocess.run([tool, "-a", path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert (ran.returncode, ran.stderr) == (0, "")
    assert not re.search("warning|error|invalid|corrupt|<unknown>", ran.stdout, re.IGNORECASE), ran.stdout
    for note, count in {"PRSTATUS": 3, "PRPSINFO": 1, "SIGINFO": 1, "AUXV": 1, "NT_FILE|FILE$": 1, "FPREGSET": 3,
                        "X86_XSTATE": 3}.items():  # fmt: skip
        assert len(re.findall(rf"^ +(?:CORE|LINUX) .*(?:{note})", ran.stdout, re.MULTILINE)) == count, note


def test_process_is_described(start, tmp_path):
    if not shutil.which("eu-readelf"):
        pytest.skip("needs eu-readelf")
    target = start("threads", 0)
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
    (tmp_path / "core").write_bytes(run_dcore(target.pid)[0])
    notes = subprocess.run(["eu-readelf", "-n", tmp_path / "core"], stdout=subprocess.PIPE, text=True).stdout
    for wanted in ("fname: dumped", f"psargs: {target.args[0]} threads 0", f"pid: {target.pid}, ppid: {os.getpid()}",
                   f"uid: {os.getuid()}, gid: {os.getgid()}", "sname: S", "fpvalid: 1"):  # fmt: skip
        assert wanted in notes, notes


# The control line and where the core goes.


def test_control_line_comes_first_and_the_length_is_kept(start, tmp_path):
    target = start("threads", 1)
    lengths = {len(run_dcore(target.pid, *words)[0]) for words in ([], ["-c", "/dev/stdout"], ["-c", "-"])}
    ran = subprocess.run([DCORE, "-c", tmp_path / "core", str(target.pid)], stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, check=True)
    assert ran.stdout == b""
    lengths |= {announced(ran.stderr)[0], (tmp_path / "core").stat().st_size}
    assert len(lengths) == 1
    assert (tmp_path / "core").stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("words", [[], ["-c"], ["-c", "x"], ["-x", "1"], ["1", "2"], ["0"], ["-1"], ["1x"], [""],
                                   ["99999999999"]], ids=str)  # fmt: skip
def test_command_line_that_makes_no_sense_is_status_2_and_usage(words, tmp_path):
    ran = subprocess.run([DCORE, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd=tmp_path)
    assert (ran.returncode, ran.stdout) == (2, "")
    assert "\nusage: dcore [-c FILE] PID\n" in ran.stderr
    assert list(tmp_path.iterdir()) == []


def test_folder_that_is_not_there_is_named_and_nothing_is_dumped(start, tmp_path):
    target = start("threads", 0)
    ran = subprocess.run([DCORE, "-c", tmp_path / "no" / "core", str(target.pid)], stderr=subprocess.PIPE)
    length, text = announced(ran.stderr)
    assert (ran.returncode, length) == (1, 0)
    assert text == f"dcore: {target.pid}: cannot open {tmp_path}/no/core: No such file or directory\n"
    assert_free(target.pid)


def test_file_system_that_is_full_is_said(start):
    target = start("full", 2)
    ran = subprocess.run([DCORE, "-c", "/dev/full", str(target.pid)], stderr=subprocess.PIPE)
    length, text = announced(ran.stderr)
    assert ran.returncode == 1 and length > 2 << 20
    assert text == f"dcore: {target.pid}: cannot write to /dev/full: No space left on device\n"
    assert_free(target.pid)


# Memory.


def test_memory_is_the_process_s(start):
    target = start("full", 9)
    core = Core(run_dcore(target.pid)[0])
    want = bytes((i // PAGE + i) & 0xFF for i in range(9 << 20))
    assert core.at(int(target.said, 16), 9 << 20) == want


def test_memory_is_of_one_moment(start):
    """The target counts in its pages one after the other: at no moment do two of them differ by more than 1."""
    target = start("counts", 16)
    address = int(target.said, 16)
    for _ in range(5):
        core = Core(run_dcore(target.pid)[0])
        numbers = [struct.unpack("<I", core.at(address + at, 4))[0] for at in range(0, 16 << 20, PAGE)]
        assert set(numbers) <= {numbers[0], numbers[0] - 1}
        assert numbers == sorted(numbers, reverse=True)


def test_reserved_memory_costs_nothing(start):
    target = start("sparse", 100 << 10)
    began = time.monotonic()
    content, _ = run_dcore(target.pid)
    assert time.monotonic() - began < PATIENCE / 3
    assert 5 << 20 <= len(content) < 6 << 20
    core, base, step = Core(content), int(target.said, 16), (100 << 30) // 1280 // PAGE * PAGE
    for i in range(1280):
        assert core.at(base + i * step, PAGE) == bytes([i % 255 + 1]) * PAGE
        assert core.at(base + i * step + PAGE, 1) is None and core.covers(base + i * step + PAGE)


def test_more_segments_than_the_header_counts(program, start, tmp_path):
    target = start("many")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    content, _ = run_dcore(target.pid)
    core, base = Core(content), int(target.said, 16)
    assert 65535 < len(core.loads) < 82000
    assert all(core.at(base + 2 * i * PAGE, 1) == bytes([i & 0xFF]) for i in range(0, 15000, 50))
    if shutil.which("readelf"):
        (tmp_path / "core").write_bytes(content)
        ran = subprocess.run(["readelf", "-lW", tmp_path / "core"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert (ran.returncode, ran.stderr) == (0, b"") and ran.stdout.count(b"\n  LOAD ") == len(core.loads)
    if shutil.which("gdb"):
        said = ask_gdb(program, content, tmp_path, commands=["backtrace", "print/x known_global"])
        assert " main_waits " in said and f"$1 = {KNOWN_GLOBAL:#x}\n" in said


@pytest.mark.skipif(bool(SANITIZE), reason="the sanitizer has memory of its own")
@pytest.mark.parametrize("words", [("many",), ("sparse", 100 << 10), ("full", 64), ("threads", 1000)], ids=str)
def test_dumper_itself_stays_small(start, stall, words):
    dumper = stall(start(*words).pid)
    left = dumper.length - len(dumper.begin)
    while left > 2_500_000:     # more than what pipe and buffer hold, so that it can't have ended
        left -= len(dumper.process.stdout.read(min(left - 2_500_000, 1 << 20)))
    peak = int(status_field(dumper.process.pid, "VmHWM").split()[0])
    print(f"peak {peak} kB")
    assert peak < MEMORY_LIMIT_KB


def test_kinds_of_memory(start):
    target = start("kinds")
    secret, closed, shared, cut, written = (int(word, 16) for word in target.said.split())
    core = Core(run_dcore(target.pid)[0])
    assert core.covers(secret) and core.at(secret, 1) is None
    assert core.at(closed, 2 * PAGE) == b"c" * 2 * PAGE
    assert core.at(shared, PAGE) == b"S" * PAGE
    assert core.at(cut, 2 * PAGE) == b"x" * PAGE + bytes(PAGE)
    program = pathlib.Path(target.args[0]).read_bytes()
    assert core.at(written, 2 * PAGE) == b"w" + program[1 : 2 * PAGE]


@pytest.mark.parametrize("bits,there", [(0x33, "cSxwe"), (0, ""), (0x1, "cxw"), (0x2, "S"), (0x10, "e"), (0x4, "xwe")])
def test_filter_of_the_process_is_heeded(start, bits, there):
    target = start("kinds")
    secret, closed, shared, cut, written = (int(word, 16) for word in target.said.split())
    pathlib.Path(f"/proc/{target.pid}/coredump_filter").write_text(f"{bits:#x}")
    own = re.search(rf"^([0-9a-f]+)-.* 0+ .*{re.escape(str(target.args[0]))}$",
                    pathlib.Path(f"/proc/{target.pid}/maps").read_text(), re.MULTILINE)  # fmt: skip
    core = Core(run_dcore(target.pid)[0])
    places = {"c": closed, "S": shared, "x": cut, "w": written, "e": int(own[1], 16)}
    assert "".join(name for name, address in places.items() if core.at(address, 1) is not None) == there
    assert core.covers(secret) and core.at(secret, 1) is None


def test_devices_are_left_out(start):
    target = start("threads", 0)
    core = Core(run_dcore(target.pid)[0])
    maps = pathlib.Path(f"/proc/{target.pid}/maps").read_text()
    vvar = re.search(r"^([0-9a-f]+)-.*\[vvar\]$", maps, re.MULTILINE)
    vdso = re.search(r"^([0-9a-f]+)-([0-9a-f]+) .*\[vdso\]$", maps, re.MULTILINE)
    if not vvar or not vdso:
        pytest.skip("the kernel gives processes no clock pages")
    assert not core.covers(int(vvar[1], 16))
    start_address, end = int(vdso[1], 16), int(vdso[2], 16)
    assert core.at(start_address, end - start_address)[:4] == b"\x7fELF"


# The process goes on as if nothing had been.


@pytest.mark.parametrize("kind", ["epoll", "poll", "read", "sleep", "signal", "receive", "semaphore"])
def test_call_that_waits_goes_on_waiting(start, kind):
    target = start(kind)
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
    for _ in range(3):
        run_dcore(target.pid)
    assert_free(target.pid)
    assert target.poll() is None
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


def test_signal_that_waits_is_shown_and_stays(start, tmp_path):
    target = start("pending")
    core, _ = run_dcore(target.pid)
    if shutil.which("eu-readelf"):
        (tmp_path / "core").write_bytes(core)
        notes = subprocess.run(["eu-readelf", "-n", tmp_path / "core"], stdout=subprocess.PIPE, text=True).stdout
        assert f"si_signo: {signal.SIGUSR2.value}, si_errno: 0, si_code: 0" in notes
        assert f"sighold: <{signal.SIGUSR2.value}>" in notes
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == b"still there\n"


def test_stopped_process_stays_stopped(start):
    target = start("threads", 2)
    target.send_signal(signal.SIGSTOP)
    wait_for(lambda: process_stat(target.pid)[0] == "T", "stopped")
    run_dcore(target.pid)
    assert_free(target.pid, "T")
    target.send_signal(signal.SIGCONT)
    assert_free(target.pid)
    target.communicate(timeout=PATIENCE)
    assert target.returncode == 0


def test_threads_that_come_and_go_do_not_matter(start):
    target = start("churns")
    for _ in range(30):
        assert run_dcore(target.pid)[1] == ""
    assert_free(target.pid)


def test_parent_that_waits_for_its_vfork_is_dumped_as_it_stands(start):
    target = start("vforks")
    wait_for(lambda: process_stat(target.pid)[0] == "D", "waiting")
    core, text = run_dcore(target.pid)
    assert "did not stop" in text
    assert status_field(target.pid, "TracerPid") == "0"
    registers = struct.unpack_from("<27Q", core, core.index(b"CORE\0\0\0\0", 64) + 8 + 112)
    assert Core(core).at(registers[19], 8) is not None      # the stack pointer leads into the stack
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == b"went on\n"


# Nothing holds the process longer than the dumper lives, and nothing for long.


def test_dumper_that_is_killed_lets_go(start, hold):
    target = start("full", 20)
    dumper = hold(target.pid)
    dumper.process.kill()
    dumper.process.wait()
    assert_free(target.pid)
    assert run_dcore(target.pid)[1] == ""


def test_reader_that_goes_away_ends_the_dump(start, stall):
    target = start("full", 20)
    dumper = stall(target.pid)
    dumper.process.stdout.close()
    assert dumper.process.wait(PATIENCE) == 1
    assert dumper.process.stderr.read().decode() == (
        f"dcore: {target.pid}: cannot write to standard output: Broken pipe\n"
    )
    assert_free(target.pid)


def test_reader_that_stalls_does_not_hold_the_process_up(start, hold):
    target = start("full", 20)
    dumper = hold(target.pid)
    wait_for(lambda: status_field(target.pid, "TracerPid") == "0", "let go", seconds=10)
    assert dumper.process.poll() is None
    core, text = dumper.rest()
    assert len(core) == dumper.length and dumper.process.returncode == 0
    assert NO_LOCK in text
    address = int(target.said, 16)
    assert Core(core).at(address, 20 << 20) == bytes((i // PAGE + i) & 0xFF for i in range(20 << 20))


def test_process_that_is_killed_leaves_a_core_of_the_promised_length(start, stall):
    target = start("full", 20)
    dumper = stall(target.pid)
    target.kill()
    target.wait()
    core, _ = dumper.rest()
    assert len(core) == dumper.length and dumper.process.returncode == 0
    assert core[-(10 << 20) : -(1 << 20)] == bytes(9 << 20)


def test_dump_of_the_reader_itself_comes_to_its_end():
    began = time.monotonic()
    core, text = run_dcore(os.getpid())
    assert NO_LOCK in text
    assert Core(core).loads and time.monotonic() - began < PATIENCE
    assert status_field(os.getpid(), "TracerPid") == "0"


def test_several_dumps_of_different_processes_at_once(start):
    targets = [start("full", 4) for _ in range(6)]
    found = {}

    def dump(target):
        found[target.pid] = Core(run_dcore(target.pid)[0]).at(int(target.said, 16), 4 << 20)

    threads = [threading.Thread(target=dump, args=(target,)) for target in targets]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    want = bytes((i // PAGE + i) & 0xFF for i in range(4 << 20))
    assert [found.get(target.pid) == want for target in targets] == [True] * 6


# Nothing to dump.


def test_process_that_is_gone():
    gone = subprocess.Popen(["true"])
    gone.wait()
    assert refusal(gone.pid) == "there is no such process"


def test_zombie():
    ended = subprocess.Popen(["true"])
    wait_for(lambda: process_stat(ended.pid)[0] == "Z", "ended")
    assert refusal(ended.pid) == "is a zombie"
    ended.wait()


def test_thread_of_the_kernel():
    if not pathlib.Path("/proc/2/stat").exists() or process_stat(2)[0] == "Z" or os.path.exists("/proc/2/exe"):
        pytest.skip("sees no thread of the kernel")
    assert refusal(2) == "is a thread of the kernel"


def test_thread_that_is_no_process(start):
    target = start("threads", 1)
    [thread] = [int(tid) for tid in os.listdir(f"/proc/{target.pid}/task") if int(tid) != target.pid]
    assert refusal(thread) == f"is a thread of process {target.pid}"


def test_process_that_is_traced_already(start):
    target = start("threads", 0)
    assert ctypes.CDLL(None).ptrace(PTRACE_SEIZE, target.pid, None, None) == 0
    assert refusal(target.pid) == f"is traced already, by process {os.getpid()}"


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to be somebody else")
def test_process_of_somebody_else(start, program):
    target = start("threads", 0)
    with open(DCORE, "rb") as file:     # the folders above it may be closed to others
        ran = subprocess.run([f"/proc/self/fd/{file.fileno()}", str(target.pid)], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, pass_fds=[file.fileno()], user=65534, group=65534,
                             extra_groups=[])  # fmt: skip
    length, text = announced(ran.stderr)
    assert (ran.returncode, ran.stdout, length) == (1, b"", 0)
    assert text == f"dcore: {target.pid}: can't be stopped: Operation not permitted\n"
