"""The memory in the dumper's core files, and the dumper's own."""

import pathlib
import re
import shutil
import struct
import subprocess
import time

import pytest

from support.core_file import KNOWN_GLOBAL, Core
from support.dumper import PAGE, ask_gdb, run_dcore
from support.processes import process_stat, status_kb
from support.under_test import SANITIZE
from support.waiting import PATIENCE, wait_for

pytest_plugins = ["dumper_fixtures"]

MEMORY_LIMIT_KB = 4096


def test_memory_is_that_of_the_process(start_target):
    target = start_target("full", 9)
    core = Core(run_dcore(target.pid)[0])
    want = bytes((i // PAGE + i) & 0xFF for i in range(9 << 20))
    assert core.at(int(target.said, 16), 9 << 20) == want


def test_all_memory_is_from_the_same_moment(start_target):
    """The target increments a number in each page in turn, so no two ever differ by more than 1."""
    target = start_target("counts", 16)
    address = int(target.said, 16)
    for _ in range(5):
        core = Core(run_dcore(target.pid)[0])
        numbers = [struct.unpack("<I", core.at(address + at, 4))[0] for at in range(0, 16 << 20, PAGE)]
        assert set(numbers) <= {numbers[0], numbers[0] - 1}
        assert numbers == sorted(numbers, reverse=True)


def test_untouched_memory_takes_no_space_and_little_time(start_target):
    target = start_target("sparse", 100 << 10)
    began = time.monotonic()
    content, _ = run_dcore(target.pid)
    assert time.monotonic() - began < PATIENCE / 3
    assert 5 << 20 <= len(content) < 6 << 20
    core, base, step = Core(content), int(target.said, 16), (100 << 30) // 1280 // PAGE * PAGE
    for i in range(1280):
        assert core.at(base + i * step, PAGE) == bytes([i % 255 + 1]) * PAGE
        assert core.at(base + i * step + PAGE, 1) is None and core.covers(base + i * step + PAGE)


def test_number_of_segments_may_exceed_16_bits(program, start_target, tmp_path):
    target = start_target("many")
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


@pytest.mark.skipif(bool(SANITIZE), reason="not measured with a sanitizer, which uses more memory")
@pytest.mark.parametrize("words", [("many",), ("sparse", 100 << 10), ("full", 64), ("threads", 1000)], ids=str)
def test_dumper_takes_little_memory(start_target, stall, words):
    dumper = stall(start_target(*words).pid)
    left = dumper.length - len(dumper.begin)
    while left > 2_500_000:     # more than the pipe and the buffer hold, so the dumper has not ended
        left -= len(dumper.process.stdout.read(min(left - 2_500_000, 1 << 20)))
    peak = status_kb(dumper.process.pid, "VmHWM")
    print(f"peak {peak} kB")
    assert peak < MEMORY_LIMIT_KB


def test_each_kind_of_memory_is_dumped_as_it_should_be(start_target):
    target = start_target("kinds")
    secret, closed, shared, cut, written, _ = (int(word, 16) for word in target.said.split())
    core = Core(run_dcore(target.pid)[0])
    assert core.covers(secret) and core.at(secret, 1) is None
    assert core.at(closed, 2 * PAGE) == b"c" * 2 * PAGE
    assert core.at(shared, PAGE) == b"S" * PAGE
    assert core.at(cut, 2 * PAGE) == b"x" * PAGE + bytes(PAGE)
    program = pathlib.Path(target.args[0]).read_bytes()
    assert core.at(written, 2 * PAGE) == b"w" + program[1 : 2 * PAGE]


@pytest.mark.parametrize("bits, stored", [(0x33, "cSxwe"), (0, ""), (0x1, "cxw"), (0x2, "S"), (0x10, "e"),
                                        (0x4, "xwe"), (0x8, "f")])  # fmt: skip
def test_coredump_filter_of_the_process_is_applied(start_target, bits, stored):
    target = start_target("kinds")
    secret, closed, shared, cut, written, of_file = (int(word, 16) for word in target.said.split())
    pathlib.Path(f"/proc/{target.pid}/coredump_filter").write_text(f"{bits:#x}")
    own = re.search(rf"^([0-9a-f]+)-.* 0+ .*{re.escape(str(target.args[0]))}$",
                    pathlib.Path(f"/proc/{target.pid}/maps").read_text(), re.MULTILINE)  # fmt: skip
    core = Core(run_dcore(target.pid)[0])
    addresses = {"c": closed, "S": shared, "x": cut, "w": written, "e": int(own[1], 16), "f": of_file}
    assert "".join(name for name, address in addresses.items() if core.at(address, 1) is not None) == stored
    assert core.covers(secret) and core.at(secret, 1) is None
    if "f" in stored:
        assert core.at(of_file, 2 * PAGE) == b"f" * 2 * PAGE


@pytest.mark.parametrize("bits, stored", [(0, ""), (0x1, ""), (0x20, "p"), (0x40, "s"), (0x60, "ps")])
def test_coredump_filter_has_bits_for_huge_pages(start_target, bits, stored):
    target = start_target("huge")
    addresses = dict(zip("ps", target.said.split()))
    if "(nil)" in addresses.values():
        pytest.skip("needs reserved huge pages")
    pathlib.Path(f"/proc/{target.pid}/coredump_filter").write_text(f"{bits:#x}")
    core = Core(run_dcore(target.pid)[0])
    for name, address in addresses.items():
        for at in (int(address, 16), int(address, 16) + (2 << 20) - PAGE):
            assert core.at(at, PAGE) == (name.encode() * PAGE if name in stored else None)


def test_transparent_huge_page_is_dumped_like_any_other(start_target):
    target = start_target("huge")
    address = int(target.said.split()[2], 16)
    core = Core(run_dcore(target.pid)[0])
    for at in (address, address + (2 << 20) - PAGE):
        assert core.at(at, PAGE) == b"t" * PAGE


def test_clock_pages_are_left_out_and_the_vdso_is_not(start_target):
    target = start_target("threads", 0)
    core = Core(run_dcore(target.pid)[0])
    maps = pathlib.Path(f"/proc/{target.pid}/maps").read_text()
    vvar = re.search(r"^([0-9a-f]+)-.*\[vvar\]$", maps, re.MULTILINE)
    vdso = re.search(r"^([0-9a-f]+)-([0-9a-f]+) .*\[vdso\]$", maps, re.MULTILINE)
    if not vvar or not vdso:
        pytest.skip("the kernel maps no [vvar] or no [vdso]")
    assert not core.covers(int(vvar[1], 16))
    start_address, end = int(vdso[1], 16), int(vdso[2], 16)
    assert core.at(start_address, end - start_address)[:4] == b"\x7fELF"

