"""board/: the emulated board itself, and the download of its parts. The product is not involved."""

import concurrent.futures
import contextlib
import errno
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import time
import urllib.request

import pytest

import board as emulated
import line
import mirror
import prepare
from support.board_daemon import wait_for_board
from support.under_test import ROOT

BOOT = ROOT / "board/boot"
FETCH = ROOT / "board/fetch"
EVERY_BYTE = bytes(range(256))
BURST = 1600  # downloads
PAST_2038 = 2208988800  # 2040-01-01, beyond 31 bits


@pytest.fixture
def bootable():
    if reason := emulated.missing():
        pytest.skip(reason)


@pytest.fixture(scope="module")
def machine():
    """One board for all tests that leave it usable for the next."""
    if reason := emulated.missing():
        pytest.skip(reason)
    with emulated.Board(http=True, second_net=True) as shared:
        yield shared


# Commands.


@pytest.mark.parametrize("status", [0, 1, 7, 255])
def test_exit_status_comes_back(machine, status):
    assert machine.run(f"exit {status}").status == status


def test_death_by_a_signal_is_reported_with_the_boards_number(machine):
    assert machine.run("kill -USR1 $$").status == 128 + 16


def test_output_is_8_bit_clean_and_the_streams_are_separate(machine):
    machine.put(EVERY_BYTE * 64, "/tmp/bytes")
    done = machine.run("cat /tmp/bytes; echo to-err >&2")
    assert done.out == EVERY_BYTE * 64
    assert done.err == b"to-err\n"


def test_output_larger_than_a_pipe_arrives_complete(machine):
    assert machine.run("head -c 3000000 /dev/zero").out == bytes(3000000)


def test_kernel_messages_are_not_in_the_output(machine):
    assert machine.check("echo noise > /dev/kmsg; echo noise > /dev/console; echo quiet") == b"quiet\n"
    wait_for_board(lambda: bytes(machine.console.text).count(b"noise") >= 2, "both at the console")


def test_background_job_does_not_delay_its_command(machine):
    began = time.monotonic()
    assert machine.run("sleep 300 & echo $!").out.strip().isdigit()
    assert time.monotonic() - began < 60
    machine.run("killall sleep")


def test_hanging_command_is_killed_with_its_children(machine):
    command = "echo before; sleep 301 & sleep 302"
    with pytest.raises(emulated.OutOfTime, match=f"killed after 0.5 s: {command}") as late:
        machine.run(command, timeout=0.5)
    assert late.value.out == b"before\n"
    wait_for_board(lambda: b"sleep 30" not in machine.check("ps -o args | grep -v grep"), "both sleeps gone")


def test_command_that_writes_endlessly_is_killed(machine):
    with pytest.raises(emulated.OutOfTime) as late:
        machine.run("yes", timeout=0.5)
    assert set(late.value.out.split()) == {b"y"}


def test_lost_line_fails_at_once_from_then_on():
    ours, agents = socket.socketpair()
    with agents, contextlib.closing(line.Line(ours)) as asked:
        with pytest.raises(line.LineLost, match="does not answer in time"):
            asked.ask(line.REQUEST_RUN, b"", 0.01)
        with pytest.raises(line.LineLost, match="lost before: the board does not answer in time"):
            asked.ask(line.REQUEST_RUN, b"", 3600)


def test_standard_input_is_empty(machine):
    assert machine.run("cat", timeout=30).out == b""


# Files.


def test_file_arrives_unchanged(machine, tmp_path):
    content = random.Random(1).randbytes(1 << 20)
    (tmp_path / "file").write_bytes(content)
    (tmp_path / "file").chmod(0o751)
    machine.put(tmp_path / "file", "/tmp/new folder/file")
    assert machine.get("/tmp/new folder/file") == content
    assert machine.check("stat -c %a '/tmp/new folder/file'") == b"751\n"


def test_put_raises_the_reason_and_the_line_stays_usable(machine):
    with pytest.raises(OSError) as refused:
        machine.put(bytes(300000), "/tmp")
    assert refused.value.errno == errno.EISDIR
    assert machine.check("echo on") == b"on\n"


# The machine.


