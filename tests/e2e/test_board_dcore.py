"""The dumper on the emulated board: O32 cores, which a debugger on another machine reads."""

import re
import shutil
import struct
import subprocess

import pytest

import board as emulated
from support.core_file import FLAGS, FPREGSET, KNOWN_DOUBLE, KNOWN_GLOBAL, SOURCE, Core, announced, gdb_words
from support.under_test import ROOT

BUILD = ROOT / "build" / "mipsel"
COMPILER, DEBUGGER = "mipsel-linux-gnu-g++", "gdb-multiarch"
EM_MIPS = 8
PAGE = 4096
SIGUSR2 = 17  # on MIPS

# Starts the target, keeps its input open with descriptor 9, and waits for its first line.
START = """
    rm -f /tmp/in /tmp/said; mkfifo /tmp/in
    /tmp/dumped %s < /tmp/in > /tmp/said & target=$!
    exec 9> /tmp/in
    until [ -s /tmp/said ] && grep -q "^State:.S" /proc/$target/status; do :; done
"""
END = "exec 9>&-; wait $target; echo; tail -n 1 /tmp/said"


@pytest.fixture(scope="module")
def program(tmp_path_factory):
    if not shutil.which(COMPILER):
        pytest.skip(f"needs {COMPILER}")
    path = tmp_path_factory.mktemp("dumped") / "dumped"
    subprocess.run([COMPILER, *FLAGS, "-static", "-o", path, SOURCE], check=True)
    return path


@pytest.fixture(scope="module")
def machine(program):
    if reason := emulated.missing(BUILD, "dcore"):
        pytest.skip(reason)
    with emulated.Board(build=BUILD) as shared:
        shared.put(program, "/tmp/dumped", 0o755)
        yield shared


def dump(machine, *words, after=END):
    """(core, first line of the target's output, last line)."""
    script = START % " ".join(map(str, words))
    script += "dcore -c /tmp/core $target 2> /tmp/control || exit 9\n" + after
    last = machine.check(script, timeout=60).decode().splitlines()[-1]
    core = machine.get("/tmp/core")
    length, text = announced(machine.get("/tmp/control"))
    assert (len(core), text) == (length, "")
    return core, machine.get("/tmp/said").decode().splitlines()[0], last


@pytest.fixture(scope="module")
def debugged(machine, program, tmp_path_factory):
    """What the debugger prints about a process with three threads."""
    if not shutil.which(DEBUGGER):
        pytest.skip(f"needs {DEBUGGER}")
    path = tmp_path_factory.mktemp("core") / "core"
    path.write_bytes(dump(machine, "threads", 2)[0])
    ran = subprocess.run(gdb_words(program, path, DEBUGGER), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True, timeout=300)
    assert ran.returncode == 0
    return {"path": path, "said": ran.stdout}


def test_debugger_shows_every_stack(debugged):
    said = debugged["said"]
    assert len(re.findall(r"^Thread \d+ \(", said, re.MULTILINE)) == 3, said
    assert len(re.findall(r" parked_inner \(.*\n#\d+ .* parked_outer \(", said)) == 2, said
    assert len(re.findall(r" main_waits \(", said)) == 1 and re.search(r"^#\d+ .* main \(", said, re.MULTILINE)


def test_debugger_shows_variables(debugged):
    assert f"$1 = {KNOWN_GLOBAL:#x}\n" in debugged["said"] and f"$2 = {KNOWN_DOUBLE}\n" in debugged["said"]


def test_debugger_lists_mapped_files(debugged):
    assert re.search(r"0x400000 .* 0x0 +/tmp/dumped\n", debugged["said"]), debugged["said"]


