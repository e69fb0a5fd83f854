"""Crashes and flash on the emulated board: the core-pattern handler, and oopslog on MTD of every kind."""

import contextlib
import pathlib
import re
import shutil
import subprocess
import sys
import threading

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "board"))

import board as emulated  # noqa: E402
from board_daemon import start_daemon, start_front, wait_for  # noqa: E402
from ftp_server import PASSWORD, USER, FtpServer  # noqa: E402
from oops_image import ERASED, NO_LOGS, PAGE, oopslog_of, random_flash, record, ring  # noqa: E402
from zarvo_e2e import CORE_HEAD, body_of, http_get  # noqa: E402

BUILD = ROOT / "build/mipsel"
PATTERN = "|/usr/bin/coredump-handler core.%e.%p %c %E %e"
CONFIG = "/etc/conf.d/debugar.cgi"
SIGSEGV = 11
FTP_HOST = "10.0.2.100"    # an address of the emulator's own network that leads to the server
FTP_PORT = 21
NAND_BLOCK = 16384
RELAY = """\
import os, socket, sys, threading
peer = socket.create_connection(("127.0.0.1", int(sys.argv[1])))
def upwards():
    while piece := os.read(0, 65536):
        peer.sendall(piece)
    peer.shutdown(socket.SHUT_WR)
threading.Thread(target=upwards, daemon=True).start()
while piece := peer.recv(65536):
    os.write(1, piece)
"""


class BoardWithFtp(emulated.Board):
    """Ports of FTP_HOST lead to this machine's loopback, each connection through a relay of its own."""

    def __init__(self, *arguments, ports, relay, **more):
        super().__init__(*arguments, **more)
        words = f"cmd:/usr/bin/python3 {relay}"
        forwards = [f",guestfwd=tcp:{FTP_HOST}:{guest}-{words} {host}" for guest, host in ports.items()]
        self.forwards = "".join(forwards)

    def _command_line(self, *ends):
        words = super()._command_line(*ends)
        words[words.index("-nic") + 1] += self.forwards
        return words


@pytest.fixture(scope="module")
def build():
    if reason := emulated.missing(BUILD):
        pytest.skip(reason)
    return BUILD


@pytest.fixture(scope="module")
def ftp(tmp_path_factory):
    pytest.importorskip("pyftpdlib", reason="needs python3-pyftpdlib")
    server = FtpServer(tmp_path_factory.mktemp("ftp") / "home", data_port=emulated.free_port())
    yield server
    server.stop()


@pytest.fixture(scope="module")
def crashing(build, ftp, tmp_path_factory):
    """A board whose kernel hands cores to the handler, with a daemon behind a web front."""
    relay = tmp_path_factory.mktemp("relay") / "relay.py"
    relay.write_text(RELAY)
    data_port = ftp.server.handler.passive_ports[0]
    ports = {FTP_PORT: ftp.port, data_port: data_port}
    with BoardWithFtp(build, http=True, libcurl=True, ports=ports, relay=relay) as board:
        board.daemon = start_daemon(board)
        board.front = start_front(board)
        board.set_core_pattern(PATTERN)
        yield board


@contextlib.contextmanager
def configured(board, text):
    board.put(text.encode(), CONFIG)
    try:
        yield
    finally:
        board.check(f"rm {CONFIG}")


def crash(board, limit="unlimited", argument=""):
    assert board.run(f"ulimit -c {limit}; exec segfault {argument}").status == 128 + SIGSEGV


def is_browser_with_the_daemon(board):
    """Whether the daemon holds an established connection to the board's port 80."""
    lines = [line.split() for line in board.get("/proc/net/tcp").decode().splitlines()[1:]]
    established = {entry[9] for entry in lines if entry[1].endswith(":0050") and entry[3] == "01"}
    held = board.run(f"ls -l /proc/{board.daemon}/fd").out.decode()
    return bool(established & set(re.findall(r"socket:\[(\d+)\]", held)))


class Waiting(threading.Thread):
    """A browser on this machine that waits for a core, and has got as far as that."""

    def __init__(self, board):
        super().__init__(daemon=True)
        self.url, self.answer = board.front, None
        self.start()
        wait_for(lambda: is_browser_with_the_daemon(board), "a browser that waits")

    def run(self):
        self.answer = http_get(self.url, "/debugar.cgi?cmd=coredump")

    def core(self):
        self.join(emulated.COMMAND_LIMIT)
        assert self.answer is not None, "nothing came"
        return body_of(self.answer, CORE_HEAD)


def assert_core_of_the_crash(core, folder):
    """What other programs see in it: the processor, the signal and where it happened."""
    (folder / "core").write_bytes(core)
    words = ["readelf", "-h", folder / "core"]
    read = subprocess.run(words, capture_output=True, text=True, check=True).stdout
    assert "CORE (Core file)" in read and "MIPS R3000" in read and "ELF32" in read
    if not shutil.which("gdb-multiarch"):
        pytest.skip("the core arrived and is one of MIPS; looking into it needs gdb-multiarch")
    words = ["gdb-multiarch", "-nx", "-batch"]
    words += ["-iex", "set sysroot /nonexistent", "-iex", "set debuginfod enabled off"]
    words += [BUILD / "bin/zarvo", "-c", folder / "core", "-ex", "info symbol $pc"]
    said = subprocess.run(words, capture_output=True, text=True, timeout=emulated.COMMAND_LIMIT).stdout
    assert "Core was generated by `segfault'" in said
    assert "terminated with signal SIGSEGV" in said
    assert re.search(r"^run_segfault\(int, char\*\*\)", said, re.MULTILINE), said


# Crashes.


