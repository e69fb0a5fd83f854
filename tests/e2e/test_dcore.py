"""The dumper's core files, as debuggers and other readers see them, its command line, and what it refuses to
dump."""

import os
import pathlib
import re
import resource
import shutil
import signal
import struct
import subprocess
import time

import pytest

from support.core_file import (
    FPREGSET, KNOWN_DOUBLE, KNOWN_GLOBAL, X86_XSAVE_LAYOUT, X86_XSTATE, Core, announced, bare_core,
)  # fmt: skip
from support.dumper import DCORE, ask_gdb, kernel_xstate, refusal, run_dcore, traced
from support.processes import assert_detached, process_stat, threads_of
from support.waiting import PATIENCE, wait_for

pytest_plugins = ["dumper_fixtures"]

YMM_HIGH, MASKS, ZMM_HIGH, ZMM_16_TO_31 = 2, 5, 6, 7    # parts of the extended registers


def complaints(said, xstate, tmp_path):
    """The lines of `said` in which gdb complains about this core.

    On some processors the registers are not where gdb expects them. gdb then finds the register set too small
    in every core, also in a bare one, and that complaint does not count."""
    known = "in core file too small"
    (tmp_path / "bare").write_bytes(bare_core(xstate))
    ran = subprocess.run(["gdb", "-nx", "-batch", "-core", tmp_path / "bare"], stdin=subprocess.DEVNULL,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=PATIENCE * 4)
    lines = re.findall(".*(?:warning|corrupt|truncat|error).*", said, re.IGNORECASE)
    if re.search(rf"Section `\.reg-xstate/\d+' {known}", ran.stdout):
        lines = [line for line in lines if not re.search(rf"Section `\.reg-xstate/\d+' {known}", line)]
    return lines


# What other programs read in the file.


@pytest.mark.skipif(not shutil.which("gdb"), reason="needs gdb")
@pytest.mark.parametrize("threads", [0, 3, 200])
def test_debugger_shows_every_stack_and_variable(program, start_target, tmp_path, threads):
    target = start_target("threads", threads)
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
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
def test_core_has_all_stacks_after_the_first_thread_has_ended(program, start_target, tmp_path):
    target = start_target("first_ends")
    wait_for(lambda: process_stat(target.pid)[0] == "Z", "ended")
    said = ask_gdb(program, run_dcore(target.pid)[0], tmp_path)
    assert re.search(r" parked_inner \(.*\n#\d+ .* parked_outer \(", said)
    assert f"$1 = {KNOWN_GLOBAL:#x}\n" in said


