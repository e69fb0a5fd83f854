"""cmd=pcapdump, and the archive's capture."""

import os
import socket
import struct
import threading
import time

import pytest

from capture_checks import assert_capinfos_reads, assert_tcpdump_reads
from support.answers import COMPRESSED_HEAD, PLAIN_HEAD, body_of, download_head
from support.archives import CAPTURE_SIZE, assert_compressed_whole, assert_whole
from support.captures import FILE_HEADER, NEAR, TCP, ethernet, frames_of, ipv4, ports, send, split_capture
from support.connections import receive_all, send_message
from support.network import capturing_sockets, ip, is_promiscuous
from support.waiting import PATIENCE, wait_for
from support.web import http_get

NEEDS_SANDBOX = True
pytest_plugins = ["capture_fixtures"]

HEAD = download_head("application/octet-stream", "pcapdump.cap")
MARK = b"this is a beacon"


def query(**values):
    return "&".join(["cmd=pcapdump", *(f"{name}={value}" for name, value in values.items())])


def capture_of(answer):
    """The capture in an answer. It must not contain frames of its own download."""
    stream = body_of(answer, HEAD)
    assert FILE_HEADER not in b"".join(frames_of(stream))
    return stream


def download(base_url, **values):
    return http_get(base_url, "/debugar.cgi?" + query(**values))


@pytest.mark.parametrize("interface", ["any", "lo", "", "unknown", "x" * 100, "lo,lo", "lo,lo,lo,lo,lo,lo,lo,lo"])
def test_download_has_the_exact_size_and_no_frame_of_itself(base_url, interface, tmp_path):
    stream = capture_of(download(base_url, duration=1, totalsize=300001, interface=interface))
    assert len(stream) == 300001
    assert_tcpdump_reads(stream, len(split_capture(stream)))
    assert_capinfos_reads(stream, len(split_capture(stream)), tmp_path)


@pytest.mark.parametrize("family,address", [(socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")], ids=["4", "6"])
def test_download_over_ipv4_or_ipv6_has_no_frame_of_itself(daemon, wires, family, address):
    if family == socket.AF_INET6 and not os.path.exists("/proc/net/if_inet6"):
        pytest.skip("needs IPv6")
    with socket.socket(family) as listener, socket.socket(family) as browser:
        listener.bind((address, 0))
        listener.listen(1)
        browser.settimeout(PATIENCE)
        browser.connect(listener.getsockname())
        with listener.accept()[0] as far:
            request = b"/x\0" + query(duration=1, totalsize=300001, interface="lo").encode()
            send_message(daemon.cgi_socket, request, [far.fileno()]).close()
        answer = receive_all(browser)
    assert len(capture_of(answer)) == 300001


@pytest.mark.parametrize("size", [24, 40, 41, 100, 24 + 32767, 24 + 32768, 24 + 32770, 24 + 32783])
def test_small_download_has_the_exact_size(base_url, size):
    assert len(body_of(download(base_url, duration=1, totalsize=size, interface="lo"), HEAD)) == size


@pytest.mark.parametrize("size", ["0", "-5", "text", ""])
def test_invalid_size_gives_the_default(base_url, size):
    assert len(capture_of(download(base_url, duration=1, totalsize=size, interface="lo"))) == 5120000


def test_default_duration_is_five_seconds(base_url):
    begin = time.monotonic()
    assert len(capture_of(download(base_url))) == 5120000
    assert time.monotonic() - begin >= 4


def test_download_ends_as_soon_as_it_is_full(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=5000, interface=NEAR).encode())
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    frames = [ethernet(0x88B5, bytes([number]) * 400) for number in range(20)]
    send(*frames)
    stream = capture_of(browser.read_all())
    assert len(stream) == 5000
    assert frames_of(stream) == frames[:3]  # a record takes 1552 bytes
    assert not is_promiscuous(NEAR)


def test_each_record_has_1536_bytes_for_its_frame(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=2, totalsize=100000, interface=NEAR).encode(), tcp=True)
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    frames = [ethernet(0x88B5, b"a" * 1500), ethernet(0x88B5, b"b" * 46), ipv4(TCP, ports(1, 2))]
    send(*frames)
    stream = capture_of(browser.read_all())
    assert frames_of(stream) == frames
    assert [header[2] for header, _ in split_capture(stream)[:3]] == [1536] * 3


def test_download_is_complete_although_the_interface_goes_down(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=70000, interface=NEAR).encode())
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    ip("link", "set", NEAR, "down")
    try:
        assert len(capture_of(browser.read_all())) == 70000
    finally:
        ip("link", "set", NEAR, "up")


@pytest.mark.parametrize("tcp", [False, True])
def test_capture_ends_when_its_browser_leaves(daemon, wires, tcp):
    idle = daemon.idle_state()
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=1 << 30, interface=NEAR).encode(), tcp=tcp)
    browser.read(len(HEAD) + 24)
    wait_for(lambda: is_promiscuous(NEAR), "capturing")
    browser.close()

    def has_ended():
        send(ethernet(0x88B5, bytes(60)))
        return capturing_sockets() == 0

    wait_for(has_ended, "the end of the capture")
    daemon.wait_until_idle(idle)
    assert not is_promiscuous(NEAR)


def test_eight_captures_can_run_at_once(daemon, wires):
    words = query(duration=2, totalsize=200000, interface=NEAR).encode()
    browsers = [daemon.ask(b"/x", words, tcp=True) for _ in range(8)]
    wait_for(lambda: capturing_sockets() == 8, "capturing")
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(10)]
    send(*frames)
    assert [frames_of(capture_of(browser.read_all())) for browser in browsers] == [frames] * 8


# The archive.


def send_datagrams(text, stopped):
    """Sends datagrams over the loopback until `stopped` is set."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.bind(("127.0.0.1", 0))
        while not stopped.wait(0.05):
            sock.sendto(text, sock.getsockname())


@pytest.mark.parametrize("path, head, check", [
    (b"/x/debug.tgz", COMPRESSED_HEAD, assert_compressed_whole),
    (b"/x/debug.tar", PLAIN_HEAD, assert_whole),
], ids=["compressed", "plain"])  # fmt: skip
def test_archive_has_a_capture_without_its_own_packets(daemon, wires, path, head, check):
    stopped = threading.Event()
    sender = threading.Thread(target=send_datagrams, args=(MARK, stopped))
    sender.start()
    try:
        browser = daemon.ask(path, tcp=True)
        port = struct.pack("!H", browser.near.getsockname()[1])
        answer = browser.read_all()
    finally:
        stopped.set()
        sender.join()
    capture = next(member.data for member in check(body_of(answer, head)) if member.name == "netdump.cap")
    assert len(capture) == CAPTURE_SIZE
    frames = frames_of(capture)
    assert any(frame.endswith(MARK) for frame in frames)
    assert not any(frame[23] == TCP and port in (frame[34:36], frame[36:38]) for frame in frames)
