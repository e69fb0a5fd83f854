"""An emulated MIPS32 board for tests and for board/boot.

    with Board(build=ROOT / "build/mipsel", http=True) as board:
        board.put(b"hello", "/tmp/greeting")
        done = board.run("cat /tmp/greeting")
        assert (done.status, done.out) == (0, b"hello")
        urllib.request.urlopen(f"http://127.0.0.1:{board.http_port}/")

One Board is one machine, from start() to stop(). It leaves nothing behind: its disk is in memory, and the
emulator dies with the thread that started it.
"""

import contextlib
import dataclasses
import os
import shutil
import socket
import struct
import subprocess
import time
from pathlib import Path

import image
from console import Console
from line import (ANSWER_ERR, ANSWER_OUT, FINISH_EXITED, FINISH_FAILED, FINISH_OUT_OF_TIME, FINISH_SIGNALLED,
                  REQUEST_CLOCK, REQUEST_PUT, REQUEST_RUN, Line, LineLost)
from places import BUILD, KERNEL, SYSROOT, Unavailable
from prepare import kernel_release

EMULATOR = "qemu-system-mipsel"
# pcnet sends from within its receive handler. That re-enters the emulator's network code, which then frees
# connections in use and crashes with a few hundred of them. e1000 does not.
CARD = "e1000"
BOOT_LIMIT = 120  # seconds; about five on an idle machine
COMMAND_LIMIT = 120
GRACE = 15  # seconds after a command's limit for the board to report that the limit was reached


class BoardError(Exception):
    """The emulator or the board itself failed; the text says where the console's log is."""


class OutOfTime(Exception):
    """A command reached its limit and was killed with its session. out, err: its output so far."""

    def __init__(self, command, limit, out, err):
        super().__init__(f"killed after {limit:g} s: {command}")
        self.out = out
        self.err = err


@dataclasses.dataclass(frozen=True)
class Done:
    """A finished command. status: its exit status, or 128 plus the board's number of the signal that ended it."""

    status: int
    out: bytes
    err: bytes


