"""The dumper: cores that a debugger can use, of processes that do not notice."""

import contextlib
import ctypes
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import struct
import subprocess
import threading
import time

import pytest

from core_file import (
    FLAGS, FPREGSET, KNOWN_DOUBLE, KNOWN_GLOBAL, SOURCE, X86_XSAVE_LAYOUT, X86_XSTATE, Core, announced, bare_core, gdb_words,
)  # fmt: skip
from zarvo_e2e import BIN, PATIENCE, SANITIZE, process_stat, wait_for, without_leak_check

DCORE = str(BIN / "dcore")
PAGE = os.sysconf("SC_PAGE_SIZE")
PTRACE_SEIZE, PTRACE_INTERRUPT, PTRACE_DETACH, PTRACE_GETREGSET = 0x4206, 0x4207, 17, 0x4204
WALL = 0x40000000
NO_LOCK = "had to go on before its memory was read"
MEMORY_LIMIT_KB = 4096
DUMP_LIMIT = 20 if SANITIZE else 2  # seconds, for a small process
YMM_HIGH, MASKS, ZMM_HIGH, ZMM_16_TO_31 = 2, 5, 6, 7    # parts of the extended registers
FAST = os.environ.get("ZARVO_FAST") == "1" and os.environ.get("ZARVO_SLOW") != "1"

signals_interrupt_calls = pytest.mark.skipif(
    SANITIZE == "thread", reason="the sanitizer holds a signal back until the call that it interrupts returns")

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


def pending(pid):
    """The signals that wait for the process, as a set of bits."""
    return int(status_field(pid, "ShdPnd"), 16)


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


@contextlib.contextmanager
def dumping(pid, file):
    """A dumper that writes to `file`, and is killed at the end."""
    dumper = subprocess.Popen([DCORE, "-c", file, str(pid)], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        yield dumper
    finally:
        dumper.kill()
        dumper.communicate()


@contextlib.contextmanager
def traced(tid):
    """A thread of a child, which runs; one that has ended is reaped."""
    ptrace(PTRACE_SEIZE, tid)
    try:
        yield
    finally:
        with contextlib.suppress(AssertionError):   # when it has ended
            ptrace(PTRACE_INTERRUPT, tid)
        if os.WIFSTOPPED(os.waitpid(tid, WALL)[1]):
            ptrace(PTRACE_DETACH, tid)


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
    # The kernel's note of where a processor has its registers is younger than many a tool.
    said = re.sub(rf"^ +LINUX +\d+ +<unknown>: {X86_XSAVE_LAYOUT}$", "", ran.stdout, flags=re.MULTILINE)
    assert not re.search("warning|error|invalid|corrupt|<unknown>", said, re.IGNORECASE), ran.stdout
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


def test_program_and_libraries_are_found_by_their_build_ids(program, start, tmp_path):
    if not shutil.which("eu-unstrip"):
        pytest.skip("needs eu-unstrip")
    (tmp_path / "core").write_bytes(run_dcore(start("threads", 0).pid)[0])
    found = subprocess.run(["eu-unstrip", "-n", f"--core={tmp_path}/core"], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, text=True)  # fmt: skip
    assert (found.returncode, found.stderr) == (0, "")
    for name in (str(program), next(re.finditer(r"\S+/libc\.so\.6", found.stdout))[0]):
        notes = subprocess.run(["eu-readelf", "-n", name], stdout=subprocess.PIPE, text=True).stdout
        build = re.search(r"Build ID: ([0-9a-f]+)", notes)[1]
        assert re.search(rf"^\S+ {build}@\S+ .*{re.escape(name)}", found.stdout, re.MULTILINE), found.stdout


# Registers. The program says how it filled them.


def vector(row, begin, end):
    return bytes(row * 7 + i + 1 & 0xFF for i in range(begin, end))


def test_registers_of_floating_point_numbers_and_vectors(start):
    target = start("registers")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    [floats] = Core(run_dcore(target.pid)[0]).notes_of(FPREGSET)
    for i in range(8):
        mantissa, exponent = struct.unpack_from("<QH", floats, 32 + i * 16)
        assert mantissa * 2.0 ** (exponent - 16383 - 63) == i + 0.5
    for row in range(16):
        assert floats[160 + row * 16 :][:16] == vector(row, 0, 16)


def test_registers_that_only_some_processors_have(start):
    target = start("registers")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    core = Core(run_dcore(target.pid)[0])
    if target.said == "sse":
        pytest.skip("the processor has no such registers")
    [state], [layout] = core.notes_of(X86_XSTATE), core.notes_of(X86_XSAVE_LAYOUT)
    parts = {part: state[at:][:size] for part, size, at, _ in struct.iter_unpack("<4I", layout)}
    for row in range(16):
        assert parts[YMM_HIGH][row * 16 :][:16] == vector(row, 16, 32)
    if target.said == "avx512":
        assert parts[MASKS][8:16] == struct.pack("<Q", 0x1234)
        assert parts[ZMM_16_TO_31][:64] == vector(16, 0, 64)
        for row in range(16):
            assert parts[ZMM_HIGH][row * 32 :][:32] == vector(row, 32, 64)


def test_description_of_the_registers_is_the_kernel_s(start, tmp_path):
    """Where crashes leave a file and the kernel is one that describes them."""
    if pathlib.Path("/proc/sys/kernel/core_pattern").read_text().strip() != "core":
        pytest.skip("crashes leave no file beside the program")
    words = [start("threads", 0).args[0], "threads", "1"]
    limit = resource.getrlimit(resource.RLIMIT_CORE)[1]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd=tmp_path,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (limit, limit))) as target:
        target.stdout.readline()
        ours = Core(run_dcore(target.pid)[0])
        target.send_signal(signal.SIGSEGV)
    found = list(tmp_path.glob("core*"))
    if not found or not (theirs := Core(found[0].read_bytes())).notes_of(X86_XSAVE_LAYOUT):
        pytest.skip("the kernel left no such core")
    assert ours.notes_of(X86_XSAVE_LAYOUT) == theirs.notes_of(X86_XSAVE_LAYOUT)
    assert [kind for kind, _ in ours.notes] == [kind for kind, _ in theirs.notes]


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
    secret, closed, shared, cut, written, _ = (int(word, 16) for word in target.said.split())
    core = Core(run_dcore(target.pid)[0])
    assert core.covers(secret) and core.at(secret, 1) is None
    assert core.at(closed, 2 * PAGE) == b"c" * 2 * PAGE
    assert core.at(shared, PAGE) == b"S" * PAGE
    assert core.at(cut, 2 * PAGE) == b"x" * PAGE + bytes(PAGE)
    program = pathlib.Path(target.args[0]).read_bytes()
    assert core.at(written, 2 * PAGE) == b"w" + program[1 : 2 * PAGE]