def test_board_is_a_32_bit_little_endian_mips(machine):
    assert machine.check("uname -m") == b"mips\n"
    assert b"MIPS 24Kc" in machine.get("/proc/cpuinfo")
    assert machine.get("/bin/busybox")[:6] == b"\x7fELF\x01\x01"


def test_usual_file_systems_and_folders_exist(machine):
    mounted = {line.split()[1] for line in machine.get("/proc/mounts").decode().splitlines()}
    assert {"/proc", "/sys", "/dev", "/dev/pts", "/dev/shm", "/run", "/tmp"} <= mounted
    machine.check("test -d /dev/part && test /var/run -ef /run && test $(hostname) = board")


def test_loopback_and_first_network_card_are_up(machine):
    assert b"127.0.0.1" in machine.check("ifconfig lo")
    assert b"10.0.2.15" in machine.check("ifconfig eth0")


def test_second_network_card_is_eth1(machine):
    assert b"10.0.3.15" in machine.check("ifconfig eth1")


def test_port_is_forwarded_to_the_boards_port_80(machine):
    machine.put(EVERY_BYTE, "/tmp/www/bytes")
    machine.check("httpd -p 80 -h /tmp/www")
    with urllib.request.urlopen(f"http://127.0.0.1:{machine.http_port}/bytes", timeout=30) as answer:
        assert answer.read() == EVERY_BYTE
    machine.check("killall httpd")


