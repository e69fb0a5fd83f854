"""tstrace and stopper on the emulated board: real O32 calls, signals and stops, line by line."""

import re
import shutil
import subprocess

import pytest

import board as emulated
from support.under_test import ROOT

BUILD = ROOT / "build" / "mipsel"
COMPILER = "mipsel-linux-gnu-g++"
FLAGS = ["-std=c++20", "-O1", "-mips32r2", "-mabi=32", "-mno-abicalls", "-fno-pic", "-G0", "-static", "-nostdlib",
         "-ffreestanding", "-fno-builtin", "-fno-exceptions", "-Wl,--section-start=.fixed=0x600000"]  # fmt: skip

# The program's data at known addresses: one page. The next page is not mapped.
TEXT, ZERO, DATA, PAIR, BLOCK, BUFFER = 0x600000, 0x600020, 0x600040, 0x600100, 0x600120, 0x600200
PAGE_END = 0x601000

SOURCE = """
struct fixed_page {
    char text[32] = "/dev/null";
    char zero[32] = "/dev/zero";
    char data[192] = "hi\\n\\t\\r\\x01\\xff\\"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    int pair[8] = {0, 1000};
    int block[56] = {9, 0x600040, 3, 4, 5, 6};
    char buffer[3584] = {};
};
__attribute__((section(".fixed"), used)) fixed_page page;

struct system_call {
    long number;
    long args[6];
};
const system_call calls[] = {%s};

long make(const system_call& call) {
    register long v0 asm("$2") = call.number;
    register long a0 asm("$4") = call.args[0];
    register long a1 asm("$5") = call.args[1];
    register long a2 asm("$6") = call.args[2];
    register long a3 asm("$7") = call.args[3];
    asm volatile(
        ".set noreorder\\n subu $29, $29, 32\\n sw %%5, 16($29)\\n sw %%6, 20($29)\\n syscall\\n"
        " addiu $29, $29, 32\\n .set reorder\\n"
        : "+r"(v0), "+r"(a3)
        : "r"(a0), "r"(a1), "r"(a2), "r"(call.args[4]), "r"(call.args[5])
        : "memory", "$1", "$3", "$8", "$9", "$10", "$11", "$12", "$13", "$14", "$15", "$24", "$25", "hi", "lo");
    return v0;
}

extern "C" void __start() {
    page.buffer[3580] = 'w';
    page.buffer[3581] = 'x';
    long self = make({4020, {1, 2, 3, 4, 5, 6}});
    for (system_call call : calls) {
        if (call.number == 4037) {
            call.args[0] = self;
        }
        make(call);
    }
}
"""

WHOLE = r'"hi\n\t\r\x1\xff"0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRST"'    # 64 bytes
CUT = r'"hi\n\t\r\x1\xff"0123456789abcdefghijklmn"'                                     # 32 bytes

