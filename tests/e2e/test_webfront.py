"""The web front, between a browser and a daemon that the tests play themselves."""

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

from support.connections import receive_all
from support.fake_daemon import FakeDaemon, echo, echoed, write_all
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for
from support.web import Front

WEBFRONT = BIN / "webfront"
HEAD_TIME = 10  # seconds that the front gives a client for its head
HEAD_LIMIT = 8192
CONNECTION_LIMIT = 900

pytestmark = pytest.mark.skipif(not WEBFRONT.exists(), reason=f"{WEBFRONT} is not built")


def assert_error(answer, status, words):
    """The answer is a complete error page: a valid head, and one sentence with these words."""
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
    fake = FakeDaemon(socket_path, echo)
    yield fake
    fake.stop()


@pytest.fixture
def front(socket_path):
    running = Front(socket_path=socket_path)
    yield running
    running.stop()


# Requests for the daemon.


def test_daemon_gets_the_path_a_zero_byte_and_the_query(front, daemon):
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


def test_daemon_gets_the_browsers_connection_in_blocking_mode(front, socket_path):
    seen = []

    def examine(_message, fd):
        with socket.socket(fileno=os.dup(fd)) as connection:
            seen.append((fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_NONBLOCK, connection.getpeername()))

    fake = FakeDaemon(socket_path, examine)
    try:
        with front.connect() as client:
            name = client.getsockname()
            client.sendall(front.head("/debug.tgz"))
            assert receive_all(client) == b""
        assert seen == [(0, name)]
    finally:
        fake.stop()


def test_answer_larger_than_the_socket_buffers_arrives_complete(front, socket_path):
    content = os.urandom(1 << 20) * 16
    fake = FakeDaemon(socket_path, lambda _message, fd: write_all(fd, content))
    try:
        assert front.get("/debug.tgz") == content
    finally:
        fake.stop()


def test_browser_gets_each_piece_at_once_and_the_end_when_the_daemon_closes(front, socket_path):
    may_continue = threading.Event()

    def two_pieces(_message, fd):
        write_all(fd, b"first")
        assert may_continue.wait(PATIENCE)
        write_all(fd, b"second")

    fake = FakeDaemon(socket_path, two_pieces)
    try:
        with front.connect() as client:
            client.sendall(front.head("/debug.tgz"))
            assert client.recv(100) == b"first"
            may_continue.set()
            assert receive_all(client) == b"second"
    finally:
        may_continue.set()
        fake.stop()


def test_head_may_arrive_byte_by_byte(front, daemon):
    with front.connect() as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in front.head("/debugar.cgi?cmd=ps"):
            client.sendall(bytes([byte]))
        assert receive_all(client) == echoed(b"/debugar.cgi\0cmd=ps")


def test_browser_may_close_its_sending_side(front, daemon):
    with front.connect() as client:
        client.sendall(front.head("/debug.tgz"))
        client.shutdown(socket.SHUT_WR)
        assert receive_all(client) == echoed(b"/debug.tgz\0")


def test_longest_message_has_4094_bytes(front, daemon):
    path, query = "/" + "p" * 2000, "q" * (4094 - 2001 - 1)
    message = f"{path}\0{query}".encode()
    assert len(message) == 4094
    assert front.get(f"{path}?{query}") == echoed(message)
    assert_error(front.get(f"{path}?{query}q"), 414, "4094 bytes")
    assert_error(front.get("/" + "x" * 4093), 414, "4094 bytes")
    assert daemon.messages == [message]


def test_address_and_localhost_are_accepted_as_host(front, daemon):
    for host in (f"127.0.0.1:{front.port}", f"localhost:{front.port}", f"LOCALHOST:{front.port}"):
        assert front.get("/debug.tgz", host=host) == echoed(b"/debug.tgz\0")
    assert front.get("/debug.tgz", version="1.0") == echoed(b"/debug.tgz\0")


# Requests that the front answers itself.


def test_first_page_links_to_what_the_daemon_offers(front):
    answer = front.get("/").decode()
    head, _, body = answer.partition("\r\n\r\n")
    assert head.startswith("HTTP/1.0 200 OK\r\n")
    assert "\r\nContent-Type: text/html; charset=utf-8" in head
    assert "\r\nX-Content-Type-Options: nosniff" in head
    assert "\r\nConnection: close" in head
    assert f"\r\nContent-Length: {len(body.encode())}" in head
    for target in ("/debug.tgz", "/debug.tar", "/debugar.cgi?cmd=ps", "/debug.tgz?listen", "/debug.tgz?pop"):
        assert f'<a href="{target}">' in body