def missing(build=None, program="zarvo"):
    """Why the board cannot be booted here, or why `build` lacks `program`. None if all is there."""
    if not shutil.which(EMULATOR):
        return f"{EMULATOR} is missing (Debian package qemu-system-mips)"
    if not (BUILD / "unpacked.json").exists() or not SYSROOT.is_dir() or not KERNEL.is_dir():
        return "the board's kernel and libraries are not in build/board (run board/fetch)"
    if build and not (build / "bin" / program).exists():
        return f"there is no {program} in {build.parent.name}/{build.name}/bin (cmake --build --preset mipsel)"
    return None


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Board:
    """One emulated machine; see the module's description.

    build         folder whose bin and lib become the board's /usr/bin and /usr/lib; None: no build
    http          port of 127.0.0.1 that is forwarded to the board's port 80; True: a free one; False: none
    second_net    add a second network card: eth1, 10.0.3.15
    libcurl       add libcurl.so.4 and its dependencies
    interactive   the console is this process's terminal, with a shell; see wait()
    log           file for the console's output; None: written to build/board/logs, only after a failure
    """

    def __init__(self, build=None, *, http=False, second_net=False, libcurl=False, interactive=False,
                 log=None, boot_limit=BOOT_LIMIT):
        self.build = Path(build) if build else None
        self.http_port = free_port() if http is True else http or None
        self.second_net = second_net
        self.libcurl = libcurl
        self.interactive = interactive
        self.log = log
        self.boot_limit = boot_limit
        self.boot_seconds = None
        self.emulator = None
        self.console = None
        self.line = None

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()

    # Start and stop.

    def start(self):
        """Boots. Returns when the board accepts commands."""
        reason = missing()
        if reason:
            raise Unavailable(reason)
        began = time.monotonic()
        try:
            self._switch_on()
            with self._failing("while booting"):
                self.line.await_ready(self.boot_limit)
        except BaseException:
            self.stop()
            raise
        self.boot_seconds = time.monotonic() - began

    def stop(self):
        """Ends the emulator at once."""
        if self.emulator:
            self.emulator.kill()
            self.emulator.wait()
            if self.emulator.stdout:
                self.emulator.stdout.close()
        if self.line:
            self.line.close()
        if self.console:
            self.console.close()
        self.emulator = self.line = self.console = None

    def wait(self):
        """Waits until the user leaves the interactive shell."""
        self.emulator.wait()

    def pid(self):
        """The emulator's process id."""
        return self.emulator.pid

    def _switch_on(self):
        line, line_end = socket.socketpair()
        console, console_end = socket.socketpair()
        self.line = Line(line)
        with line_end, console_end:
            self.console = Console(console, self.log)
            with self._image() as files:
                ends = (files.fileno(), line_end.fileno(), console_end.fileno())
                streams = {} if self.interactive else {
                    "stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.STDOUT}
                self.emulator = subprocess.Popen(self._command_line(*ends), pass_fds=ends, **streams)

    @contextlib.contextmanager
    def _image(self):
        """The initial file system, in memory."""
        with os.fdopen(os.memfd_create("board"), "wb") as file:
            file.write(image.base_image(self.libcurl))
            if self.build:
                image.write_build(file, self.build)
            file.flush()
            yield file

    def _command_line(self, files, line, console):
        forward = f",hostfwd=tcp:127.0.0.1:{self.http_port}-:80" if self.http_port else ""
        words = [
            "setpriv", "--pdeathsig", "KILL", "--",  # the emulator ends with us, however we end
            EMULATOR, "-machine", "malta", "-cpu", "24Kc", "-m", "256",
            "-nodefaults", "-display", "none", "-no-reboot",
            "-kernel", str(KERNEL / f"boot/vmlinuz-{kernel_release()}"),
            "-initrd", f"/proc/self/fd/{files}",
            # The emulator loses a timer's interrupt if the timer expires while it is being set, and the board's clock
            # then stops. With a fixed tick, timers are milliseconds away when they are set.
            "-append", "console=ttyS0 panic=-1 highres=off nohz=off" + (" quiet board.shell" if self.interactive else ""),
            "-nic", f"user,model={CARD},restrict=on,ipv6=off{forward}",
            "-device", "virtio-serial-pci",
            "-chardev", f"socket,id=line,fd={line}", "-device", "virtserialport,chardev=line,nr=1",
        ]
        if self.second_net:
            words += ["-nic", f"user,model={CARD},restrict=on,ipv6=off,net=10.0.3.0/24"]
        if self.interactive:
            words += ["-serial", "mon:stdio"]
        else:
            words += ["-chardev", f"socket,id=console,fd={console}", "-serial", "chardev:console"]
        return words

    @contextlib.contextmanager
    def _failing(self, doing):
        """Turns a LineLost into a BoardError that says all that is known about the cause."""
        try:
            yield
        except LineLost as lost:
            text = f"{lost} ({doing})"
            if not self.interactive:
                text += f"{self._last_words()}\n{self.console.tail()}\nconsole log: {self.console.keep()}"
            raise BoardError(text) from lost

    def _last_words(self):
        """The emulator's error messages, if it has ended."""
        try:
            self.emulator.wait(1)  # it closes the line a moment before it exits
        except subprocess.TimeoutExpired:
            return ""
        self.console.finish()
        said = self.emulator.stdout.read().decode(errors="replace").strip()
        return f"\nthe emulator said: {said}" if said else ""

    def _ask(self, kind, content, limit, doing, taken=None):
        with self._failing(doing):
            return self.line.ask(kind, content, limit + GRACE, taken)

    def _ask_and_check(self, kind, content, doing):
        what, detail = self._ask(kind, content, COMMAND_LIMIT, doing)
        if what != FINISH_EXITED:
            raise OSError(detail, f"{os.strerror(detail)} ({doing} on the board)")

    # Commands and files.

    def run(self, command, timeout=COMMAND_LIMIT, *, out=None, err=None):
        """Runs `command` with sh as root in /. Raises OutOfTime after `timeout` seconds.

        Done holds the output. The functions `out` and `err`, if given, get it as it comes. The command ends when
        its shell ends; background processes go on, but must write elsewhere.
        """
        kept = {ANSWER_OUT: bytearray(), ANSWER_ERR: bytearray()}
        live = {ANSWER_OUT: out, ANSWER_ERR: err}

        def taken(kind, content):
            kept[kind] += content
            if live[kind]:
                live[kind](content)

        request = struct.pack("<I", int(timeout * 1000)) + os.fsencode(command)
        what, detail = self._ask(REQUEST_RUN, request, timeout, f"at: {command}", taken)
        both = bytes(kept[ANSWER_OUT]), bytes(kept[ANSWER_ERR])
        if what == FINISH_OUT_OF_TIME:
            raise OutOfTime(command, timeout, *both)
        if what == FINISH_FAILED:
            raise OSError(detail, f"{os.strerror(detail)} (starting on the board: {command})")
        return Done(detail + (128 if what == FINISH_SIGNALLED else 0), *both)

    def check(self, command, timeout=COMMAND_LIMIT):
        """Runs a command that must succeed. Returns its standard output."""
        done = self.run(command, timeout)
        if done.status != 0:
            raise subprocess.CalledProcessError(done.status, command, done.out, done.err)
        return done.out

    def put(self, local, remote, mode=None):
        """Writes a local file (a path) or bytes to the path `remote`, and makes missing folders.

        mode: of the new file; by default the local file's, and 0644 for bytes.
        """
        if isinstance(local, (bytes, bytearray)):
            content, usual_mode = bytes(local), 0o644
        else:
            content, usual_mode = Path(local).read_bytes(), os.stat(local).st_mode & 0o7777
        path = os.fsencode(remote)
        head = struct.pack("<II", usual_mode if mode is None else mode, len(path))
        self._ask_and_check(REQUEST_PUT, head + path + content, f"writing {remote}")

    def get(self, remote):
        """The content of a file on the board."""
        return self.check(f"cat -- '{remote}'")

    def load_module(self, name, parameters=""):
        """Loads a kernel module after the modules it needs."""
        home = f"lib/modules/{kernel_release()}"
        *needed, own = image.modules_needed([name])
        if parameters and self._is_loaded(own):
            raise ValueError(f"module {name} is already loaded and cannot take {parameters}")
        for file in [*needed, own]:
            if self._is_loaded(file):
                continue
            if self.run(f"test -e /{home}/{file}").status != 0:
                self.put(KERNEL / home / file, f"/{home}/{file}")
            self.check(f"insmod /{home}/{file} {parameters if file == own else ''}")

    def _is_loaded(self, file):
        lines = self.get("/proc/modules").decode().splitlines()
        return any(entry.split()[0] == image.module_name(file) for entry in lines)

    def add_ram_flash(self, total_kib=4096, erase_kib=128):
        """Adds a flash device in memory, without bad blocks. Returns its /dev/mtdN."""
        return self._new_flash("mtdram", f"total_size={total_kib} erase_size={erase_kib}")

    def add_nand(self, bad_blocks=()):
        """Adds a NAND flash of 16 MiB in blocks of 16 KiB; the blocks listed are bad. Returns its /dev/mtdN."""
        bad = f" badblocks={','.join(str(block) for block in bad_blocks)}" if bad_blocks else ""
        return self._new_flash("nandsim", f"first_id_byte=0x20 second_id_byte=0x33{bad}")

    def _new_flash(self, module, parameters):
        before = self.flash_devices()
        self.load_module(module, parameters)
        fresh = [name for name in self.flash_devices() if name not in before]
        if len(fresh) != 1:
            raise BoardError(f"{module} made {len(fresh)} flash devices instead of one")
        return f"/dev/{fresh[0]}"

    def flash_devices(self):
        """The names in /proc/mtd: mtd0, mtd1 and so on."""
        lines = self.check("cat /proc/mtd").decode().splitlines()[1:]
        return [entry.split(":")[0] for entry in lines]

    def set_core_pattern(self, pattern):
        self.put(pattern.encode() + b"\n", "/proc/sys/kernel/core_pattern")

    def set_clock(self, seconds):
        """Sets the clock to seconds since 1970. After 2038 busybox's date, ls and `test -e` fail; use clock()."""
        self._ask_and_check(REQUEST_CLOCK, struct.pack("<q", seconds), "setting the clock")

    def clock(self):
        # By its path: after 2038 the shell's lookup in PATH fails for files used since.
        return int(self.check("/sbin/board-agent clock"))
