"""The web front, between a browser and a daemon that the tests play themselves."""

import array
import concurrent.futures
import contextlib
import fcntl
import os
import pathlib
import re
import resource
import select
import signal
import socket
import stat
import subprocess
import threading
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("ZARVO_BIN", ROOT / "build" / "host" / "bin"))
WEBFRONT = BIN / "webfront"

PATIENCE = 20  # seconds until a test gives up on something that should happen at once
HEAD_TIME = 10  # seconds that the front gives a client for its head
HEAD_LIMIT = 8192
CONNECTION_LIMIT = 900

pytestmark = pytest.mark.skipif(not WEBFRONT.exists(), reason=f"{WEBFRONT} is not built")


class Front:
    """A running webfront."""

    def __init__(self, socket_path, *words):
        self.process = subprocess.Popen(
            [WEBFRONT, "--port", "0", "--socket", str(socket_path), *words],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        assert select.select([self.process.stdout], [], [], PATIENCE)[0], "webfront printed nothing"
        self.line = self.process.stdout.readline().decode()
        found = re.fullmatch(r"http://127\.0\.0\.1:(\d+)/\n", self.line)
        assert found, self.line
        self.port = int(found[1])

    def connect(self):
        return socket.create_connection(("127.0.0.1", self.port), timeout=PATIENCE)

    def head(self, target, method="GET", version="1.1", host=None, fields=""):
        host = f"127.0.0.1:{self.port}" if host is None else host
        return f"{method} {target} HTTP/{version}\r\nHost: {host}\r\n{fields}\r\n".encode()

    def exchange(self, request):
        """Sends the request and returns everything up to the end of the connection."""
        with self.connect() as client:
            client.sendall(request)
            return read_all(client)

    def get(self, target, **how):
        return self.exchange(self.head(target, **how))

    def sockets(self):
        """How many sockets it has open; 1, its listener, when it has nothing to do."""
        count = 0
        for fd in pathlib.Path(f"/proc/{self.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):  # closed since it was listed
                count += os.readlink(fd).startswith("socket:")
        return count

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        out, err = self.process.communicate(timeout=PATIENCE)
        assert (self.process.returncode, out, err) == (0, b"", b"")


class FakeDaemon:
    """Receives connections as the daemon does and passes each to `answer(message, descriptor)`."""

    def __init__(self, path, answer):
        self.path = path
        self.answer = answer
        self.messages = []
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(str(path))
        self.listener.listen(128)
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        while True:
            peer = self.listener.accept()[0]
            with peer:
                message, passed = receive_message(peer)
            if message == b"stop" and not passed:
                return
            self.messages.append(message)
            assert len(passed) == 1, passed
            try:
                self.answer(message, passed[0])
            finally:
                os.close(passed[0])

    def stop(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as last:
            last.connect(str(self.path))
            last.sendall(b"stop")
        self.thread.join(PATIENCE)
        self.listener.close()
        assert not self.thread.is_alive()


def receive_message(peer):
    peer.settimeout(PATIENCE)
    message, passed = b"", array.array("i")
    while True:
        data, extra, _, _ = peer.recvmsg(65536, socket.CMSG_SPACE(64 * passed.itemsize))
        for level, kind, content in extra:
            assert (level, kind) == (socket.SOL_SOCKET, socket.SCM_RIGHTS)
            passed.frombytes(content)
        if not data:
            return message, list(passed)
        message += data


def read_all(client):
    data = b""
    while piece := client.recv(65536):
        data += piece
    return data


def write_all(fd, data):
    """To a browser that may have gone."""
    left = memoryview(data)
    with contextlib.suppress(BrokenPipeError, ConnectionResetError):
        while left:
            left = left[os.write(fd, left) :]


def answer_with_message(message, fd):
    write_all(fd, b"HTTP/1.0 200 OK\r\n\r\n<" + message + b">")


def echoed(message):
    return b"HTTP/1.0 200 OK\r\n\r\n<" + message + b">"


def wait_for(condition, what, seconds=PATIENCE):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"still not: {what}"
        time.sleep(0.01)


def assert_error(answer, status, words):
    """The answer is a whole error answer: a good head and one plain sentence with these words."""
    head, _, body = answer.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    assert lines[0].startswith(f"HTTP/1.0 {status} "), answer
    fields = dict(line.split(": ", 1) for line in lines[1:])
    assert fields["Connection"] == "close"
    assert fields["Content-Type"] == "text/plain; charset=utf-8"
    assert fields["X-Content-Type-Options"] == "nosniff"
    assert fields.get("Allow") == ("GET" if status == 405 else None)
    assert int(fields["Content-Length"]) == len(body)
    assert body.endswith(b".\n") and body.count(b"\n") == 1, body
    assert words in body.decode()


@pytest.fixture
def socket_path(tmp_path):
    return tmp_path / "ctrl"


@pytest.fixture
def daemon(socket_path):
    fake = FakeDaemon(socket_path, answer_with_message)
    yield fake
    fake.stop()


@pytest.fixture
def front(socket_path):
    running = Front(socket_path)
    yield running
    running.stop()


# Handing over


def test_the_daemon_gets_path_zero_and_query_and_the_browser_its_answer(front, daemon):
    for target, message in [
        ("/debugar.cgi?cmd=ps", b"/debugar.cgi\0cmd=ps"),
        ("/cgi-bin/debug.tgz", b"/cgi-bin/debug.tgz\0"),
        ("/debug.tgz?listen", b"/debug.tgz\0listen"),
        ("/a%00%2fb?c=%41+d?e", b"/a%00%2fb\0c=%41+d?e"),
        ("/debug.tgz?", b"/debug.tgz\0"),
    ]:
        assert front.get(target) == echoed(message)
        assert daemon.messages.pop() == message
    assert daemon.messages == []


def test_the_descriptor_is_the_browsers_connection_in_blocking_mode(front, socket_path):
    seen = []

    def look(_message, fd):
        with socket.socket(fileno=os.dup(fd)) as connection:
            seen.append((fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_NONBLOCK, connection.getpeername()))

    fake = FakeDaemon(socket_path, look)
    try:
        with front.connect() as client:
            name = client.getsockname()
            client.sendall(front.head("/debug.tgz"))
            assert read_all(client) == b""
        assert seen == [(0, name)]
    finally:
        fake.stop()


def test_an_answer_far_beyond_the_socket_buffers_arrives_whole(front, socket_path):
    content = os.urandom(1 << 20) * 16
    fake = FakeDaemon(socket_path, lambda _message, fd: write_all(fd, content))
    try:
        assert front.get("/debug.tgz") == content
    finally:
        fake.stop()


def test_the_browser_sees_each_piece_at_once_and_the_end_when_the_daemon_closes(front, socket_path):
    go_on = threading.Event()

    def two_pieces(_message, fd):
        write_all(fd, b"first")
        assert go_on.wait(PATIENCE)
        write_all(fd, b"second")

    fake = FakeDaemon(socket_path, two_pieces)
    try:
        with front.connect() as client:
            client.sendall(front.head("/debug.tgz"))
            assert client.recv(100) == b"first"
            go_on.set()
            assert read_all(client) == b"second"
    finally:
        go_on.set()
        fake.stop()


def test_a_head_may_come_byte_by_byte(front, daemon):
    with front.connect() as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in front.head("/debugar.cgi?cmd=ps"):
            client.sendall(bytes([byte]))
        assert read_all(client) == echoed(b"/debugar.cgi\0cmd=ps")


def test_a_browser_may_close_its_sending_side(front, daemon):
    with front.connect() as client:
        client.sendall(front.head("/debug.tgz"))
        client.shutdown(socket.SHUT_WR)
        assert read_all(client) == echoed(b"/debug.tgz\0")


def test_the_longest_message_has_4094_bytes(front, daemon):
    path, query = "/" + "p" * 2000, "q" * (4094 - 2001 - 1)
    message = f"{path}\0{query}".encode()
    assert len(message) == 4094
    assert front.get(f"{path}?{query}") == echoed(message)
    assert_error(front.get(f"{path}?{query}q"), 414, "4094 bytes")
    assert_error(front.get("/" + "x" * 4093), 414, "4094 bytes")
    assert daemon.messages == [message]


def test_both_names_of_the_address_are_served_in_any_case(front, daemon):
    for host in (f"127.0.0.1:{front.port}", f"localhost:{front.port}", f"LOCALHOST:{front.port}"):
        assert front.get("/debug.tgz", host=host) == echoed(b"/debug.tgz\0")
    assert front.get("/debug.tgz", version="1.0") == echoed(b"/debug.tgz\0")


# What the front answers itself


def test_the_first_page_links_to_what_the_daemon_offers(front):
    answer = front.get("/").decode()
    head, _, body = answer.partition("\r\n\r\n")
    assert head.startswith("HTTP/1.0 200 OK\r\n")
    assert "\r\nContent-Type: text/html; charset=utf-8" in head
    assert "\r\nX-Content-Type-Options: nosniff" in head
    assert "\r\nConnection: close" in head
    assert f"\r\nContent-Length: {len(body.encode())}" in head
    for target in ("/debug.tgz", "/debug.tar", "/debugar.cgi?cmd=ps", "/debug.tgz?listen", "/debug.tgz?pop"):
        assert f'<a href="{target}">' in body


def test_a_bad_head_is_refused(front, daemon):
    for line in (b"", b"hello", b"GET /", b"GET / HTTP/3.0", b"GET /\0 HTTP/1.1", b"GET /\x01 HTTP/1.1"):
        assert_error(front.exchange(line + b"\r\n\r\n"), 400, "not well-formed")
    assert_error(front.get(f"http://127.0.0.1:{front.port}/debug.tgz"), 400, "target")
    assert_error(front.get("debug.tgz"), 400, "target")
    assert_error(front.get("/debug.tgz", fields="Content-Length: 1\r\n"), 400, "body")
    assert daemon.messages == []


def test_other_methods_are_refused(front, daemon):
    for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW"):
        assert_error(front.get("/debug.tgz", method=method), 405, "GET")
    answer = front.get("/", method="HEAD")
    assert answer.startswith(b"HTTP/1.0 405 ") and answer.endswith(b"\r\n\r\n")
    assert b"\r\nAllow: GET\r\n" in answer
    assert daemon.messages == []


def test_a_head_over_the_limit_is_refused(front, daemon):
    short = len(front.head("/x", fields="X: \r\n"))
    full = front.head("/x", fields="X: " + "y" * (HEAD_LIMIT - short) + "\r\n")
    assert len(full) == HEAD_LIMIT
    assert front.exchange(full) == echoed(b"/x\0")
    assert_error(front.get("/x", fields="X: " + "y" * (HEAD_LIMIT - short + 1) + "\r\n"), 431, "8192 bytes")
    assert_error(front.get("/x", fields="A: b\r\n" * 2000), 431, "8192 bytes")


def test_an_error_arrives_although_much_input_is_left_unread(front):
    body = b"b" * (32 << 20)  # more than the buffers between the two take
    for _ in range(3):
        request = front.head("/x", method="POST", fields=f"Content-Length: {len(body)}\r\n") + body
        assert_error(front.exchange(request), 405, "GET")


def test_foreign_hosts_are_refused(front, daemon):
    rebound = f"rebound.example:{front.port}"
    for host in (rebound, "rebound.example", "127.0.0.1", "localhost", "127.0.0.1:1", ""):
        for target in ("/", "/debug.tgz"):
            assert_error(front.get(target, host=host), 403, f"127.0.0.1:{front.port}")
    assert daemon.messages == []


def test_a_missing_host_and_a_second_one_are_refused(front, daemon):
    assert_error(front.exchange(b"GET /debug.tgz HTTP/1.1\r\n\r\n"), 400, "no Host")
    assert_error(front.exchange(b"GET /debug.tgz HTTP/1.0\r\n\r\n"), 403, "Only requests to")
    assert_error(front.get("/debug.tgz", fields="Host: rebound.example\r\n"), 400, "more than one Host")
    assert daemon.messages == []


def test_without_a_daemon_the_browser_hears_which_socket_was_tried_and_why_it_failed(front, socket_path):
    assert_error(front.get("/debug.tgz"), 502, f"{socket_path} did not take the request: No such file")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as deaf:
        deaf.bind(str(socket_path))
        assert_error(front.get("/debug.tgz"), 502, "Connection refused")


def test_browsers_that_ask_for_an_icon_start_no_archive(front, daemon):
    assert_error(front.get("/favicon.ico"), 404, "icon")
    assert daemon.messages == []


# Clients and daemons that are slow, silent or gone


def test_silent_clients_delay_nobody_and_are_dropped_in_time(front, daemon):
    with contextlib.ExitStack() as stack:
        start = time.monotonic()
        silent = [stack.enter_context(front.connect()) for _ in range(200)]
        partial = stack.enter_context(front.connect())
        partial.sendall(b"GET / HTTP/1.1\r\nHost: ")
        assert front.get("/debug.tgz") == echoed(b"/debug.tgz\0")
        assert time.monotonic() - start < HEAD_TIME / 2
        assert [client for client in silent if select.select([client], [], [], 0)[0]] == []
        # Bytes that come later gain no time.
        while not select.select([partial], [], [], 0.5)[0]:
            assert time.monotonic() - start < HEAD_TIME + 3
            partial.sendall(b"x")
        assert_error(read_all(partial), 408, "10 seconds")
        assert HEAD_TIME - 1 < time.monotonic() - start < HEAD_TIME + 3
        assert {read_all(client) for client in silent} == {b""}
        assert time.monotonic() - start < HEAD_TIME + 3


def test_a_daemon_that_is_stuck_holds_nobody_but_its_own_clients(front, socket_path):
    with contextlib.ExitStack() as stack:
        stuck = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
        stuck.bind(str(socket_path))
        stuck.listen(0)  # takes one connection into its queue, and the next ones wait
        start = time.monotonic()
        waiting = [stack.enter_context(front.connect()) for _ in range(40)]
        for client in waiting:
            client.sendall(front.head("/debug.tgz"))
        assert b"200 OK" in front.get("/")
        assert_error(front.get("/debug.tgz", method="POST"), 405, "GET")
        assert time.monotonic() - start < HEAD_TIME / 2
        # 16 are tried at a time, for 10 seconds; who had to queue for longer than that is told at once.
        told = []
        while len(told) < len(waiting) - 1:
            ready = select.select([c for c in waiting if c not in told], [], [], PATIENCE)[0]
            assert ready
            for client in ready:
                answer = read_all(client)
                assert answer.startswith((b"HTTP/1.0 502 ", b"HTTP/1.0 503 ")), answer
                assert str(socket_path).encode() in answer
                told.append(client)
        assert time.monotonic() - start < 2 * HEAD_TIME + 3


def assert_idle_soon(front):
    """All connections get closed, and not just because their time is up."""
    wait_for(lambda: front.sockets() == 1, "all connections closed", HEAD_TIME / 2)


def test_clients_that_vanish_leave_nothing_behind(front, daemon):
    reset_on_close = (1).to_bytes(4, "little") + (0).to_bytes(4, "little")
    whole = [front.head("/"), front.head("/debug.tgz"), front.head("/", method="POST")]
    for reset in (False, True):
        for sent in (b"", b"GET / HT", *whole):
            for _ in range(20):
                with front.connect() as client:
                    if reset:
                        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, reset_on_close)
                    client.sendall(sent)
    assert front.get("/debug.tgz") == echoed(b"/debug.tgz\0")
    assert_idle_soon(front)


def test_500_requests_leave_no_descriptor_behind(front, daemon):
    requests = [front.head("/debug.tgz"), front.head("/"), front.head("/", method="PUT"), b"bad\r\n\r\n"]
    for number in range(500):
        assert front.exchange(requests[number % len(requests)]) != b""
    assert_idle_soon(front)


def test_many_browsers_at_a_time_all_get_their_own_answer(front, daemon):
    def one(number):
        return front.get(f"/debug.tgz?{number}") == echoed(f"/debug.tgz\0{number}".encode())

    with concurrent.futures.ThreadPoolExecutor(40) as pool:
        assert all(pool.map(one, range(400)))


def test_beyond_the_connection_limit_clients_are_turned_away(front, daemon):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < CONNECTION_LIMIT + 200:
        pytest.skip(f"only {hard} descriptors are allowed")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, CONNECTION_LIMIT + 200), hard))
    try:
        with contextlib.ExitStack() as stack:
            silent = [stack.enter_context(front.connect()) for _ in range(CONNECTION_LIMIT)]
            assert_error(front.get("/debug.tgz"), 503, "Too many connections")
            for client in silent[:10]:
                client.close()
            wait_for(lambda: front.get("/debug.tgz") == echoed(b"/debug.tgz\0"), "room for a client")
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


