"""Running the dumper, and checking what becomes of its target."""

import contextlib
import ctypes
import os
import signal
import subprocess

from support.core_file import X86_XSTATE, announced, gdb_words
from support.processes import status_field, tracer_of
from support.under_test import BIN
from support.waiting import PATIENCE

DCORE = str(BIN / "dcore")
PAGE = os.sysconf("SC_PAGE_SIZE")
PTRACE_SEIZE, PTRACE_INTERRUPT, PTRACE_DETACH, PTRACE_GETREGSET = 0x4206, 0x4207, 17, 0x4204
WALL = 0x40000000
RELEASED_EARLY = "was resumed before its memory was read"


def run_dcore(pid, *words, status=0):
    """The core, whose length the control line must announce, and the text after the control line."""
    ran = subprocess.run([DCORE, *words, str(pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.PIPE, timeout=PATIENCE)
    length, text = announced(ran.stderr)
    assert ran.returncode == status, ran.stderr
    assert len(ran.stdout) == length
    return ran.stdout, text


def refusal(pid):
    """The reason why the dumper refuses to dump a process."""
    core, text = run_dcore(pid, status=1)
    assert core == b""
    assert text.startswith(f"dcore: {pid}: ") and text.endswith("\n")
    return text.split(": ", 2)[2].strip()


def pending_signals(pid):
    """The signals that are pending for the process, as a bit mask."""
    return int(status_field(pid, "ShdPnd"), 16)


def is_held(pid):
    """The process is stopped by a tracer."""
    return tracer_of(pid) != 0 and status_field(pid, "State").startswith("t")


def ask_gdb(program, core, tmp_path, **how):
    """Everything that gdb prints about a core."""
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
    """A dumper that writes to `file` and is killed at the end."""
    dumper = subprocess.Popen([DCORE, "-c", file, str(pid)], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        yield dumper
    finally:
        dumper.kill()
        dumper.communicate()


@contextlib.contextmanager
def traced(tid):
    """Traces a thread of a child, and lets it run. Reaps it if it has ended."""
    ptrace(PTRACE_SEIZE, tid)
    try:
        yield
    finally:
        with contextlib.suppress(AssertionError):  # it has ended
            ptrace(PTRACE_INTERRUPT, tid)
        if os.WIFSTOPPED(os.waitpid(tid, WALL)[1]):
            ptrace(PTRACE_DETACH, tid)


def kernel_xstate(pid):
    """The extended registers of a child, as the kernel reports them to a tracer."""
    buffer = ctypes.create_string_buffer(1 << 16)
    vector = (ctypes.c_size_t * 2)(ctypes.addressof(buffer), len(buffer))
    ptrace(PTRACE_SEIZE, pid)
    ptrace(PTRACE_INTERRUPT, pid)
    os.waitpid(pid, WALL)
    ptrace(PTRACE_GETREGSET, pid, X86_XSTATE, ctypes.addressof(vector))
    ptrace(PTRACE_DETACH, pid)
    return buffer.raw[: vector[1]]


class Stalled:
    """A dumper whose reader has read only the beginning of the core. It still holds the target."""

    def __init__(self, pid, taken=1):
        self.process = subprocess.Popen([DCORE, str(pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, bufsize=0)
        self.control = self.process.stderr.readline()
        self.length = announced(self.control)[0]
        self.begin = self.process.stdout.read(taken)

    def finish(self):
        """The whole core, and the text after the control line."""
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


def queue_signals(pid, count):
    for _ in range(count):
        os.kill(pid, signal.SIGRTMIN)