@pytest.mark.parametrize("tool", ["readelf", "eu-readelf"])
def test_readelf_lists_the_file_without_a_complaint(start_target, tmp_path, tool):
    if not shutil.which(tool):
        pytest.skip(f"needs {tool}")
    path = tmp_path / "core"
    path.write_bytes(run_dcore(start_target("threads", 2).pid)[0])
    ran = subprocess.run([tool, "-a", path], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert (ran.returncode, ran.stderr) == (0, "")
    # Many tools are older than the note that describes the layout of the registers.
    said = re.sub(rf"^ +LINUX +\d+ +<unknown>: {X86_XSAVE_LAYOUT}$", "", ran.stdout, flags=re.MULTILINE)
    assert not re.search("warning|error|invalid|corrupt|<unknown>", said, re.IGNORECASE), ran.stdout
    for note, count in {"PRSTATUS": 3, "PRPSINFO": 1, "SIGINFO": 1, "AUXV": 1, "NT_FILE|FILE$": 1, "FPREGSET": 3,
                        "X86_XSTATE": 3}.items():  # fmt: skip
        assert len(re.findall(rf"^ +(?:CORE|LINUX) .*(?:{note})", ran.stdout, re.MULTILINE)) == count, note


def test_notes_describe_the_process(start_target, tmp_path):
    if not shutil.which("eu-readelf"):
        pytest.skip("needs eu-readelf")
    target = start_target("threads", 0)
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
    (tmp_path / "core").write_bytes(run_dcore(target.pid)[0])
    notes = subprocess.run(["eu-readelf", "-n", tmp_path / "core"], stdout=subprocess.PIPE, text=True).stdout
    for wanted in ("fname: dumped", f"psargs: {target.args[0]} threads 0", f"pid: {target.pid}, ppid: {os.getpid()}",
                   f"uid: {os.getuid()}, gid: {os.getgid()}", "sname: S", "fpvalid: 1"):  # fmt: skip
        assert wanted in notes, notes


def test_program_and_libraries_are_found_by_their_build_ids(program, start_target, tmp_path):
    if not shutil.which("eu-unstrip"):
        pytest.skip("needs eu-unstrip")
    (tmp_path / "core").write_bytes(run_dcore(start_target("threads", 0).pid)[0])
    found = subprocess.run(["eu-unstrip", "-n", f"--core={tmp_path}/core"], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, text=True)  # fmt: skip
    assert (found.returncode, found.stderr) == (0, "")
    for name in (str(program), next(re.finditer(r"\S+/libc\.so\.6", found.stdout))[0]):
        notes = subprocess.run(["eu-readelf", "-n", name], stdout=subprocess.PIPE, text=True).stdout
        build = re.search(r"Build ID: ([0-9a-f]+)", notes)[1]
        assert re.search(rf"^\S+ {build}@\S+ .*{re.escape(name)}", found.stdout, re.MULTILINE), found.stdout


# Registers. The program's first line says which ones it filled.


def vector(row, begin, end):
    return bytes(row * 7 + i + 1 & 0xFF for i in range(begin, end))


def test_core_has_the_floating_point_and_vector_registers(start_target):
    target = start_target("registers")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    [floats] = Core(run_dcore(target.pid)[0]).notes_of(FPREGSET)
    for i in range(8):
        mantissa, exponent = struct.unpack_from("<QH", floats, 32 + i * 16)
        assert mantissa * 2.0 ** (exponent - 16383 - 63) == i + 0.5
    for row in range(16):
        assert floats[160 + row * 16 :][:16] == vector(row, 0, 16)


def test_core_has_the_registers_that_only_some_processors_have(start_target):
    target = start_target("registers")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "waiting")
    core = Core(run_dcore(target.pid)[0])
    if target.said == "sse":
        pytest.skip("the processor has no AVX registers")
    [state], [layout] = core.notes_of(X86_XSTATE), core.notes_of(X86_XSAVE_LAYOUT)
    parts = {part: state[at:][:size] for part, size, at, _ in struct.iter_unpack("<4I", layout)}
    for row in range(16):
        assert parts[YMM_HIGH][row * 16 :][:16] == vector(row, 16, 32)
    if target.said == "avx512":
        assert parts[MASKS][8:16] == struct.pack("<Q", 0x1234)
        assert parts[ZMM_16_TO_31][:64] == vector(16, 0, 64)
        for row in range(16):
            assert parts[ZMM_HIGH][row * 32 :][:32] == vector(row, 32, 64)


def test_register_layout_is_described_as_in_the_kernels_cores(start_target, tmp_path):
    if pathlib.Path("/proc/sys/kernel/core_pattern").read_text().strip() != "core":
        pytest.skip("needs /proc/sys/kernel/core_pattern to be 'core'")
    words = [start_target("threads", 0).args[0], "threads", "1"]
    limit = resource.getrlimit(resource.RLIMIT_CORE)[1]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd=tmp_path,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (limit, limit))) as target:
        target.stdout.readline()
        ours = Core(run_dcore(target.pid)[0])
        target.send_signal(signal.SIGSEGV)
    found = list(tmp_path.glob("core*"))
    if not found or not (theirs := Core(found[0].read_bytes())).notes_of(X86_XSAVE_LAYOUT):
        pytest.skip("the kernel's cores do not describe the registers")
    assert ours.notes_of(X86_XSAVE_LAYOUT) == theirs.notes_of(X86_XSAVE_LAYOUT)
    assert [kind for kind, _ in ours.notes] == [kind for kind, _ in theirs.notes]


# The control line and the output file.


