"""cmd=pcapdump&exact=1: a capture with true lengths and without padding."""

import re
import socket
import time

import pytest

from capture_checks import assert_capinfos_reads, assert_tcpdump_reads, assert_tshark_reads
from support.captures import FAR, HEADER_SIZE, NEAR, ethernet, frames_of, record_bytes, send, split_capture
from support.network import capturing_sockets, ip, is_promiscuous
from support.waiting import wait_for

NEEDS_SANDBOX = True
pytest_plugins = ["capture_fixtures"]

HEAD = re.compile(
    rb"HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
    rb"Content-Type: application/octet-stream\r\n"
    rb'Content-Disposition: attachment; filename="capture-([^"]*)-(\d{8}-\d{6}).cap"\r\n\r\n'
)
HEAD_SIZE = len(
    "HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
    "Content-Type: application/octet-stream\r\n"
    f'Content-Disposition: attachment; filename="capture-{NEAR}-YYYYMMDD-HHMMSS.cap"\r\n\r\n'
)
FRAMES = [ethernet(0x88B5, bytes([number]) * size) for number, size in enumerate((46, 178, 179, 1500), 1)]


def start(daemon, interface=NEAR, **values):
    """A browser whose capture has begun."""
    words = ["cmd=pcapdump", "exact=1", f"interface={interface}", *(f"{name}={value}" for name, value in values.items())]
    browser = daemon.ask(b"/x", "&".join(words).encode(), tcp=True)
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    return browser


def parse(answer):
    """(interface in the file name, stream) of an answer."""
    head = HEAD.match(answer)
    assert head, answer[:HEAD_SIZE]
    time.strptime(head[2].decode(), "%Y%m%d-%H%M%S")
    return head[1].decode(), answer[head.end() :]


def lengths(stream):
    """(incl_len, orig_len) of each record."""
    return [header[2:] for header, _ in split_capture(stream)]


@pytest.fixture
def long_frames(wires):
    """The wire carries frames of up to 9014 bytes."""
    for end in (NEAR, FAR):
        ip("link", "set", end, "mtu", "9000")
    yield
    for end in (NEAR, FAR):
        ip("link", "set", end, "mtu", "1500")


def test_records_have_the_lengths_of_their_frames(daemon, wires, tmp_path):
    browser = start(daemon, duration=1)
    send(*FRAMES)
    interface, stream = parse(browser.read_all())
    assert interface == NEAR
    assert frames_of(stream) == FRAMES
    assert lengths(stream) == [(len(frame), len(frame)) for frame in FRAMES]
    assert len(stream) == HEADER_SIZE + record_bytes(FRAMES)
    assert_tcpdump_reads(stream, len(FRAMES))
    assert_capinfos_reads(stream, len(FRAMES), tmp_path)


def test_long_frames_are_cut_but_their_lengths_are_not(daemon, long_frames, tmp_path):
    browser = start(daemon, duration=1)
    send(ethernet(0x88B5, b"l" * 9000), ethernet(0x88B5, b"m" * 1523))
    _, stream = parse(browser.read_all())
    assert lengths(stream) == [(1536, 9014), (1536, 1537)]
    assert_tcpdump_reads(stream, 2)
    assert_capinfos_reads(stream, 2, tmp_path)


def test_tshark_reads_it(daemon, long_frames, tmp_path):
    browser = start(daemon, duration=1)
    send(*FRAMES, ethernet(0x88B5, b"l" * 9000))
    assert_tshark_reads(parse(browser.read_all())[1], tmp_path)


def test_total_size_is_a_limit(daemon, wires):
    limit = HEADER_SIZE + record_bytes(FRAMES) - 1
    browser = start(daemon, totalsize=limit)
    send(*FRAMES)
    _, stream = parse(browser.read_all())
    assert frames_of(stream) == FRAMES[:-1]
    assert len(stream) == HEADER_SIZE + record_bytes(FRAMES[:-1])


def test_usual_capture_of_long_frames_has_the_recorded_lengths(daemon, long_frames):
    browser = daemon.ask(b"/x", f"cmd=pcapdump&exact=0&duration=1&totalsize=10000&interface={NEAR}".encode())
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    send(ethernet(0x88B5, b"l" * 9000))
    answer = browser.read_all()
    head, _, stream = answer.partition(b"\r\n\r\n")
    assert b'filename="pcapdump.cap"' in head
    assert lengths(stream)[0] == (1536, 1536)
    assert len(stream) == 10000


@pytest.mark.parametrize("interface, named", [("", "any"), ("lo,lo", "lo_lo"), ("x/y", "x_y")])
def test_own_connection_is_excluded_and_the_file_name_is_safe(daemon, wires, interface, named):
    browser = start(daemon, interface=interface, duration=1)
    name, stream = parse(browser.read_all())
    assert (name, frames_of(stream)) == (named, [])


@pytest.mark.parametrize("frames", [[], FRAMES], ids=["silent", "busy"])
@pytest.mark.parametrize("reset", [False, True], ids=["closed", "reset"])
def test_without_limits_it_ends_when_its_browser_leaves(daemon, wires, frames, reset):
    idle = daemon.idle_state()
    browser = start(daemon)
    send(*frames)
    _, stream = parse(browser.read(HEAD_SIZE + HEADER_SIZE + record_bytes(frames)))
    assert frames_of(stream) == frames
    if reset:
        linger_no_time = b"\1\0\0\0\0\0\0\0"
        browser.near.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger_no_time)
    browser.close()
    wait_for(lambda: capturing_sockets() == 0, "the end of the capture")
    daemon.wait_until_idle(idle)
    assert not is_promiscuous(NEAR)