@pytest.mark.parametrize("bits,there", [(0x33, "cSxwe"), (0, ""), (0x1, "cxw"), (0x2, "S"), (0x10, "e"),
                                        (0x4, "xwe"), (0x8, "f")])  # fmt: skip
def test_filter_of_the_process_is_heeded(start, bits, there):
    target = start("kinds")
    secret, closed, shared, cut, written, of_file = (int(word, 16) for word in target.said.split())
    pathlib.Path(f"/proc/{target.pid}/coredump_filter").write_text(f"{bits:#x}")
    own = re.search(rf"^([0-9a-f]+)-.* 0+ .*{re.escape(str(target.args[0]))}$",
                    pathlib.Path(f"/proc/{target.pid}/maps").read_text(), re.MULTILINE)  # fmt: skip
    core = Core(run_dcore(target.pid)[0])
    places = {"c": closed, "S": shared, "x": cut, "w": written, "e": int(own[1], 16), "f": of_file}
    assert "".join(name for name, address in places.items() if core.at(address, 1) is not None) == there
    assert core.covers(secret) and core.at(secret, 1) is None
    if "f" in there:
        assert core.at(of_file, 2 * PAGE) == b"f" * 2 * PAGE


@pytest.mark.parametrize("bits,there", [(0, ""), (0x1, ""), (0x20, "p"), (0x40, "s"), (0x60, "ps")])
def test_filter_tells_huge_pages_from_others(start, bits, there):
    target = start("huge")
    places = dict(zip("ps", target.said.split()))
    if "(nil)" in places.values():
        pytest.skip("the machine has no huge pages reserved")
    pathlib.Path(f"/proc/{target.pid}/coredump_filter").write_text(f"{bits:#x}")
    core = Core(run_dcore(target.pid)[0])
    for name, address in places.items():
        for at in (int(address, 16), int(address, 16) + (2 << 20) - PAGE):
            assert core.at(at, PAGE) == (name.encode() * PAGE if name in there else None)