def test_line_and_network_card_can_be_busy_at_the_same_time(machine):
    """They share an interrupt line. This load has lost interrupts and crashed the emulator."""
    machine.put(EVERY_BYTE, "/tmp/www/bytes")
    machine.check("httpd -p 80 -h /tmp/www")
    url = f"http://127.0.0.1:{machine.http_port}/bytes"

    def download(_):
        with urllib.request.urlopen(url, timeout=30) as answer:
            return answer.read()

    with concurrent.futures.ThreadPoolExecutor(3) as browsers:
        downloads = browsers.map(download, range(BURST))
        for number in range(BURST // 8):
            assert machine.check(f"echo {number}") == b"%d\n" % number
        assert list(downloads) == [EVERY_BYTE] * BURST
    machine.check("killall httpd")


def test_board_reaches_nothing_outside(machine):
    with socket.create_server(("127.0.0.1", 0)) as here:
        here.settimeout(0.2)
        port = here.getsockname()[1]
        assert machine.run(f"nc -w 2 10.0.2.2 {port} < /dev/null").status != 0
        with pytest.raises(TimeoutError):
            here.accept()


# Modules, flash, core pattern, clock.


def test_ram_flash_appears(machine):
    device = machine.add_ram_flash(total_kib=512, erase_kib=64)
    listed = machine.get("/proc/mtd").decode()
    assert re.search(rf"(?m)^{pathlib.Path(device).name}: 00080000 00010000 ", listed)
    machine.check(f"printf written | dd of={device} bs=7 count=1")
    assert machine.check(f"dd if={device} bs=7 count=1") == b"written"


def test_nand_flash_has_the_bad_blocks(machine):
    device = machine.add_nand([3, 7])
    name = pathlib.Path(device).name
    assert machine.get(f"/sys/class/mtd/{name}/type") == b"nand\n"
    assert machine.get(f"/sys/class/mtd/{name}/bad_blocks") == b"2\n"


def test_module_outside_the_image_is_loaded_with_its_dependencies(machine):
    assert machine.run("modprobe ubi").status != 0
    machine.load_module("ubi")
    assert b"\nubi " in b"\n" + machine.get("/proc/modules")
    machine.load_module("ubi")
    with pytest.raises(ValueError, match="already loaded"):
        machine.load_module("ubi", "mtd=0")


def test_unknown_module_is_reported(machine):
    with pytest.raises(ValueError, match="no module nosuch"):
        machine.load_module("nosuch")


def test_core_pattern_is_set(machine):
    machine.set_core_pattern("|/usr/bin/handler %p %s")
    assert machine.get("/proc/sys/kernel/core_pattern") == b"|/usr/bin/handler %p %s\n"


def test_clock_goes_past_2038(machine):
    machine.set_clock(PAST_2038)
    assert 0 <= machine.clock() - PAST_2038 < 60
    boot_time = int(re.search(rb"(?m)^btime (\d+)", machine.get("/proc/stat"))[1])
    assert 0 <= PAST_2038 + 60 - boot_time < 3600
    machine.set_clock(int(time.time()))


# board/boot.


def emulators_of(pid):
    """The pids of the children of `pid` that run the emulator."""
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [int(child) for child in children if "qemu" in os.readlink(f"/proc/{child}/exe")]


def is_running(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] not in "ZX"
    except FileNotFoundError:
        return False


def leftover_files():
    folders = [ROOT / "build/board", pathlib.Path("/dev/shm"), pathlib.Path(os.environ.get("TMPDIR", "/tmp"))]
    return {path for folder in folders if folder.is_dir() for path in folder.iterdir() if "board" in str(path)}


def build_folder(folder):
    """A build whose only program is a script."""
    (folder / "bin").mkdir(parents=True)
    (folder / "lib").mkdir()
    (folder / "lib/libsample.so.1").write_bytes(EVERY_BYTE)
    (folder / "bin/program").write_text("#!/bin/sh\necho \"as $0\"\ncat /usr/lib/libsample.so.1\nexit 42\n")
    (folder / "bin/program").chmod(0o755)
    (folder / "bin/applet").symlink_to("program")
    return folder


def test_boot_runs_a_program_of_the_build_and_leaves_no_files(bootable, tmp_path):
    build = build_folder(tmp_path / "build")
    before = leftover_files()
    (tmp_path / "local").write_bytes(EVERY_BYTE)
    words = ["--build", build, "--put", f"{tmp_path}/local:/tmp/remote", "--core-pattern", "pattern",
             "--time", str(PAST_2038), "--module", "dummy=numdummies=2", "--log", tmp_path / "log"]
    command = ["cat /tmp/remote", "/proc/sys/kernel/core_pattern && ifconfig dummy1 up", "&&",
               "test $(board-agent clock) -ge", str(PAST_2038), "&& applet"]
    done = subprocess.run([BOOT, *words, *command], capture_output=True, timeout=300)
    assert done.stderr == b""
    assert done.stdout == EVERY_BYTE + b"pattern\nas /usr/bin/applet\n" + EVERY_BYTE
    assert done.returncode == 42
    assert b"Linux version" in (tmp_path / "log").read_bytes()
    assert leftover_files() == before


def test_boot_kills_a_hanging_command_and_reports_it(bootable, tmp_path):
    words = [BOOT, "--build", build_folder(tmp_path / "build"), "--timeout", "1", "echo on; sleep 300"]
    done = subprocess.run(words, capture_output=True, text=True, timeout=300)
    assert done.returncode == 124
    assert done.stdout == "on\n"
    assert done.stderr == "board/boot: killed after 1 s: echo on; sleep 300\n"


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGKILL])
def test_emulator_ends_with_a_killed_boot(bootable, tmp_path, number):
    before = leftover_files()
    words = [BOOT, "--build", build_folder(tmp_path / "build"), "sleep 300"]
    with subprocess.Popen(words, stdout=subprocess.DEVNULL) as boot, contextlib.ExitStack() as at_end:
        at_end.callback(boot.kill)
        wait_for_board(lambda: emulators_of(boot.pid), "the emulator")
        emulator = emulators_of(boot.pid)[0]
        boot.send_signal(number)
        boot.wait(30)
        wait_for_board(lambda: not is_running(emulator), "the emulator gone", 30)
    assert boot.returncode == {signal.SIGINT: 130, signal.SIGTERM: 143, signal.SIGKILL: -9}[number]
    assert leftover_files() == before


def test_failed_board_leaves_its_console_log(bootable):
    board = emulated.Board()
    with board:
        with pytest.raises(emulated.BoardError, match="the emulator has ended") as failed:
            board.run("echo last-words > /dev/console; echo c > /proc/sysrq-trigger")
    log = pathlib.Path(re.search(r"console log: (.*)", str(failed.value))[1])
    text = log.read_bytes()
    log.unlink()
    assert b"last-words" in text and b"Kernel panic" in text


def test_port_in_use_is_reported(bootable):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        board = emulated.Board(http=taken.getsockname()[1])
        with pytest.raises(emulated.BoardError, match="the emulator said: .*forwarding") as failed:
            board.start()
    pathlib.Path(re.search(r"console log: (.*)", str(failed.value))[1]).unlink()
    assert board.emulator is None