@pytest.mark.parametrize("tool", ["readelf", "eu-readelf"])
def test_readelf_lists_the_file_without_a_complaint(debugged, tool):
    if not shutil.which(tool):
        pytest.skip(f"needs {tool}")
    ran = subprocess.run([tool, "-a", debugged["path"]], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    assert (ran.returncode, ran.stderr) == (0, "")
    assert not re.search("warning|error|invalid|corrupt|<unknown>", ran.stdout, re.IGNORECASE), ran.stdout
    assert len(re.findall(r"^ +CORE .*PRSTATUS", ran.stdout, re.MULTILINE)) == 3


def test_core_is_a_32_bit_mips_file(machine):
    core = Core(dump(machine, "threads", 0)[0])
    assert (core.machine, core.wide) == (EM_MIPS, False)


def test_memory_is_that_of_the_process(machine):
    content, said, _ = dump(machine, "full", 3)
    want = bytes((i // PAGE + i) & 0xFF for i in range(3 << 20))
    assert Core(content).at(int(said, 16), 3 << 20) == want


def test_untouched_memory_takes_no_space(machine):
    content, said, _ = dump(machine, "sparse", 1000)
    core, base, step = Core(content), int(said, 16), (1000 << 20) // 1280 // PAGE * PAGE
    assert 5 << 20 <= len(content) < 7 << 20
    for i in range(1280):
        assert core.at(base + i * step, PAGE) == bytes([i % 255 + 1]) * PAGE
        assert core.at(base + i * step + PAGE, 1) is None and core.covers(base + i * step + PAGE)


def test_each_kind_of_memory_is_dumped_as_it_should_be(machine, program):
    content, said, _ = dump(machine, "kinds")
    core = Core(content)
    secret, closed, shared, cut, written, _ = (int(word, 16) for word in said.split())
    assert core.covers(secret) and core.at(secret, 1) is None
    assert core.at(closed, 2 * PAGE) == b"c" * 2 * PAGE
    assert core.at(shared, PAGE) == b"S" * PAGE
    assert core.at(cut, 2 * PAGE) == b"x" * PAGE + bytes(PAGE)
    assert core.at(written, 2 * PAGE) == b"w" + program.read_bytes()[1 : 2 * PAGE]


@pytest.mark.parametrize("kind", ["epoll", "poll", "read", "sleep", "signal", "receive", "semaphore",
                                  "send_many", "send_file", "splice"])  # fmt: skip
def test_blocking_call_is_not_interrupted(machine, kind):
    again = "dcore $target > /tmp/core2 2> /tmp/control2\necho x >&9\n"
    assert dump(machine, kind, after=again + END)[2] == "1 0"


def test_core_has_the_floating_point_registers(machine):
    content, said, _ = dump(machine, "registers")
    assert said == "fpu"
    [floats] = Core(content).notes_of(FPREGSET)
    for i in range(0, 32, 2):
        assert struct.unpack_from("<d", floats, i * 8) == (i + 0.5,)


def test_program_that_keeps_calling_exec_is_dumped_and_continues(machine):
    script = START.replace('grep -q "^State:.S" /proc/$target/status', "true") % "execs 4" + """
        for i in 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20; do
            dcore -c /tmp/core $target 2> /tmp/control && echo whole || cat /tmp/control
        done
        grep -E "^TracerPid" /proc/$target/status
        exec 9>&-
    """
    lines = machine.check(script, timeout=120).decode().splitlines()
    assert lines[-1].split() == ["TracerPid:", "0"] and lines[:-1].count("whole") >= 19, lines


def test_pending_signal_is_in_the_core_and_stays_pending(machine, tmp_path):
    content, _, last = dump(machine, "pending")
    assert last == "still there"
    if shutil.which("eu-readelf"):
        (tmp_path / "core").write_bytes(content)
        notes = subprocess.run(["eu-readelf", "-n", tmp_path / "core"], stdout=subprocess.PIPE, text=True).stdout
        assert f"si_signo: {SIGUSR2}" in notes


def test_killed_dumper_releases_the_process(machine):
    script = START % "full 8" + """
        mkfifo /tmp/slow; dcore $target > /tmp/slow 2> /tmp/control & dumper=$!
        exec 8< /tmp/slow
        until grep -q "^State:.t" /proc/$target/status; do :; done
        kill -9 $dumper; wait $dumper
        grep -E "^TracerPid" /proc/$target/status
    """ + END
    assert machine.check(script, timeout=60).decode().split()[:2] == ["TracerPid:", "0"]


def test_kernel_thread_is_refused(machine):
    done = machine.run("dcore 2")
    length, text = announced(done.err)
    assert (done.status, done.out, length, text) == (1, b"", 0, "dcore: 2: is a kernel thread\n")