# Start and end


def test_it_prints_one_line_and_listens_on_the_loopback_address_alone(front):
    table = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
    listening = [row.split()[1] for row in table if row.split()[3] == "0A"]
    assert [address for address in listening if address.endswith(f":{front.port:04X}")] == [
        f"0100007F:{front.port:04X}"
    ]
    front.process.terminate()
    assert front.process.stdout.read() == b""  # the fixture checks the rest


def test_its_sockets_are_closed_on_exec(front, daemon):
    with front.connect() as client:
        client.sendall(b"GET")
        assert front.get("/debug.tgz") == echoed(b"/debug.tgz\0")
        flags = []
        for fd in pathlib.Path(f"/proc/{front.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):  # a connection that has just ended
                if int(fd.name) > 2 and stat.S_ISSOCK(fd.stat().st_mode):
                    text = pathlib.Path(f"/proc/{front.process.pid}/fdinfo/{fd.name}").read_text()
                    flags.append(int(re.search(r"flags:\s*(\d+)", text)[1], 8))
        assert len(flags) >= 2
        assert all(one & os.O_CLOEXEC for one in flags)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_signal_ends_it_at_once_even_with_a_stuck_daemon(front, socket_path, number):
    with contextlib.ExitStack() as stack:
        stuck = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
        stuck.bind(str(socket_path))
        stuck.listen(0)
        clients = [stack.enter_context(front.connect()) for _ in range(5)]
        for client in clients[1:]:
            client.sendall(front.head("/debug.tgz"))
        assert b"200 OK" in front.get("/")
        start = time.monotonic()
        front.process.send_signal(number)
        assert front.process.wait(PATIENCE) == 0
        assert time.monotonic() - start < 2
        assert read_all(clients[0]) == b""
    with pytest.raises(ConnectionRefusedError):
        front.connect()


def test_the_port_can_be_used_again_at_once_but_not_twice(front, socket_path):
    assert b"200 OK" in front.get("/")
    words = [WEBFRONT, "--port", str(front.port), "--socket", str(socket_path)]
    second = subprocess.run(words, capture_output=True, text=True, timeout=PATIENCE)
    assert (second.returncode, second.stdout) == (1, "")
    assert second.stderr.count("\n") == 1 and f"127.0.0.1:{front.port}" in second.stderr
    front.stop()
    again = Front(socket_path, "--port", str(front.port))
    try:
        assert again.port == front.port
        assert b"200 OK" in again.get("/")
    finally:
        again.stop()


@pytest.mark.parametrize("words", [["--port"], ["--port", "x"], ["--port", "65536"], ["--bogus"], ["word"]])
def test_bad_options_end_with_the_usage_and_status_2(words):
    done = subprocess.run([WEBFRONT, *words], capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stdout) == (2, "")
    assert "usage: webfront [--port N] [--socket PATH]" in done.stderr