def test_malformed_head_is_refused(front, daemon):
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


def test_head_over_the_limit_is_refused(front, daemon):
    short = len(front.head("/x", fields="X: \r\n"))
    full = front.head("/x", fields="X: " + "y" * (HEAD_LIMIT - short) + "\r\n")
    assert len(full) == HEAD_LIMIT
    assert front.exchange(full) == echoed(b"/x\0")
    assert_error(front.get("/x", fields="X: " + "y" * (HEAD_LIMIT - short + 1) + "\r\n"), 431, "8192 bytes")
    assert_error(front.get("/x", fields="A: b\r\n" * 2000), 431, "8192 bytes")


def test_error_arrives_although_much_input_is_unread(front):
    body = b"b" * (32 << 20)  # more than the buffers between the two hold
    for _ in range(3):
        request = front.head("/x", method="POST", fields=f"Content-Length: {len(body)}\r\n") + body
        assert_error(front.exchange(request), 405, "GET")


def test_other_hosts_are_refused(front, daemon):
    rebound = f"rebound.example:{front.port}"
    for host in (rebound, "rebound.example", "127.0.0.1", "localhost", "127.0.0.1:1", ""):
        for target in ("/", "/debug.tgz"):
            assert_error(front.get(target, host=host), 403, f"127.0.0.1:{front.port}")
    assert daemon.messages == []


def test_missing_and_repeated_host_are_refused(front, daemon):
    assert_error(front.exchange(b"GET /debug.tgz HTTP/1.1\r\n\r\n"), 400, "no Host")
    assert_error(front.exchange(b"GET /debug.tgz HTTP/1.0\r\n\r\n"), 403, "Only requests to")
    assert_error(front.get("/debug.tgz", fields="Host: rebound.example\r\n"), 400, "more than one Host")
    assert daemon.messages == []


def test_without_a_daemon_the_error_names_the_socket_and_the_reason(front, socket_path):
    assert_error(front.get("/debug.tgz"), 502, f"{socket_path} did not take the request: No such file")
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as deaf:
        deaf.bind(str(socket_path))
        assert_error(front.get("/debug.tgz"), 502, "Connection refused")


def test_request_for_an_icon_starts_no_archive(front, daemon):
    assert_error(front.get("/favicon.ico"), 404, "icon")
    assert daemon.messages == []


# Slow, silent and vanished clients and daemons.


def test_silent_clients_delay_nobody_and_are_dropped_in_time(front, daemon):
    with contextlib.ExitStack() as stack:
        start = time.monotonic()
        silent = [stack.enter_context(front.connect()) for _ in range(200)]
        partial = stack.enter_context(front.connect())
        partial.sendall(b"GET / HTTP/1.1\r\nHost: ")
        assert front.get("/debug.tgz") == echoed(b"/debug.tgz\0")
        assert time.monotonic() - start < HEAD_TIME / 2
        assert [client for client in silent if select.select([client], [], [], 0)[0]] == []
        # Further bytes do not extend the time limit.
        while not select.select([partial], [], [], 0.5)[0]:
            assert time.monotonic() - start < HEAD_TIME + 3
            partial.sendall(b"x")
        assert_error(receive_all(partial), 408, "10 seconds")
        assert HEAD_TIME - 1 < time.monotonic() - start < HEAD_TIME + 3
        assert {receive_all(client) for client in silent} == {b""}
        assert time.monotonic() - start < HEAD_TIME + 3


def test_stuck_daemon_delays_only_its_own_clients(front, socket_path):
    with contextlib.ExitStack() as stack:
        stuck = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_STREAM))
        stuck.bind(str(socket_path))
        stuck.listen(0)  # its queue holds one connection; the next ones wait
        start = time.monotonic()
        waiting = [stack.enter_context(front.connect()) for _ in range(40)]
        for client in waiting:
            client.sendall(front.head("/debug.tgz"))
        assert b"200 OK" in front.get("/")
        assert_error(front.get("/debug.tgz", method="POST"), 405, "GET")
        assert time.monotonic() - start < HEAD_TIME / 2
        # The front passes on webfront_handover_threads connections at a time, for up to 10 seconds each. Others
        # that have waited longer than webfront_queue_time get their error at once.
        answered = []
        while len(answered) < len(waiting) - 1:
            ready = select.select([c for c in waiting if c not in answered], [], [], PATIENCE)[0]
            assert ready
            for client in ready:
                answer = receive_all(client)
                assert answer.startswith((b"HTTP/1.0 502 ", b"HTTP/1.0 503 ")), answer
                assert str(socket_path).encode() in answer
                answered.append(client)
        assert time.monotonic() - start < 2 * HEAD_TIME + 3