def test_page_that_the_kernel_makes_huge_is_as_any_other(start):
    target = start("huge")
    address = int(target.said.split()[2], 16)
    core = Core(run_dcore(target.pid)[0])
    for at in (address, address + (2 << 20) - PAGE):
        assert core.at(at, PAGE) == b"t" * PAGE


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


@pytest.mark.parametrize("kind", ["epoll", "poll", "read", "sleep", "signal", "receive", "semaphore",
                                  "send_many", "send_file", "splice", "uring"])  # fmt: skip
def test_call_that_waits_goes_on_waiting(start, kind):
    target = start(kind)
    wait_for(lambda: process_stat(target.pid)[0] in "SZ", "asleep")
    if process_stat(target.pid)[0] == "Z":
        assert target.communicate()[0].startswith(b"-2 ")
        pytest.skip("the kernel has no such call")
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


def queue_signals(pid, count):
    for _ in range(count):
        os.kill(pid, signal.SIGRTMIN)


def test_signals_that_arrive_during_a_dump_are_all_handled_after_it(start, hold):
    target = start("signals", 20)
    rounds = 0

    def held_all_the_time():
        nonlocal rounds
        rounds += 1
        dumper = hold(target.pid)
        target.send_signal(signal.SIGUSR1)
        queue_signals(target.pid, 7)
        held = is_held(target.pid)
        dumper.end()
        # A usual signal counts once, however often it is sent before it is handled.
        wait_for(lambda: not pending(target.pid), "handled")
        return held

    wait_for(held_all_the_time, "held all the time")
    assert_free(target.pid)
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == f"{rounds} {rounds * 7}\n".encode()


@pytest.mark.parametrize("number,states", [(signal.SIGSTOP, "T"), (signal.SIGCONT, "SR")])
def test_stop_or_its_end_that_arrives_during_a_dump_takes_effect_after_it(start, hold, number, states):
    target = start("signals", 20)

    def held_all_the_time():
        if number == signal.SIGCONT:
            target.send_signal(signal.SIGSTOP)
            assert_free(target.pid, "T")
        dumper = hold(target.pid)
        target.send_signal(number)
        held = is_held(target.pid)
        dumper.end()
        assert_free(target.pid, states)
        target.send_signal(signal.SIGCONT)
        assert_free(target.pid)
        return held

    wait_for(held_all_the_time, "held all the time")
    target.communicate(timeout=PATIENCE)
    assert target.returncode == 0