# board/fetch.


def test_one_line_sources_are_parsed():
    text = """\
# deb http://commented.example/debian bookworm main
deb [arch=amd64 signed-by=/keys/one.gpg] http://one.example/debian bookworm main contrib # here too
deb http://two.example/security bookworm-security main
deb-src http://one.example/debian bookworm main
deb http://other.example/tools stable extra
"""
    assert mirror.our_sources(mirror.one_line_sources(text), "bookworm") == [
        "deb [signed-by=/keys/one.gpg] http://one.example/debian bookworm main",
        "deb http://two.example/security bookworm-security main",
    ]


def test_deb822_sources_are_parsed():
    text = """\
Types: deb deb-src
# a remark
URIs: http://one.example/debian
Suites: trixie trixie-updates
 trixie-backports
Components: main
Signed-By: /keys/one.gpg

Enabled: no
Types: deb
URIs: http://off.example/debian
Suites: trixie
Components: main

Types: deb
URIs: http://two.example/debian
Suites: trixie
Components: contrib main
Signed-By:
 -----BEGIN PGP PUBLIC KEY BLOCK-----
 .
 -----END PGP PUBLIC KEY BLOCK-----
"""
    assert mirror.our_sources(mirror.deb822_sources(text), "trixie") == [
        "deb [signed-by=/keys/one.gpg] http://one.example/debian bookworm main",
        "deb [signed-by=/keys/one.gpg] http://one.example/debian bookworm-updates main",
        "deb http://two.example/debian bookworm main",
    ]


def test_links_of_the_sysroot_become_relative(tmp_path):
    (tmp_path / "usr/lib/deep").mkdir(parents=True)
    (tmp_path / "lib").mkdir()
    (tmp_path / "lib/libsample.so.1").write_text("here")
    (tmp_path / "usr/lib/deep/libsample.so").symlink_to("/lib/libsample.so.1")
    prepare.make_links_relative(tmp_path)
    assert os.readlink(tmp_path / "usr/lib/deep/libsample.so") == "../../../lib/libsample.so.1"
    assert (tmp_path / "usr/lib/deep/libsample.so").read_text() == "here"


def without_network(command, **environment):
    """Runs a command without any network, not even to a mirror on this machine."""
    if os.geteuid() != 0:
        pytest.skip("needs root, to make a network namespace")
    return subprocess.run(["unshare", "--net", *command], env=dict(os.environ, **environment), text=True,
                          capture_output=True, timeout=300)


def test_empty_cache_without_a_network_is_reported(tmp_path):
    done = without_network([FETCH], XDG_CACHE_HOME=str(tmp_path))
    assert done.returncode == 75
    assert "the board's mipsel packages" in done.stderr and str(tmp_path) in done.stderr


@pytest.fixture
def clone(bootable, tmp_path):
    """board/ in another clone, where nothing has been unpacked."""
    shutil.copytree(ROOT / "board", tmp_path / "board", ignore=shutil.ignore_patterns("__pycache__"))
    return tmp_path


def packages_of(cache):
    store = mirror.Store(cache / "packages")
    if store.read() is None:
        pytest.skip("needs all packages in the cache (board/fetch)")
    return store


def test_full_cache_serves_another_clone_without_a_network(clone):
    packages_of(prepare.cache())
    done = without_network([clone / "board/fetch"])
    assert done.returncode == 0, done.stderr
    assert "downloading" not in done.stderr
    sysroot = clone / "build/board/sysroot"
    assert (sysroot / "usr/lib/mipsel-linux-gnu/libz.so").resolve().is_relative_to(sysroot)
    assert (sysroot / "usr/include/zlib.h").is_file()
    assert list((clone / "build/board/kernel/boot").glob("vmlinuz-*"))


def test_damaged_package_is_detected(tmp_path):
    store = mirror.Store(tmp_path)
    file = tmp_path / "sample_1_mipsel.deb"
    file.write_bytes(b"whole")
    store.write([mirror.Package("sample", file.name, 5, mirror.digest(file))])
    assert [package.name for package in store.read()] == ["sample"]
    file.write_bytes(b"WHOLE")
    assert store.read() is None
