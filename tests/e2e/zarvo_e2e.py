"""What the end-to-end tests share: the daemon and its web front as processes, browsers, archives."""

import array
import contextlib
import dataclasses
import gzip
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import time
import urllib.parse

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZARVO_BIN", ROOT / "build" / "host" / "bin")).resolve()
SANITIZE = os.environ.get("ZARVO_SANITIZE", "")
DAEMON = str(BIN / "debugar.cgi")
OTHER_MACHINE = os.environ.get("ZARVO_URL", "").rstrip("/")

# Seconds until a test gives up on something that is due to happen, and between two looks.
PATIENCE = 90 if SANITIZE or OTHER_MACHINE else 30
HTTP_PATIENCE = 240  # an emulated board in a busy machine may compress for long before it has a block to send
POLL = 0.01
LOOKS = 20

CGI_SOCKET = "/var/run/dbg-cgi/ctrl-cgi-socket"
SEGFAULT_SOCKET = "/var/run/dbg-cgi/ctrl-segf-socket"
SYSLOG = pathlib.Path("/run/log/messages")

OFF, ON = "Set service watchdogs state: no\n", "Set service watchdogs state: yes\n"

SERVER_ERROR = (
    b"HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    b"The server encountered an internal error and could not complete the request\n"
)
BAD_REQUEST = (
    b"HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    b"The request has bad syntax or was inherently impossible to satisfy\n"
)
BUSY_PAGE = (
    b"HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
    b"Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
    b"<HTML><HEAD></HEAD>\r\n<BODY>\r\n"
    b"Another Crash Report generation is in progress. Please try again later ...\r\n</BODY></HTML>\r\n\r\n"
)


def download_head(media_type, name):
    return (
        "HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
        f'Content-Type: {media_type}\r\nContent-Disposition: attachment; filename="{name}"\r\n\r\n'
    ).encode()


PLAIN_HEAD = download_head("application/x-tar", "debug.tar")
COMPRESSED_HEAD = download_head("application/x-tar", "debug.tgz")
PS_HEAD = download_head("text/plain", "psdump.txt")
CORE_HEAD = download_head("application/octet-stream", "core")


def without_leak_check():
    """The environment of a program whose sanitizer is not to look for leaks at its exit: that takes descriptors, may
    hang without them, and complains when the program is killed meanwhile."""
    return dict(os.environ, ASAN_OPTIONS=os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0")


def body_of(answer, head):
    """The body of an answer that must begin with exactly `head`."""
    assert answer[: len(head)] == head, answer[: len(head) + 200]
    return answer[len(head) :]


def wait_for(condition, what, seconds=PATIENCE):
    """Returns the first true value of `condition()`. A machine that stands still for a while is not to be blamed
    on what is tested: however late it is, the condition has LOOKS chances."""
    end = time.monotonic() + seconds
    looks = 0
    while not (value := condition()):
        looks += 1
        late = looks >= LOOKS and time.monotonic() >= end
        assert not late, f"after {seconds} s still not: {what() if callable(what) else what}"
        time.sleep(POLL)
    return value


def when_free(ask):
    """The first answer to `ask()` that is not the busy page. Only an archive that was downloaded to its end is
    over when the daemon is free for another one; whoever left has to try."""

    def answer():
        got = ask()
        return got if got != BUSY_PAGE else None

    return wait_for(answer, "free for another archive", 4 * PATIENCE)


# Browsers.


def tcp_pair(room):
    """Two ends of a connection over loopback with buffers of about `room` bytes (None: the machine's own)."""
    with socket.socket() as listener:
        if room:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, room)
        listener.bind(("127.0.0.1", 0))
        listener.listen(1)
        near = socket.socket()
        if room:
            near.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
        near.connect(listener.getsockname())
        return near, listener.accept()[0]