# A call: its number, its arguments, what tstrace prints on entry, the result (None: any), and what it prints
# on exit if that differs.
CALLS = [
    (4005, [TEXT, 2, 0], f"open({TEXT}, 2, 0, 0, 0, 0)", 3),
    (4005, [ZERO, 0, 0], f"open({ZERO}, 0, 0, 0, 0, 0)", 4),
    (4003, [3, BUFFER, 100], "read(3 /dev/null, 0x600200, 100)", 0, 'read(3 /dev/null, "", 100)'),
    (4003, [4, BUFFER, 3], "read(4 /dev/zero, 0x600200, 3)", 3, r'read(4 /dev/zero, "\x0\x0\x0", 3)'),
    (4003, [9, DATA, 3], "read(9, 0x600040, 3)", 9, r'read(9, "hi\n\t\r\x1\xff"0", 3)'),
    (4004, [3, DATA, 3], r'write(3 /dev/null, "hi\n", 3)', 3),
    (4004, [3, DATA, 0], 'write(3 /dev/null, "", 0)', 0),
    (4004, [3, DATA, 64], f"write(3 /dev/null, {WHOLE}, 64)", 64),
    (4004, [3, DATA, 65], f"write(3 /dev/null, {CUT}, 65)", 65),
    (4004, [3, TEXT, -1], 'write(3 /dev/null, "/dev/null", -1)', 14),
    (4004, [3, DATA, -2147483648], 'write(3 /dev/null, "", -2147483648)', 14),
    (4004, [3, 0x1000, 4], 'write(3 /dev/null, "", 4)', 4),
    (4004, [3, -16, 4], 'write(3 /dev/null, "", 4)', 14),
    (4004, [3, PAGE_END - 4, 4], 'write(3 /dev/null, "w", 4)', 4),
    (4004, [3, PAGE_END - 3, 3], 'write(3 /dev/null, "", 3)', 3),
    (4006, [9], "close(9)", 9),
    (4007, [-1, 0, 1], "waitpid(0x-1, 0x0, 1)", 10),
    (4013, [0], "time(0x0)", None),
    (4019, [3, -5, 1], "lseek(3 /dev/null, -5, 1)", 0),
    (4026, [16, 99999, 1, 2], "ptrace(PTRACE_ATTACH, 99999, 0x1, 0x2)", 3),
    (4026, [1, 99999, 1, 2], "ptrace(PTRACE_PEEKTEXT, 99999, 0x1, 0x2)", 3),
    (4026, [99, 99999, 1, 2], "ptrace(99, 99999, 0x1, 0x2)", 3),
    (4033, [TEXT, 4], 'access("/dev/null", 0x4)', 0),
    (4033, [0, 4], 'access("", 0x4)', 14),
    (4045, [0], "brk(0x0)", None),
    (4054, [3, 21505, 1, 2, 3, 255], "ioctl(3 /dev/null, 21505, 1, 2, 3, ff)", 25),
    (4078, [0, 0], "gettimeofday(0x0, 0x0)", 0),
    (4079, [0, 0], "settimeofday(0x0, 0x0)", 0),
    (4090, [0x700000, 4096, 3, 0x812, -1, 0], "mmap(0x700000, 4096, 0x3, 0x812, -1, 0)", "0x700000"),
    (4210, [0x710000, 4096, 3, 0x12, 4, 0], "mmap2(0x710000, 4096, 0x3, 0x12, 4 /dev/zero, 0)", "0x710000"),
    (4091, [0x700000, 4096], "munmap(0x700000, 4096)", 0),
    (4106, [TEXT, BUFFER], 'stat("/dev/null", 0x600200)', 0),
    (4107, [ZERO, BUFFER], 'lstat("/dev/zero", 0x600200)', 0),
    (4108, [3, BUFFER], "fstat(3 /dev/null, 0x600200)", 0),
    (4166, [PAIR, 0], "nanosleep({ 0, 1000 }, { -1, -1 })", 0),
    (4188, [0, 0, 0], "poll(0x0, 0, 0)", 0),
    (4279, [1, 2, 3, 4, 5, 6], "unassigned279(1, 2, 3, 4, 5, 6)", 89),
    (4333, [0, 0, 0, 0, 0, 0], "perf_counter_open(0, 0, 0, 0, 0, 0)", None),
    (4183, [2, 1, 0], "socket(2, 1, 0)", 5),
    (4169, [9, DATA, 16], "bind(9, 0x600040, 16)", 9),
    (4170, [9, DATA, 16], "connect(9, 0x600040, 16)", 9),
    (4176, [9, DATA, 3, 4, 5, 6], r'recvfrom(9, "hi\n", 0x4, 0x5, 0x6)', 9),
    (4177, [9, DATA, 64], "recvmsg(9, 0x600040, 64)", 9),
    (4179, [9, DATA, 64], "sendmsg(9, 0x600040, 40)", 9),
    (4180, [9, DATA, 3, 4, 0, 0], r'sendto(9, "hi\n", 3, 0x4, 0x0, 0)', 9),
    (4181, [9, 1, 2, DATA, 4], "setsockopt(9, 1, 2, 0x600040, 0x4)", 9),
    (4182, [9, 2], "shutdown(9, 2)", 9),
    (4102, [2, BLOCK], "bind(9, 0x600040, 3)", 9),
    (4102, [3, BLOCK], "connect(9, 0x600040, 3)", 9),
    (4102, [4, BLOCK], f"listen(9, {DATA}, 3, 4, 5, 6)", 9),
    (4102, [11, BLOCK], r'sendto(9, "hi\n", 3, 0x4, 0x5, 6)', 9),
    (4102, [12, BLOCK], r'recvfrom(9, "hi\n", 0x4, 0x5, 0x6)', 9),
    (4102, [13, BLOCK], f"shutdown(9, {DATA})", 9),
    (4102, [14, BLOCK], f"setsockopt(9, {DATA}, 3, 0x4, 0x5)", None),
    (4102, [16, BLOCK], "sendmsg(9, 0x600040, 3)", 9),
    (4102, [17, BLOCK], "recvmsg(9, 0x600040, 3)", 9),
    (4102, [0, BLOCK], f"(9, {DATA}, 3, 4, 5, 6)", 22),
    (4102, [19, BLOCK], f"(9, {DATA}, 3, 4, 5, 6)", 14),
    (4102, [4, 0], "listen(0, 0, 0, 0, 0, 0)", 14),
]
EXIT = (4001, [3])
UNNAMED = [4932, 4999, 5001, 5999, 6001, 6999]
SIGNALS = {20: "SIGWINCH", 18: "SIGCHLD", 21: "SIGURG"}  # ignored by default
HEAD = re.compile(r"^\[(\d+) calls\] \[[0-9a-f]+ [0-9a-f]+\] ", re.MULTILINE)


