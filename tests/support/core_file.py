"""Core files, taken apart, and the program that the dumper's tests dump."""

import re
import struct

from support.under_test import ROOT

SOURCE = ROOT / "tests" / "e2e" / "programs" / "dumped.cpp"
FLAGS = ["-std=c++20", "-g", "-O1", "-fno-optimize-sibling-calls", "-pthread"]

KNOWN_GLOBAL, KNOWN_DOUBLE = 0x1234567, "2.5"
CONTROL_LINE = re.compile(rb".{8}(\d+).{21}((?:\d+(?: \d+)*)?)\n", re.DOTALL)
LOAD, NOTE = 1, 4
PRSTATUS, FPREGSET, X86_XSTATE, X86_XSAVE_LAYOUT = 1, 2, 0x202, 0x205
PN_XNUM = 0xFFFF  # the number of segments is in the first section header

# What gdb is asked about a core.
GDB_COMMANDS = ["set pagination off", "thread apply all backtrace", "print/x known_global", "print known_double",
                "info proc mappings", "info auxv", "print $_siginfo.si_signo"]  # fmt: skip


def gdb_words(program, core, debugger="gdb", commands=GDB_COMMANDS):
    words = [debugger, "-nx", "-batch"]
    for command in commands:
        words += ["-ex", command]
    return [*words, str(program), str(core)]


def bare_core(xstate):
    """An x86-64 core of one thread that has extended registers and nothing else."""
    status = bytearray(336)
    status[32:36] = struct.pack("<i", 1)  # its thread id
    notes = b"".join(struct.pack("<III8s", len(owner) + 1, len(content), kind, owner) + content
                     for owner, kind, content in ((b"CORE", PRSTATUS, status), (b"LINUX", X86_XSTATE, xstate)))  # fmt: skip
    head = struct.pack("<16sHHIQQQIHHHHHH", b"\x7fELF\2\1\1", 4, 62, 1, 0, 64, 0, 0, 64, 56, 1, 0, 0, 0)
    return head + struct.pack("<IIQQQQQQ", NOTE, 0, 64 + 56, 0, 0, len(notes), 0, 4) + notes


def announced(control):
    """The length that the control line at the start of `control` announces, and the text after that line."""
    match = CONTROL_LINE.match(control)
    assert match and match.end() <= 511, control
    assert match[2] == b"", control
    return int(match[1]), control[match.end() :].decode()


class Core:
    """A core file: 64-bit or 32-bit, little endian."""

    def __init__(self, content):
        self.content = content
        assert content[:4] == b"\x7fELF" and content[5] == 1
        self.wide = content[4] == 2
        head = struct.unpack_from("<HHIQQQIHHHHHH" if self.wide else "<HHIIIIIHHHHHH", content, 16)
        self.machine, start, size, count = head[1], head[4], head[8], head[9]
        self.loads, self.notes = [], []
        if count == PN_XNUM:
            count = struct.unpack_from("<I", content, head[5] + (44 if self.wide else 28))[0]
        for i in range(count):
            self._add_segment(start + i * size)

    def _add_segment(self, at):
        if self.wide:
            kind, _, offset, address, _, length, size, _ = struct.unpack_from("<IIQQQQQQ", self.content, at)
        else:
            kind, offset, address, _, length, size, _, _ = struct.unpack_from("<IIIIIIII", self.content, at)
        if kind == LOAD:
            self.loads.append((address, size, offset, length))
        elif kind == NOTE:
            self._add_notes(offset, offset + length)

    def _add_notes(self, at, end):
        while at < end:
            owner_length, length, kind = struct.unpack_from("<III", self.content, at)
            begin = at + 12 + (owner_length + 3 & ~3)
            self.notes.append((kind, self.content[begin : begin + length]))
            at = begin + (length + 3 & ~3)

    def notes_of(self, kind):
        """The contents of the notes of one kind. Registers have one note for each thread."""
        return [content for found, content in self.notes if found == kind]

    def at(self, address, length):
        """Bytes of memory, or None if the file does not have all of them."""
        for start, _, offset, content in self.loads:
            if start <= address and address + length <= start + content:
                return self.content[offset + address - start : offset + address - start + length]
        return None

    def covers(self, address):
        """True if a segment contains the address, even if the file has no content for it."""
        return any(start <= address < start + size for start, size, _, _ in self.loads)