def test_control_line_announces_the_length_for_every_kind_of_output(start_target, tmp_path):
    target = start_target("threads", 1)
    lengths = {len(run_dcore(target.pid, *words)[0]) for words in ([], ["-c", "/dev/stdout"], ["-c", "-"])}
    ran = subprocess.run([DCORE, "-c", tmp_path / "core", str(target.pid)], stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, check=True)
    assert ran.stdout == b""
    lengths |= {announced(ran.stderr)[0], (tmp_path / "core").stat().st_size}
    assert len(lengths) == 1
    assert (tmp_path / "core").stat().st_mode & 0o777 == 0o600


@pytest.mark.parametrize("words", [[], ["-c"], ["-c", "x"], ["-x", "1"], ["1", "2"], ["0"], ["-1"], ["1x"], [""],
                                   ["99999999999"]], ids=str)  # fmt: skip
def test_bad_command_line_gives_status_2_and_the_usage(words, tmp_path):
    ran = subprocess.run([DCORE, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, cwd=tmp_path)
    assert (ran.returncode, ran.stdout) == (2, "")
    assert "\nusage: dcore [-c FILE] PID\n" in ran.stderr
    assert list(tmp_path.iterdir()) == []


def test_missing_folder_is_named_and_nothing_is_dumped(start_target, tmp_path):
    target = start_target("threads", 0)
    ran = subprocess.run([DCORE, "-c", tmp_path / "no" / "core", str(target.pid)], stderr=subprocess.PIPE)
    length, text = announced(ran.stderr)
    assert (ran.returncode, length) == (1, 0)
    assert text == f"dcore: {target.pid}: cannot open {tmp_path}/no/core: No such file or directory\n"
    assert_detached(target.pid)


def test_full_file_system_is_reported(start_target):
    target = start_target("full", 2)
    ran = subprocess.run([DCORE, "-c", "/dev/full", str(target.pid)], stderr=subprocess.PIPE)
    length, text = announced(ran.stderr)
    assert ran.returncode == 1 and length > 2 << 20
    assert text == f"dcore: {target.pid}: cannot write to /dev/full: No space left on device\n"
    assert_detached(target.pid)


# What is not dumped.


def test_missing_process_is_refused():
    gone = subprocess.Popen(["true"])
    gone.wait()
    assert refusal(gone.pid) == "no such process"


def test_zombie_is_refused():
    ended = subprocess.Popen(["true"])
    wait_for(lambda: process_stat(ended.pid)[0] == "Z", "ended")
    assert refusal(ended.pid) == "is a zombie"
    ended.wait()


def test_kernel_thread_is_refused():
    if not pathlib.Path("/proc/2/stat").exists() or process_stat(2)[0] == "Z" or os.path.exists("/proc/2/exe"):
        pytest.skip("no kernel thread is visible in this PID namespace")
    assert refusal(2) == "is a kernel thread"


def test_thread_other_than_the_first_is_refused(start_target):
    target = start_target("threads", 1)
    [thread] = [tid for tid in threads_of(target.pid) if tid != target.pid]
    assert refusal(thread) == f"is a thread of process {target.pid}"


def test_process_that_stays_traced_is_refused_after_6_seconds(start_target):
    target = start_target("threads", 0)
    with traced(target.pid):
        began = time.monotonic()
        assert refusal(target.pid) == f"is already traced by process {os.getpid()}"
        assert time.monotonic() - began >= 6


@pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to run the dumper as another user")
def test_process_of_another_user_is_refused(start_target, program):
    target = start_target("threads", 0)
    with open(DCORE, "rb") as file:     # other users may have no access to the folders above it
        ran = subprocess.run([f"/proc/self/fd/{file.fileno()}", str(target.pid)], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, pass_fds=[file.fileno()], user=65534, group=65534,
                             extra_groups=[])  # fmt: skip
    length, text = announced(ran.stderr)
    assert (ran.returncode, ran.stdout, length) == (1, b"", 0)
    assert text == f"dcore: {target.pid}: cannot be stopped: Operation not permitted\n"