def table(calls):
    rows = []
    for number, args, *_ in calls:
        rows.append("{%d, {%s}}" % (number, ", ".join(f"static_cast<long>({arg})" for arg in args)))
    return ", ".join(rows)


def expected_lines(calls):
    lines = []
    for _, _, entry, result, *other in calls:
        lines += [entry, f"{other[0] if other else entry} = {'ANY' if result is None else result}"]
    return lines


@pytest.fixture(scope="module")
def machine():
    if reason := emulated.missing(BUILD, "tstrace"):
        pytest.skip(reason)
    if not shutil.which(COMPILER):
        pytest.skip(f"needs {COMPILER}")
    with emulated.Board(build=BUILD) as shared:
        yield shared


@pytest.fixture
def put_calls(machine, tmp_path):
    """Builds the program with a table of calls, and copies it to /tmp/calls on the board."""

    def put(calls):
        source = tmp_path / "calls.cpp"
        source.write_text(SOURCE % table([*calls, EXIT]))
        subprocess.run([COMPILER, *FLAGS, "-o", tmp_path / "calls", source], check=True)
        machine.put((tmp_path / "calls").read_bytes(), "/tmp/calls")
        machine.check("chmod 755 /tmp/calls")

    return put


def traced(machine):
    """Traces /tmp/calls: the lines about calls without their heads, the whole output, the messages."""
    done = machine.run("tstrace /tmp/calls")
    assert done.status == 0
    text = done.out.decode()
    lines = [HEAD.sub("", line) for line in text.splitlines() if HEAD.match(line)]
    return lines, text, done.err.decode()


def test_every_call_is_printed_in_its_format(machine, put_calls):
    put_calls(CALLS)
    lines, text, messages = traced(machine)
    expected = ["getpid(1, 2, 3, 4, 5, 6)", "getpid(1, 2, 3, 4, 5, 6) = ANY", *expected_lines(CALLS), "exit(3)"]
    shown = [re.sub(r" = \S+$", " = ANY", line) if want.endswith(" = ANY") else line
             for line, want in zip(lines, expected)]  # fmt: skip
    wrong = [pair for pair in zip(shown, expected) if pair[0] != pair[1]]
    assert wrong == [], "\n".join(f"{got}\n{want}" for got, want in wrong)
    assert len(lines) == len(expected)
    assert messages == ""