def test_crash_reaches_the_browser_that_waits(crashing, tmp_path):
    browser = Waiting(crashing)
    crash(crashing)
    assert_core_of_the_crash(browser.core(), tmp_path)


def test_program_that_may_leave_no_core_is_passed_over(crashing):
    browser = Waiting(crashing)
    crash(crashing, limit=0, argument="first")
    crash(crashing, argument="second")
    core = browser.core()
    assert b"segfault second" in core and b"segfault first" not in core


def test_crash_is_uploaded_to_a_server_outside(crashing, ftp, tmp_path):
    url = f"ftp://{USER}:{PASSWORD}@{FTP_HOST}:{FTP_PORT}"
    text = f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = {url}\nTargetPath = /dumps\nTimeout = 100\n"
    with configured(crashing, text):
        crash(crashing)
        wait_for(lambda: ftp.commands("RNFR"), "the end of the upload")
    ((name, core),) = ftp.files().items()
    assert re.fullmatch(r"dumps/core\.segfault\.\d+", name)
    assert ftp.commands("STOR", "RNFR") == [f"STOR {name[6:]}", f"RNFR /{name}"]
    assert_core_of_the_crash(core, tmp_path)


@contextlib.contextmanager
def hidden(board, pattern):
    """Takes the files of that name out of the board's way for a while."""
    files = board.check(f"find / -xdev -name '{pattern}'").decode().split()
    assert files, pattern
    for file in files:
        board.check(f"mv {file} {file}.hidden")
    try:
        yield
    finally:
        for file in files:
            board.check(f"mv {file}.hidden {file}")


def test_without_libcurl_cores_still_reach_the_browser_and_uploads_fail(crashing, ftp):
    with hidden(crashing, "libcurl.so.4*"):
        browser = Waiting(crashing)
        crash(crashing)
        assert browser.core().startswith(b"\x7fELF")
        before = len(ftp.lines)
        with configured(crashing, f"CoreHandler = FTP\n[CoreHandlerFtp]\nTargetURL = ftp://{FTP_HOST}\n"):
            assert crashing.run("coredump-handler core.7 < /bin/busybox").status == 1
        assert len(ftp.lines) == before


# Flash.


@pytest.fixture(scope="module")
def flashed(build):
    with emulated.Board(build) as board:
        yield board


def write_flash(board, device, image, without=()):
    """Writes an image in blocks of NAND_BLOCK; without: numbers of blocks that are left alone."""
    board.put(image, "/tmp/image")
    blocks = [block for block in range(-(-len(image) // NAND_BLOCK)) if block not in without]
    board.check(f"for block in {' '.join(map(str, blocks))}; do dd if=/tmp/image of={device} bs={NAND_BLOCK}"
                " skip=$block seek=$block count=1 2>/dev/null || exit 1; done")


def assert_prints(board, device, image):
    for option, backwards in (("", False), ("-r ", True)):
        done = board.run(f"oopslog {option}{device}")
        assert (done.status, done.out, done.err) == (0, *oopslog_of(image, backwards))


def block_device_of(board, device):
    found = device.replace("mtd", "mtdblock")
    board.check(f"test -b {found}")
    return found


@pytest.fixture(scope="module")
def ram_flash(flashed):
    return flashed.add_ram_flash(total_kib=128, erase_kib=16)


RAM_IMAGES = ["ring", "ring cut in the middle", "random", "one record", "counts that wrapped"]


@pytest.mark.parametrize("name", RAM_IMAGES)
def test_ram_flash_reads_the_same_through_both_devices(flashed, ram_flash, name):
    image = {
        "ring": ring(32, 31),
        "ring cut in the middle": ring(32, 12),
        "random": random_flash(32, 5),
        "one record": ERASED * 7 + record(3, b"alone\n") + ERASED * 24,
        "counts that wrapped": record(0, b"0") + record(1, b"1") + ERASED * 28 + record(2**32 - 3, b"a")
        + record(2**32 - 2, b"b"),
    }[name]  # fmt: skip
    assert len(image) == 32 * PAGE
    write_flash(flashed, ram_flash, image)
    assert_prints(flashed, ram_flash, image)
    assert_prints(flashed, block_device_of(flashed, ram_flash), image)


def test_erased_ram_flash_has_no_logs(flashed, ram_flash):
    write_flash(flashed, ram_flash, ERASED * 32)
    for device in (ram_flash, block_device_of(flashed, ram_flash)):
        done = flashed.run(f"oopslog -r {device}")
        assert (done.status, done.out, done.err) == (0, *NO_LOGS)


def test_nand_with_bad_blocks(flashed):
    bad = [0, 2, 3]
    device = flashed.add_nand(bad)
    size = int(flashed.get(f"/sys/class/mtd/{pathlib.Path(device).name}/size"))
    pages = NAND_BLOCK // PAGE
    written = bytearray(ring(8 * pages, 4 * pages + 1))
    for block in bad:
        written[block * NAND_BLOCK : (block + 1) * NAND_BLOCK] = b"\xff" * NAND_BLOCK
    write_flash(flashed, device, bytes(written), without=bad)
    image = bytes(written) + b"\xff" * (size - len(written))
    assert_prints(flashed, device, image)
    assert_prints(flashed, block_device_of(flashed, device), image)


def test_what_is_no_flash_is_named(flashed):
    done = flashed.run("oopslog /dev/null")
    assert (done.status, done.out, done.err) == (1, b"", b"MEMGETINFO: Inappropriate ioctl for device\n")
    done = flashed.run("oopslog -rfoo")
    assert (done.status, done.out, done.err) == (1, b"", b"open: No such file or directory\n")