def dump_again_and_again(target, times):
    """How many of the dumps gave a core; each comes to its end in time."""
    whole = 0
    for _ in range(times):
        ran = subprocess.run([DCORE, str(target.pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, timeout=DUMP_LIMIT)
        whole += ran.returncode == 0 and len(ran.stdout) == announced(ran.stderr)[0]
        assert target.poll() is None
    return whole


@signals_interrupt_calls
@pytest.mark.parametrize("threads", [0, 1, 4, 30])
def test_program_that_starts_programs_all_the_time_is_dumped_and_goes_on(start, threads):
    target = start("execs", threads)
    assert dump_again_and_again(target, 100) >= 98
    assert_free(target.pid)


@signals_interrupt_calls
@pytest.mark.skipif(FAST, reason="ZARVO_FAST=1: takes a minute")
def test_three_thousand_dumps_of_a_program_that_starts_programs_all_the_time(start):
    target, other = start("execs", 4), start("execs", 30)
    times = 1500 // (10 if SANITIZE else 1)
    whole = [0, 0]

    def dump(index, each):
        whole[index] = dump_again_and_again(each, times)

    threads = [threading.Thread(target=dump, args=pair) for pair in enumerate((target, other))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print(f"{whole} of {times} each")
    assert sum(whole) >= 2 * times * 98 // 100


@signals_interrupt_calls
def test_program_that_does_not_come_to_its_start_is_given_up(start):
    """Its new image waits until the thread that we trace has been reaped, and no tracer gets in until then."""
    target = start("exec_when_told", 1)
    [thread] = [int(tid) for tid in os.listdir(f"/proc/{target.pid}/task") if int(tid) != target.pid]
    with traced(thread):
        target.stdin.write(b"x")
        target.stdin.flush()
        wait_for(lambda: process_stat(thread)[0] == "Z", "ended")
        assert refusal(target.pid) == "is starting another program and does not come to an end of it"
    wait_for(lambda: target.stdout.readline() == b"ready\n", "started")
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


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


def kill_dumper(pid, rng, longest, number):
    dumper = subprocess.Popen([DCORE, "-c", "/dev/null", str(pid)], stdin=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, env=without_leak_check())
    time.sleep(rng.uniform(0, longest))     # what is tested is any moment
    dumper.send_signal(number)
    dumper.wait()


@contextlib.contextmanager
def stream_of_signals(pid):
    """Sends signals all the time; their number is in the list that it gives."""
    sent, ended = [0], threading.Event()

    def send():
        while not ended.wait(0.0002):
            queue_signals(pid, 1)
            sent[0] += 1

    thread = threading.Thread(target=send)
    thread.start()
    try:
        yield sent
    finally:
        ended.set()
        thread.join()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_dumper_that_is_killed_at_any_moment_does_no_harm(start, number):
    rng = random.Random(number)
    began = time.monotonic()
    busy, many, execs, stopped = start("signals", 2), start("threads", 20), start("execs", 4), start("threads", 2)
    stopped.send_signal(signal.SIGSTOP)
    run_dcore(many.pid)
    longest = (time.monotonic() - began) * 2
    targets = [busy, many, execs, stopped]
    with stream_of_signals(busy.pid) as sent:
        for i in range(100):
            kill_dumper(targets[i % 4].pid, rng, longest, number)
    for target in targets:
        assert target.poll() is None
        assert_free(target.pid, "T" if target is stopped else "SRD")
    stopped.send_signal(signal.SIGCONT)
    assert sent[0] > 100 and busy.communicate(timeout=PATIENCE)[0] == f"0 {sent[0]}\n".encode()
    for target in (many, stopped):
        target.communicate(timeout=PATIENCE)
        assert target.returncode == 0


def test_call_goes_on_waiting_when_the_dumper_is_ended_at_any_moment(start):
    rng = random.Random(2)
    target = start("epoll")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
    for _ in range(100):
        kill_dumper(target.pid, rng, 0.01, signal.SIGTERM)
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


def test_process_goes_on_while_the_dumper_waits_for_a_reader(start, tmp_path):
    target = start("signals", 1)
    os.mkfifo(tmp_path / "core")
    with dumping(target.pid, tmp_path / "core") as dumper:
        wait_for(lambda: process_stat(dumper.pid)[0] == "S", "waiting")
        target.send_signal(signal.SIGUSR1)
        wait_for(lambda: process_stat(target.pid)[0] == "S" and not pending(target.pid), "handled")
        assert_free(target.pid)
        content = (tmp_path / "core").read_bytes()
        assert len(content) == announced(dumper.stderr.read())[0]
    assert target.communicate(timeout=PATIENCE)[0] == b"1 0\n"


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


def test_process_that_is_traced_for_long(start):
    target = start("threads", 0)
    with traced(target.pid):
        began = time.monotonic()
        assert refusal(target.pid) == f"is traced already, by process {os.getpid()}"
        assert time.monotonic() - began >= 6


def stays_stopped(pid):
    """For longer than the dumper takes to look again."""
    return all(process_stat(pid)[0] in "tT" and time.sleep(0.01) is None for _ in range(20))


def send_to_thread(pid, tid, number):
    """A signal for the process might be taken by a thread whose tracer, this test, does nothing about it."""
    assert ctypes.CDLL(None).tgkill(pid, tid, number) == 0


def test_process_is_dumped_when_its_tracer_has_gone_and_runs_until_then(start):
    """One thread is traced; the dumper has the others already, and they handle their signals."""
    target = start("exec_when_told", 1)
    [thread] = [int(tid) for tid in os.listdir(f"/proc/{target.pid}/task") if int(tid) != target.pid]
    with contextlib.ExitStack() as tracer:
        tracer.enter_context(traced(thread))
        with dumping(target.pid, "/dev/null") as dumper:
            wait_for(lambda: status_field(target.pid, "TracerPid") == str(dumper.pid), "waiting")
            send_to_thread(target.pid, target.pid, signal.SIGWINCH)
            send_to_thread(target.pid, target.pid, signal.SIGSTOP)
            wait_for(lambda: stays_stopped(target.pid), "stopped")
            target.send_signal(signal.SIGCONT)
            wait_for(lambda: process_stat(target.pid)[0] == "S", "going on")
            assert dumper.poll() is None
            tracer.close()
            assert announced(dumper.stderr.read())[0] > 0
            assert dumper.wait(PATIENCE) == 0
    assert_free(target.pid)


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