def test_lines_have_program_counter_and_return_address(machine, put_calls):
    put_calls(CALLS[:1])
    _, text, _ = traced(machine)
    for pc, ra in re.findall(r"^\[\d+ calls\] \[([0-9a-f]+) ([0-9a-f]+)\]", text, re.MULTILINE):
        assert 0x400000 <= int(pc, 16) < 0x600000 and 0x400000 <= int(ra, 16) < 0x600000


def test_descriptors_are_listed_at_the_exit(machine, put_calls):
    put_calls(CALLS[:2])
    _, text, _ = traced(machine)
    heading = re.search(r"\n\[\d+ calls\] (\d+) open fds:\n", text)
    listed = text[heading.end() :].splitlines()[: int(heading[1])]
    assert "3\t/dev/null" in listed and "4\t/dev/zero" in listed


def test_unnamed_numbers_give_a_message_and_no_line(machine, put_calls):
    put_calls([(number, []) for number in UNNAMED])
    lines, _, messages = traced(machine)
    assert [line.split("(")[0] for line in lines] == ["getpid", "getpid", "exit"]
    assert messages == "strace_dec_syscall: Unexpected length: -1\n" * (2 * len(UNNAMED))


def test_signals_have_the_targets_numbers_and_names(machine, put_calls):
    put_calls([(4037, [0, number]) for number in SIGNALS])
    lines, text, _ = traced(machine)
    assert re.findall(r"\n\[\d+ calls\] ---  SIGNAL (\d+ \w+) ---\n\n", text) == [
        f"{number} {name}" for number, name in SIGNALS.items()
    ]
    assert [line for line in lines if line.startswith("kill(") and line.endswith(" = 0")] != []


def test_death_by_a_signal_ends_the_trace(machine, put_calls):
    put_calls([(4037, [0, 16])])
    _, text, _ = traced(machine)
    assert re.search(r"\n\[\d+ calls\] ---  SIGNAL 16 SIGUSR1 ---\n\n", text)
    assert "exit(3)" not in text


def test_ls_is_traced(machine):
    done = machine.run("tstrace ls -l /")
    assert done.status == 0
    text = done.out.decode()
    assert re.search(r"^\[\d+ ls\] \[[0-9a-f]+ [0-9a-f]+\] getdents64\(3, ", text, re.MULTILINE)
    assert re.search(r'^\[\d+ ls\] \[[0-9a-f]+ [0-9a-f]+\] write\(1 pipe:\[\d+\], ', text, re.MULTILINE)
    assert text.count("] exit_group(0)\n") == 1


def test_process_continues_after_its_trace(machine):
    script = """
        sleep 1000 & child=$!
        tstrace -p $child > /tmp/out & tracer=$!
        until grep -q "^TracerPid:.*[1-9]" /proc/$child/status; do :; done
        kill -INT $tracer; wait $tracer
        grep -E "^(State|TracerPid)" /proc/$child/status
        kill $child
    """
    assert machine.check(script, timeout=30).decode().split() == ["State:", "S", "(sleeping)", "TracerPid:", "0"]


def test_kernel_threads_are_skipped(machine):
    script = """
        for thread in 2 3; do [ ! -e /proc/$thread/exe ] && [ -d /proc/$thread ] || exit 9; done
        tstrace -p 2 -p 3
    """
    done = machine.run(script)
    assert (done.status, done.out, done.err) == (0, b"", b"")


def test_stopper_holds_a_program_at_its_exit(machine, put_calls):
    put_calls([])
    script = """
        stopper /tmp/calls > /tmp/out & stopper=$!
        until [ "$(wc -l < /tmp/out)" = 2 ]; do :; done
        child=$(sed -n "1s/.*pid=\\\\([0-9]*\\\\) .*/\\\\1/p" /tmp/out)
        grep "^State" /proc/$child/status
        kill -INT $stopper; wait $stopper; echo status $?
        cat /tmp/out
    """
    state, status, first, second = machine.check(script, timeout=30).decode().splitlines()
    assert state.split()[1] == "t"
    assert status == "status 0"
    assert re.fullmatch(r"stopper: Trapped pid=\d+ exit code 3", first)
    assert re.fullmatch(r"stopper: Trapped pid=\d+ exit code 768", second)