class Browser:
    """The near end of a connection, and until it is handed over the far end as well."""

    def __init__(self, tcp=False, room=None):
        if tcp:
            self.near, self.far = tcp_pair(room)
        else:
            self.near, self.far = socket.socketpair()
            if room:
                self.far.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, room)
        self.near.settimeout(PATIENCE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.near.close()
        self.far.close()

    def read(self, count):
        """Exactly `count` bytes, fewer only at the end of the connection."""
        data = b""
        while len(data) < count and (piece := self.near.recv(count - len(data))):
            data += piece
        return data

    def read_all(self):
        pieces = []
        while piece := self.near.recv(1 << 16):
            pieces.append(piece)
        self.close()
        return b"".join(pieces)

    def is_silent(self, seconds=0.0):
        """Neither bytes nor the end of the connection have come, nor do in the next `seconds`."""
        poll = select.poll()
        poll.register(self.near, select.POLLIN)
        return not poll.poll(seconds * 1000)


def send_message(path, message, descriptors, end=True):
    """Sends one control message with `descriptors` on its first byte. Returns the connection.

    The daemon may hang up as soon as it has seen enough.
    """
    connection = socket.socket(socket.AF_UNIX)
    # A time-out of Python's would make the socket fail at once while the daemon's queue is full.
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", PATIENCE, 0))
    connection.connect(str(path))
    rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        if message:
            sent = connection.sendmsg([message], rights)
            connection.sendall(message[sent:])
        if end:
            connection.shutdown(socket.SHUT_WR)
    return connection


# Processes.


def require_sandbox():
    """For what looks at processes, sockets or the system log: goes on only where they can be looked at."""
    if OTHER_MACHINE:
        pytest.skip("looks at processes, which another machine does not show over HTTP")
    if not SYSLOG.exists():
        pytest.skip("needs the sandbox: tests/e2e/run.py FILE")
    assert os.path.exists(DAEMON), f"{DAEMON} is not built"
    assert running_copies() == [], "left over from an earlier test"


def in_mount_namespace(script):
    """Words that run a command after the shell commands `script`, whose mounts only the command sees."""
    words = ["/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-ec"]
    return [*words, script + '\nexec "$@"', "sh"]


TRACE_PROGRAMS = ("iostat", "pellora", "eventlistener", "pidstat")  # what a resource trace may start


def without_trace_programs():
    """Words that run a command where no program of a resource trace can be started, whatever is installed."""
    hide = (f"[ ! -e /usr/bin/{name} ] || mount --bind /dev/null /usr/bin/{name}" for name in TRACE_PROGRAMS)
    return in_mount_namespace("\n".join(hide))


def process_stat(pid):
    """The fields of /proc/PID/stat behind the name: state, parent, group, session...; None: it has gone."""
    try:
        text = pathlib.Path(f"/proc/{pid}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return text[text.rindex(")") + 2 :].split()


def end_by(process, sig):
    """Sends a signal that ends a process sooner or later; returns its status, as Popen gives it."""

    def has_ended():
        process.send_signal(sig)
        return process.poll() is not None

    process.send_signal(sig)
    if SANITIZE == "thread":
        # It puts a signal off until the next call that waits, which may be one that nothing else ends.
        wait_for(has_ended, f"the end by {sig.name}")
    return process.wait(PATIENCE)


def processes():
    return [int(name) for name in os.listdir("/proc") if name.isdigit()]


def children_of(pid):
    """(pid, state) of each child, a zombie's state being Z."""
    stats = {child: process_stat(child) for child in processes()}
    return [(child, fields[0]) for child, fields in stats.items() if fields and int(fields[1]) == pid]


def program_of(pid):
    try:
        return os.readlink(f"/proc/{pid}/exe")
    except (FileNotFoundError, ProcessLookupError, PermissionError):
        return ""


def running_copies():
    """Pids of everything in the sandbox that runs one of the built programs."""
    return [pid for pid in processes() if os.path.basename(program_of(pid)) in ("zarvo", "webfront")]


def descriptors_of(pid):
    found = {}
    for name in os.listdir(f"/proc/{pid}/fd"):
        try:
            found[int(name)] = os.readlink(f"/proc/{pid}/fd/{name}")
        except FileNotFoundError:
            pass
    return found


def listener_of(path):
    """The process that listens at a socket's path, or None."""
    with socket.socket(socket.AF_UNIX) as probe:
        probe.settimeout(PATIENCE)
        try:
            probe.connect(str(path))
        except (FileNotFoundError, ConnectionRefusedError):
            return None
        return struct.unpack("3i", probe.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]


def temporary_leftovers():
    return [name for name in os.listdir("/tmp") if name.startswith((".oopslog", ".sreport"))]


class Control:
    """The requests that anyone who reaches the control sockets can make."""

    cgi_socket = CGI_SOCKET
    segfault_socket = SEGFAULT_SOCKET

    def ask(self, path, query=b"", **kind):
        """Sends a request and returns its browser."""
        return self.ask_raw(path + b"\0" + query, **kind)

    def ask_raw(self, message, **kind):
        browser = Browser(**kind)
        send_message(self.cgi_socket, message, [browser.far.fileno()]).close()
        browser.far.close()
        return browser

    def answer(self, path, query=b""):
        return self.ask(path, query).read_all()

    def sync(self):
        """Returns when the listener has served all that was sent before."""
        assert self.answer(b"/sync", b"cmd=none") == BAD_REQUEST

    def wait_as(self, path=b"/x/core", query=b"listen", **kind):
        """A browser that is waiting for a dump by now."""
        browser = self.ask(path, query, **kind)
        self.sync()
        return browser

    def push(self, dump):
        """Plays the core handler; returns what the daemon said until it closed."""
        with socket.socket(socket.AF_UNIX) as handler:
            handler.settimeout(PATIENCE)
            handler.connect(self.segfault_socket)
            try:
                handler.sendall(dump)
                handler.shutdown(socket.SHUT_WR)
                return handler.recv(1)
            except (BrokenPipeError, ConnectionResetError):
                return b""


class Daemon(Control):
    """A daemon that is up, in the foreground, with its output in files."""

    def __init__(self, folder, *options, before=(), program=DAEMON, sockets=True, environment=None, **popen):
        folder.mkdir(parents=True, exist_ok=True)
        self.stdout, self.stderr = folder / "out", folder / "err"
        words = [*before, program, "-n", *map(str, options)]
        if not sockets:
            self.cgi_socket, self.segfault_socket = str(folder / "cgi"), str(folder / "segf")
            words += ["-c", self.cgi_socket, "-s", self.segfault_socket]
        with open(self.stdout, "wb") as out, open(self.stderr, "wb") as err:
            popen |= {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": err}
            self.process = subprocess.Popen(words, env=dict(os.environ, **environment or {}), **popen)
        self.pid = self.process.pid
        try:
            wait_for(self.is_up, lambda: f"up; it said {self.said()!r}")
        except AssertionError:
            self.process.kill()
            self.process.wait()
            raise

    def is_up(self):
        assert self.process.poll() is None, f"it ended with {self.process.returncode}: {self.said()!r}"
        if listener_of(self.cgi_socket) != self.pid:
            return False
        self.sync()
        return True

    def said(self):
        return self.stderr.read_text(errors="replace")

    def switches(self):
        """What it printed about the watchdogs."""
        return self.stdout.read_text()

    def state(self):
        return {
            "descriptors": descriptors_of(self.pid),
            "threads": len(os.listdir(f"/proc/{self.pid}/task")),
            "children": children_of(self.pid),
        }

    def rest(self):
        """Its state when it is idle, everything that is opened once for all being open."""
        self.answer(b"/x", b"pop")  # opens the connection to the system log
        self.ask(b"/x", b"listen").close()  # a pop is repeated after each request until somebody listens
        self.push(b"")
        self.sync()
        last = None

        def unchanged():
            nonlocal last
            before, last = last, self.state()
            time.sleep(0.05)
            return before == last

        wait_for(unchanged, lambda: f"at rest: {last}")
        return last

    def wait_for_rest(self, rest):
        """Waits until nothing is left of what was going on since `rest`."""

        def back():
            now = self.state()
            return (
                len(now["descriptors"]) <= len(rest["descriptors"])
                and now["threads"] <= rest["threads"]
                and now["children"] == []
            )

        wait_for(back, lambda: f"back at {rest}; now {self.state()}")

    def resident_kb(self):
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+) kB$", text, re.MULTILINE)[1])

    def stop(self):
        ended = self.process.poll()
        if ended is None:
            self.process.terminate()
        status = self.process.wait(PATIENCE)
        assert ended is None, f"the daemon ended by itself with {ended}: {self.said()!r}"
        assert status == -signal.SIGTERM, status
        # The undefined-behaviour sanitizer writes here even when the others write report files.
        assert "runtime error:" not in self.said(), self.said()


class Front:
    """A web front that hands over to the daemon at the usual socket."""

    def __init__(self):
        self.process = subprocess.Popen([BIN / "webfront", "--port", "0"], stdout=subprocess.PIPE)
        line = self.process.stdout.readline().decode()
        found = re.fullmatch(r"(http://127\.0\.0\.1:\d+)/\n", line)
        assert found, line
        self.url = found[1]

    def stop(self):
        self.process.terminate()
        self.process.stdout.close()
        assert self.process.wait(PATIENCE) == 0


# HTTP.


def http_open(base_url, target, room=None):
    """Sends a GET request; returns the socket with the answer coming."""
    address = urllib.parse.urlsplit(base_url)
    client = socket.socket()
    if room:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
    client.settimeout(HTTP_PATIENCE)
    client.connect((address.hostname, address.port or 80))
    client.sendall(f"GET {target} HTTP/1.1\r\nHost: {address.netloc}\r\n\r\n".encode())
    return client


def http_get(base_url, target):
    """The whole answer, byte for byte."""
    with http_open(base_url, target) as client:
        pieces = []
        while piece := client.recv(1 << 16):
            pieces.append(piece)
        return b"".join(pieces)


# System log.


class Log:
    """What has been logged since this was made."""

    def __init__(self):
        self.start = SYSLOG.stat().st_size

    def lines(self):
        with open(SYSLOG, "rb") as file:
            file.seek(self.start)
            return file.read().decode(errors="replace").splitlines()

    def wait(self, count):
        """The lines, when there are `count`; their time stamps, which the C library adds, are cut out."""
        wait_for(lambda: len(self.lines()) >= count, lambda: f"{count} lines: {self.lines()}")
        stamp = r"^(<\d+>)[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d "
        return [re.sub(stamp, r"\1", line) for line in self.lines()]


def log_error(pid, text):
    return f"<27>dbg-cgi[{pid}]: {text}"


def log_info(pid, text):
    return f"<30>dbg-cgi[{pid}]: {text}"


# Archives.

BLOCK = 512
TOP = re.compile(r"debug-(\d{8}-\d{6})-c(\d+)/")
STAMPED = re.compile(r"proc\.(\d{8}-\d{6})/[^/]+")
SNAPSHOT_DIRS = [
    "proc/sys/", "proc/sys/fs/", "proc/sys/kernel/", "proc/sys/kernel/random/", "proc/sys/net/bridge/",
    "proc/sys/net/core/", "proc/sys/net/ipv4/", "proc/sys/net/ipv4/conf/", "proc/sys/net/ipv4/neigh/",
    "proc/sys/net/ipv4/route/", "proc/sys/net/ipv6/", "proc/sys/net/ipv6/conf/", "proc/sys/net/ipv6/icmp/",
    "proc/sys/net/ipv6/neigh/", "proc/sys/net/ipv6/route/", "proc/sys/net/unix/", "proc/sys/vm/",
    "proc/driver/", "proc/net/", "proc/net/dev_snmp6/", "proc/net/ip6t_hashlimit/", "proc/net/ipt_hashlimit/",
    "proc/net/netfilter/", "proc/net/rpc/", "proc/net/stat/", "proc/net/vlan/",
]  # fmt: skip
KINDS = {
    "dbg-monitor.txt": "M", "media.conf": "C", "strace.log": "S", "netdump.cap": "N",
    "serverreport.txt": "R", "oopslog": "O", "kcore": "K",
}  # fmt: skip
READ_BOUND = 102400
TRACE_SIZE, CAPTURE_SIZE = 204800, 512000
KCORE_LIMIT = 10485760


@dataclasses.dataclass
class Member:
    path: str       # as in the header
    name: str       # without the top directory
    data: bytes
    header: bytes
    mtime: int


def header_of(path, size, mtime):
    """The 512 bytes that announce a member, put together from the table of a ustar header."""
    header = bytearray(BLOCK)

    def put(offset, text):
        header[offset : offset + len(text)] = text

    put(0, path.encode("utf-8", "surrogateescape")[:100])
    put(100, b"0000644\0")
    put(108, b"0000100\0")
    put(116, b"0000100\0")
    put(124, b"%011o\0" % size)
    put(136, b"%011o\0" % mtime)
    put(148, b" " * 8)
    put(156, b"0")
    put(257, b"ustar\0  ")
    put(265, b"admin")
    put(297, b"admin")
    put(148, b"%06o\0 " % sum(header))
    return bytes(header)


def split_tar(stream):
    """The members of a stream that must be used up by them to the last byte, padding included."""
    members = []
    offset = 0
    while offset < len(stream):
        header = stream[offset : offset + BLOCK]
        assert len(header) == BLOCK, f"{len(header)} bytes of a header at {offset}"
        path = header[:100].rstrip(b"\0").decode("utf-8", "surrogateescape")
        size, mtime = int(header[124:135], 8), int(header[136:147], 8)
        data = stream[offset + BLOCK : offset + BLOCK + size]
        offset += BLOCK + size + -size % BLOCK
        assert offset <= len(stream), f"{path} is cut off"
        padding = stream[offset - (-size % BLOCK) : offset]
        assert padding == bytes(len(padding)), f"padding of {path}"
        members.append(Member(path, path.partition("/")[2], data, header, mtime))
    return members


def kind_of(name):
    if STAMPED.fullmatch(name):
        return "T"
    if name.startswith("proc/"):
        return "P"
    if found := re.fullmatch(r"[^/]*\.\d+/(core|fdmap)", name):
        return {"core": "D", "fdmap": "F"}[found[1]]
    return KINDS.get(name, "?")


def assert_snapshot(names):
    """One /proc snapshot: the stamped files under one stamp, then each directory's, in the fixed order."""
    stamps = {found[1] for name in names if (found := STAMPED.fullmatch(name))}
    assert len(stamps) == 1, stamps
    order = [SNAPSHOT_DIRS.index(name[: name.rindex("/") + 1]) for name in names if kind_of(name) == "P"]
    assert order == sorted(order)
    return stamps.pop()


def assert_whole(stream):
    """Checks everything that holds for an archive of any machine; returns the members."""
    members = split_tar(stream)
    top = TOP.match(members[0].path)
    assert top, members[0].path
    assert [member.path for member in members if not member.path.startswith(top[0])] == []
    for member in members:
        assert member.header == header_of(member.path, len(member.data), member.mtime), member.path
    names = [member.name for member in members]
    kinds = "".join(map(kind_of, names))
    found = re.fullmatch(r"(M?C?)(T+P+)(SN)(R?O?K?)(T+P+)((?:DF?)*)", kinds)
    assert found, [name for name, kind in zip(names, kinds) if kind not in "TP"]
    first = assert_snapshot(names[found.start(2) : found.end(2)])
    second = assert_snapshot(names[found.start(5) : found.end(5)])
    assert top[1] <= first <= second
    sizes = {member.name: len(member.data) for member in members}
    assert sizes["strace.log"] == TRACE_SIZE
    assert sizes["netdump.cap"] == CAPTURE_SIZE
    assert 0 < sizes.get("kcore", 1) <= KCORE_LIMIT
    return members


def assert_compressed_whole(stream):
    """The same for a compressed one, whose framing is fixed."""
    assert stream[:10] == b"\x1f\x8b\x08\0\0\0\0\0\0\x03"
    assert subprocess.run(["gzip", "-t"], input=stream, check=True, capture_output=True).stderr == b""
    return assert_whole(gzip.decompress(stream))


def archive_number(members):
    return int(TOP.match(members[0].path)[2])