def assert_idle_soon(front):
    """All connections are closed well before the time limit would close them."""
    wait_for(lambda: front.sockets() == 1, "all connections closed", HEAD_TIME / 2)


def test_clients_that_vanish_leave_no_connection_open(front, daemon):
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


def test_500_requests_leave_no_descriptor_open(front, daemon):
    requests = [front.head("/debug.tgz"), front.head("/"), front.head("/", method="PUT"), b"bad\r\n\r\n"]
    for number in range(500):
        assert front.exchange(requests[number % len(requests)]) != b""
    assert_idle_soon(front)


def test_400_browsers_each_get_their_own_answer(front, daemon):
    def one(number):
        return front.get(f"/debug.tgz?{number}") == echoed(f"/debug.tgz\0{number}".encode())

    with concurrent.futures.ThreadPoolExecutor(40) as pool:
        assert all(pool.map(one, range(400)))


def test_clients_beyond_the_connection_limit_get_503(front, daemon):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard != resource.RLIM_INFINITY and hard < CONNECTION_LIMIT + 200:
        pytest.skip(f"needs {CONNECTION_LIMIT + 200} descriptors; the hard limit is {hard}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, CONNECTION_LIMIT + 200), hard))
    try:
        with contextlib.ExitStack() as stack:
            silent = [stack.enter_context(front.connect()) for _ in range(CONNECTION_LIMIT)]
            assert_error(front.get("/debug.tgz"), 503, "Too many connections")
            for client in silent[:10]:
                client.close()
            wait_for(lambda: front.get("/debug.tgz") == echoed(b"/debug.tgz\0"), "a free connection")
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


# Start and end.


def test_front_prints_one_line_and_listens_only_on_the_loopback_address(front):
    table = pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]
    listening = [row.split()[1] for row in table if row.split()[3] == "0A"]
    assert [address for address in listening if address.endswith(f":{front.port:04X}")] == [
        f"0100007F:{front.port:04X}"
    ]
    front.process.terminate()
    assert front.process.stdout.read() == b""  # the fixture checks the rest


def test_sockets_of_the_front_are_close_on_exec(front, daemon):
    with front.connect() as client:
        client.sendall(b"GET")
        assert front.get("/debug.tgz") == echoed(b"/debug.tgz\0")
        flags = []
        for fd in pathlib.Path(f"/proc/{front.process.pid}/fd").iterdir():
            with contextlib.suppress(FileNotFoundError):  # closed since it was listed
                if int(fd.name) > 2 and stat.S_ISSOCK(fd.stat().st_mode):
                    text = pathlib.Path(f"/proc/{front.process.pid}/fdinfo/{fd.name}").read_text()
                    flags.append(int(re.search(r"flags:\s*(\d+)", text)[1], 8))
        assert len(flags) >= 2
        assert all(one & os.O_CLOEXEC for one in flags)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_signal_ends_the_front_at_once_even_with_a_stuck_daemon(front, socket_path, number):
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
        assert receive_all(clients[0]) == b""
    with pytest.raises(ConnectionRefusedError):
        front.connect()


def test_port_can_be_used_again_at_once_but_not_twice(front, socket_path):
    assert b"200 OK" in front.get("/")
    words = [WEBFRONT, "--port", str(front.port), "--socket", str(socket_path)]
    second = subprocess.run(words, capture_output=True, text=True, timeout=PATIENCE)
    assert (second.returncode, second.stdout) == (1, "")
    assert second.stderr.count("\n") == 1 and f"127.0.0.1:{front.port}" in second.stderr
    front.stop()
    again = Front("--port", str(front.port), socket_path=socket_path)
    try:
        assert again.port == front.port
        assert b"200 OK" in again.get("/")
    finally:
        again.stop()


@pytest.mark.parametrize("words", [["--port"], ["--port", "x"], ["--port", "65536"], ["--bogus"], ["word"]])
def test_bad_options_give_status_2_and_the_usage(words):
    done = subprocess.run([WEBFRONT, *words], capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stdout) == (2, "")
    assert "usage: webfront [--port N] [--socket PATH]" in done.stderr
