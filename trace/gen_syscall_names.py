#!/usr/bin/python3 -B
"""Generates the tracer's lists of system calls from the installed kernel headers.

usage: gen_syscall_names.py [--check] [--mips DIR] [--x86-64 FILE]

  --check        write nothing; exit status 1 if a list is out of date, 77 if the headers are missing
  --mips DIR     the target's asm folder (default: Debian's linux-libc-dev-mipsel-cross)
  --x86-64 FILE  the development machine's unistd_64.h (default: Debian's linux-libc-dev)

syscall_name_indexes.inc lists the calls of the 32-bit, 64-bit and N32 interfaces in the order of their numbers, up to
perf_counter_open; newer headers have more. Each is an index into syscall_names.inc, which has each name once.
x86_64_calls.inc lists, for each call number of x86-64,
the number of the 32-bit MIPS call with the same name.
"""

import argparse
import pathlib
import re
import sys

HERE = pathlib.Path(__file__).resolve().parent
MISSING = 77

LAST = "perf_counter_open"                      # the last call of each list
RENAMED = {"perf_event_open": LAST}             # name in the header: name in the list
UNASSIGNED = "unassigned279"                    # placeholder for a number without a call
O32_GAP = 279
N32_SKIPPED = "reserved177"
O32_COUNT = 334
TWINLESS = -1


def calls(header, pattern):
    """{number: name} of a header."""
    rows = re.findall(pattern, header.read_text(), re.MULTILINE)
    return {int(number): RENAMED.get(name, name) for name, number in rows}


def mips_calls(folder, interface):
    found = calls(folder / f"unistd_{interface}.h", r"^#define __NR_(\w+)\s+\(__NR_Linux \+ (\d+)\)$")
    last = next(number for number, name in found.items() if name == LAST)
    return {number: name for number, name in sorted(found.items()) if number <= last}


def o32_names(folder):
    names = {**mips_calls(folder, "o32"), O32_GAP: UNASSIGNED}
    assert sorted(names) == list(range(O32_COUNT)), "the 32-bit numbers have gaps"
    return [names[number] for number in sorted(names)]


def syscall_names(folder):
    o32 = o32_names(folder) + ["Linux_syscalls", "O32_Linux", "O32_Linux_syscalls"]
    n64 = ["Linux", *mips_calls(folder, "n64").values(), "Linux_syscalls", "64_Linux", "64_Linux_syscalls"]
    n32 = [name for name in mips_calls(folder, "n32").values() if name != N32_SKIPPED]
    return o32 + n64 + ["Linux", *n32, "Linux_syscalls", "N32_Linux", "N32_Linux_syscalls"]


def x86_64_twins(folder, header):
    numbers = {name: number for number, name in enumerate(o32_names(folder))}
    theirs = calls(header, r"^#define __NR_(\w+)\s+(\d+)$")
    twins = {number: numbers.get(name, TWINLESS) for number, name in theirs.items()}
    end = 1 + max(number for number, twin in twins.items() if twin != TWINLESS)
    return [(twins.get(number, TWINLESS), theirs.get(number, "")) for number in range(end)]


def generated(mips, x86_64):
    names = syscall_names(mips)
    index = {name: number for number, name in enumerate(dict.fromkeys(names))}  # of the names, each once
    texts = "".join(f'"{name}",\n' for name in index)
    indexes = "".join(f"{index[name]},  // {number} {name}\n" for number, name in enumerate(names))
    twins = "".join(f"{twin},  // {number} {name}".rstrip() + "\n"
                    for number, (twin, name) in enumerate(x86_64_twins(mips, x86_64)))
    head = "// Written by gen_syscall_names.py.\n"
    return {
        "syscall_names.inc": head + texts, "syscall_name_indexes.inc": head + indexes, "x86_64_calls.inc": head + twins,
    }  # fmt: skip


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--mips", type=pathlib.Path, default="/usr/mipsel-linux-gnu/include/asm")
    parser.add_argument("--x86-64", type=pathlib.Path, default="/usr/include/x86_64-linux-gnu/asm/unistd_64.h")
    options = parser.parse_args()
    if not (options.mips / "unistd_o32.h").exists() or not options.x86_64.exists():
        print("skipped: the kernel headers are missing (packages linux-libc-dev-mipsel-cross, linux-libc-dev)")
        return MISSING
    status = 0
    for name, text in generated(options.mips, options.x86_64).items():
        path = HERE / name
        if not options.check:
            path.write_text(text)
        elif path.read_text() != text:
            print(f"{path}: out of date, run {pathlib.Path(__file__).name}")
            status = 1
    return status


sys.exit(main())
