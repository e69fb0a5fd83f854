"""pcapdump, cmd=pcapdump and the archive's capture, on wires of the tests' own; read back by tcpdump as well."""

import ctypes
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from zarvo_e2e import (
    BIN, CAPTURE_SIZE, OTHER_MACHINE, PATIENCE, assert_compressed_whole, assert_whole, body_of,
    COMPRESSED_HEAD, PLAIN_HEAD, download_head, http_open, send_message, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True

HEAD = download_head("application/octet-stream", "pcapdump.cap")
FILE_HEADER = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)
CLONE_NEWNET = 0x40000000
NEAR, FAR = "near0", "far0"     # the two ends of a wire
IDLE_TICKS = 2                  # hundredths of a second of CPU time that a start and two idle seconds may take


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True)


@pytest.fixture(scope="module", autouse=True)
def network():
    """Everything in this file happens in a network of its own, with a loopback and two wires."""
    if OTHER_MACHINE:
        yield
        return
    libc = ctypes.CDLL(None, use_errno=True)
    with open("/proc/thread-self/ns/net") as before:
        assert libc.unshare(CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        ip("link", "set", "lo", "up")
        for number in "01":
            ip("link", "add", f"near{number}", "type", "veth", "peer", "name", f"far{number}")
            for end in ("near", "far"):
                ip("link", "set", end + number, "addrgenmode", "none", "arp", "off", "up")
        yield
        assert libc.setns(before.fileno(), CLONE_NEWNET) == 0


@pytest.fixture
def wires(here):
    """For tests that send frames of their own making."""
    wait_for(lambda: capturing_sockets() == 0, "no capture left")


def capturing_sockets():
    lines = pathlib.Path("/proc/thread-self/net/packet").read_text().splitlines()[1:]
    return sum(line.split()[3] == "0003" for line in lines)


def is_promiscuous(interface):
    shown = subprocess.run(["ip", "link", "show", interface], check=True, capture_output=True, text=True)
    return "PROMISC" in shown.stdout


# Frames.


def send(*frames, interface=FAR):
    with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as sock:
        sock.bind((interface, 0))
        for frame in frames:
            sock.send(frame)


def ethernet(kind, body):
    return b"\2" * 12 + struct.pack("!H", kind) + body


def ports(source, destination):
    return struct.pack("!HH", source, destination) + bytes(28)


ICMP, TCP, UDP, SCTP = 1, 6, 17, 132


def ipv4(protocol, body, options=b"", fragment=0):
    length = 20 + len(options)
    head = struct.pack("!BBHHHBBH8s", 0x40 | length // 4, 0, length + len(body), 0, fragment, 64, protocol, 0, b"\7" * 8)
    return ethernet(0x800, head + options + body)


def ipv6(next_header, body):
    return ethernet(0x86DD, struct.pack("!IHBB32s", 0x60000000, len(body), next_header, 64, b"\7" * 32) + body)


def tagged(frame):
    return frame[:12] + struct.pack("!HH", 0x8100, 7) + frame[12:]


# Captures.


def split_capture(stream):
    """[(header, frame)...] of a stream that consists of whole records."""
    assert stream[:24] == FILE_HEADER
    records, at = [], 24
    while at < len(stream):
        header = struct.unpack_from("<4I", stream, at)
        frame = stream[at + 16 : at + 16 + header[2]]
        assert len(frame) == header[2], "the last record is cut off"
        records.append((header, frame))
        at += 16 + len(frame)
    return records


def frames_of(stream):
    """The captured frames, as long as they were; what follows them in their records, and in padding, is zero."""
    frames = []
    for (seconds, microseconds, _, length), frame in split_capture(stream):
        assert not any(frame[length:])
        if seconds or microseconds:
            frames.append(frame[:length])
        else:
            assert not any(frame)
    return frames


def assert_tcpdump_reads(stream, count):
    if not shutil.which("tcpdump"):
        pytest.skip("needs tcpdump to read it back")
    read = subprocess.run(["tcpdump", "-n", "-r", "-"], input=stream, capture_output=True)
    assert read.returncode == 0, read.stderr
    assert b"truncated" not in read.stderr and b"bogus" not in read.stderr, read.stderr
    records = [line for line in read.stdout.splitlines() if line[:1].isdigit()]
    assert len(records) == count


def assert_capinfos_reads(stream, count, folder):
    """The other family of tools that open captures: complains of what it can't read to the end."""
    if not shutil.which("capinfos"):
        pytest.skip("needs capinfos to read it back")
    file = folder / "read-back.pcap"
    file.write_bytes(stream)
    read = subprocess.run(["capinfos", "-M", "-t", "-E", "-c", "-d", file], capture_output=True, text=True)
    assert (read.returncode, read.stderr) == (0, "")
    said = dict(re.split(r":\s+", line, maxsplit=1) for line in read.stdout.splitlines() if ": " in line)
    assert said["File type"] == "pcap"
    assert said["File encapsulation"] == "ether"
    assert said["Number of packets"] == str(count)
    assert said["Data size"] == f"{sum(fields[3] for fields, _ in split_capture(stream))} bytes"


class Applet:
    """A running pcapdump."""

    def __init__(self, file, *words, interface=NEAR, sockets=1, **how):
        self.file = pathlib.Path(file)
        self.process = subprocess.Popen([BIN / "pcapdump", interface, file, *words], stderr=subprocess.PIPE, **how)
        wait_for(lambda: capturing_sockets() == sockets, "capturing")
        wait_for(lambda: self.size() >= 24, "the file's header")

    def size(self):
        return self.file.stat().st_size

    def wait(self):
        _, said = self.process.communicate(timeout=PATIENCE)
        return self.process.returncode, said

    def finish(self, size=24):
        """Interrupts it when the file has `size` bytes; returns the file."""
        wait_for(lambda: self.size() >= size, lambda: f"{size} bytes, there are {self.size()}")
        self.process.send_signal(signal.SIGINT)
        assert self.wait() == (0, b"")
        return self.file.read_bytes()

    def ticks(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return int(fields[11]) + int(fields[12])


def record_bytes(frames):
    return sum(16 + len(frame) for frame in frames)


DROPPED_BY_8080 = [
    ipv4(TCP, ports(8080, 1)), ipv4(TCP, ports(1, 8080)), ipv4(UDP, ports(8080, 1)), ipv4(UDP, ports(1, 8080)),
    ipv4(SCTP, ports(8080, 1)), ipv4(SCTP, ports(1, 8080)), ipv4(TCP, ports(1, 8080), options=b"\1" * 40),
    ipv4(UDP, ports(1, 8080), fragment=0x2000), ipv6(TCP, ports(22, 1)), ipv6(TCP, ports(1, 22)),
    ipv6(UDP, ports(22, 1)), ipv6(SCTP, ports(1, 22)), tagged(ipv4(TCP, ports(1, 8080))),
]  # fmt: skip
KEPT_BY_8080 = [
    ipv4(TCP, ports(80, 81)), ipv4(TCP, ports(22, 1)), ipv4(UDP, ports(1, 22)), ipv4(SCTP, ports(1, 2)),
    ipv4(UDP, ports(1, 8080), fragment=0x2001), ipv4(UDP, ports(1, 8080), fragment=1),
    ipv4(ICMP, ports(8080, 8080)), ipv4(TCP, ports(1, 2) + bytes(1400), options=b"\1" * 12),
    ipv6(TCP, ports(8080, 1)), ipv6(UDP, ports(1, 8080)), ipv6(44, ports(22, 22)), ethernet(0x88B5, bytes(1500)),
]  # fmt: skip


def test_kernel_drops_the_port_and_nothing_else(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", "8080")
    both = [frame for pair in zip(DROPPED_BY_8080, KEPT_BY_8080) for frame in pair]
    send(*both, DROPPED_BY_8080[-1])
    stream = applet.finish(24 + record_bytes(KEPT_BY_8080))
    assert frames_of(stream) == KEPT_BY_8080
    assert_tcpdump_reads(stream, len(KEPT_BY_8080))


@pytest.mark.parametrize("port", [[], ["0"], ["65536"], ["-1"], ["text"]], ids=str)
def test_without_a_usable_port_everything_is_captured(wires, tmp_path, port):
    applet = Applet(tmp_path / "dump.cap", *port)
    sent = [frame for frame in DROPPED_BY_8080 + KEPT_BY_8080 if frame[12:14] != b"\x81\0"]
    send(*sent)
    stream = applet.finish(24 + record_bytes(sent))
    assert frames_of(stream) == sent
    assert_tcpdump_reads(stream, len(sent))
    assert_capinfos_reads(stream, len(sent), tmp_path)


def test_kernel_takes_the_tag_of_a_virtual_network_off(wires, tmp_path):
    """The tag is not part of what a packet socket reads, as it is with tagging done by the hardware."""
    applet = Applet(tmp_path / "dump.cap")
    frame = ipv4(UDP, ports(5, 6))
    send(tagged(frame))
    assert frames_of(applet.finish(24 + record_bytes([frame]))) == [frame]


def test_several_interfaces_go_into_one_file(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", interface="near1,unknown,near0", sockets=2)
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(2)]
    send(frames[0], interface="far0")
    wait_for(lambda: applet.size() > 24, "the first frame")
    send(frames[1], interface="far1")
    assert frames_of(applet.finish(24 + record_bytes(frames))) == frames


def test_idle_capture_costs_no_cpu_time(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    before = applet.ticks()
    time.sleep(2)   # what it does meanwhile is what is measured
    assert applet.ticks() - before <= IDLE_TICKS
    assert applet.finish() == FILE_HEADER


def test_promiscuous_mode_is_on_meanwhile_and_off_afterwards(wires, tmp_path):
    ip("link", "set", NEAR, "promisc", "on")
    applet = Applet(tmp_path / "dump.cap")
    assert is_promiscuous(NEAR)
    applet.finish()
    assert not is_promiscuous(NEAR)


def test_interrupt_in_the_middle_of_traffic_leaves_whole_records(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    over = threading.Event()

    def flood():
        while not over.is_set():
            send(*[ethernet(0x88B5, bytes(1000))] * 100)

    sender = threading.Thread(target=flood)
    sender.start()
    try:
        stream = applet.finish(1 << 20)
    finally:
        over.set()
        sender.join()
    assert set(map(len, frames_of(stream))) == {1014}


def test_interrupt_that_was_ignored_stays_ignored(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
    applet.process.send_signal(signal.SIGINT)
    frame = ethernet(0x88B5, bytes(60))
    send(frame)
    wait_for(lambda: applet.size() > 24, "still capturing")
    applet.process.send_signal(signal.SIGTERM)
    assert applet.wait() == (0, b"")
    assert frames_of(applet.file.read_bytes()) == [frame]


def test_further_interrupts_neither_kill_it_nor_leave_the_interface_promiscuous(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(10)]
    send(*frames)

    def interrupted():
        applet.process.send_signal(signal.SIGINT)
        return applet.process.poll() is not None

    wait_for(interrupted, "ended")
    assert applet.wait() == (0, b"")
    assert frames_of(applet.file.read_bytes()) == frames
    assert not is_promiscuous(NEAR)


def test_timestamps_of_several_interfaces_never_decrease(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", interface="near0,near1", sockets=2)
    frame = ethernet(0x88B5, bytes(60))
    senders = [threading.Thread(target=send, args=[frame] * 1000, kwargs={"interface": end}) for end in ("far0", "far1")]
    for sender in senders:
        sender.start()
    for sender in senders:
        sender.join()
    stream = applet.finish(24 + 2000 * (16 + len(frame)))
    times = [header[:2] for header, _ in split_capture(stream)]
    assert len(times) == 2000
    assert times == sorted(times)
    assert_tcpdump_reads(stream, len(times))


def test_interface_that_vanishes_ends_the_capture(wires, tmp_path):
    ip("link", "add", "short0", "type", "veth", "peer", "name", "short1")
    ip("link", "set", "short0", "up")
    applet = Applet(tmp_path / "dump.cap", interface="short0")
    ip("link", "del", "short0")
    assert applet.wait() == (0, b"")
    frames_of(applet.file.read_bytes())


def test_full_disk_ends_the_capture(wires, tmp_path):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "small", tmp_path], check=True)
    try:
        applet = Applet(tmp_path / "dump.cap")
        send(*[ethernet(0x88B5, bytes(1400))] * 100)
        assert applet.wait() == (0, b"")
        assert applet.size() <= 65536
        assert not is_promiscuous(NEAR)
    finally:
        subprocess.run(["umount", tmp_path], check=True)


def test_reader_that_goes_ends_the_capture(wires):
    process = subprocess.Popen([BIN / "pcapdump", NEAR, "/dev/stdout"], stdout=subprocess.PIPE)
    assert process.stdout.read(24) == FILE_HEADER
    process.stdout.close()
    send(ethernet(0x88B5, bytes(60)))
    assert process.wait(PATIENCE) == 0


def test_without_permission_it_says_so(wires):
    words = ["setpriv", "--bounding-set", "-net_raw", BIN / "pcapdump", NEAR, "/dev/null"]
    ran = subprocess.run(words, capture_output=True)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, b"", b"socket: : Operation not permitted\n")


@pytest.mark.parametrize("words", [[], ["lo"]])
def test_usage(wires, words):
    ran = subprocess.run([BIN / "pcapdump", *words], capture_output=True)
    usage = b"USAGE: pcapdump netif dumpname [filter_portnumber]\n"
    assert (ran.returncode, ran.stdout, ran.stderr) == (1, usage, b"")


# Downloads.


def query(**values):
    return "&".join(["cmd=pcapdump", *(f"{name}={value}" for name, value in values.items())])


def capture_of(answer):
    """The capture in an answer; nothing of the download itself is in it."""
    stream = body_of(answer, HEAD)
    assert FILE_HEADER not in b"".join(frames_of(stream))
    return stream


def download(base_url, **values):
    with http_open(base_url, "/debugar.cgi?" + query(**values)) as client:
        pieces = []
        while piece := client.recv(1 << 16):
            pieces.append(piece)
    return b"".join(pieces)


@pytest.mark.parametrize("interface", ["any", "lo", "", "unknown", "x" * 100, "lo,lo", "lo,lo,lo,lo,lo,lo,lo,lo"])
def test_download_has_exactly_its_size_and_is_not_in_itself(base_url, interface, tmp_path):
    stream = capture_of(download(base_url, duration=1, totalsize=300001, interface=interface))
    assert len(stream) == 300001
    assert_tcpdump_reads(stream, len(split_capture(stream)))
    assert_capinfos_reads(stream, len(split_capture(stream)), tmp_path)


@pytest.mark.parametrize("family,address", [(socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")], ids=["4", "6"])
def test_download_over_either_protocol_is_not_in_itself(daemon, wires, family, address):
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
        answer = b""
        while piece := browser.recv(1 << 16):
            answer += piece
    assert len(capture_of(answer)) == 300001


@pytest.mark.parametrize("size", [24, 40, 41, 100, 24 + 32767, 24 + 32768, 24 + 32770, 24 + 32783])
def test_small_downloads_are_exact(base_url, size):
    assert len(body_of(download(base_url, duration=1, totalsize=size, interface="lo"), HEAD)) == size


@pytest.mark.parametrize("size", ["0", "-5", "text", ""])
def test_size_that_is_none_is_the_usual_one(base_url, size):
    assert len(capture_of(download(base_url, duration=1, totalsize=size, interface="lo"))) == 5120000


def test_usual_duration_is_five_seconds(base_url):
    begin = time.monotonic()
    assert len(capture_of(download(base_url))) == 5120000
    assert time.monotonic() - begin >= 4


def test_small_download_is_over_as_soon_as_it_is_full(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=5000, interface=NEAR).encode())
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    frames = [ethernet(0x88B5, bytes([number]) * 400) for number in range(20)]
    send(*frames)
    stream = capture_of(browser.read_all())
    assert len(stream) == 5000
    assert frames_of(stream) == frames[:3]  # a frame takes 1552 bytes
    assert not is_promiscuous(NEAR)


def test_frames_are_recorded_with_the_room_of_1536_bytes(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=2, totalsize=100000, interface=NEAR).encode(), tcp=True)
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    frames = [ethernet(0x88B5, b"a" * 1500), ethernet(0x88B5, b"b" * 46), ipv4(TCP, ports(1, 2))]
    send(*frames)
    stream = capture_of(browser.read_all())
    assert frames_of(stream) == frames
    assert [header[2] for header, _ in split_capture(stream)[:3]] == [1536] * 3


def test_interface_that_goes_down_leaves_a_whole_download(daemon, wires):
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=70000, interface=NEAR).encode())
    wait_for(lambda: capturing_sockets() == 1, "capturing")
    ip("link", "set", NEAR, "down")
    try:
        assert len(capture_of(browser.read_all())) == 70000
    finally:
        ip("link", "set", NEAR, "up")


@pytest.mark.parametrize("tcp", [False, True])
def test_browser_that_goes_ends_its_capture(daemon, wires, tcp):
    rest = daemon.rest()
    browser = daemon.ask(b"/x", query(duration=100000, totalsize=1 << 30, interface=NEAR).encode(), tcp=tcp)
    browser.read(len(HEAD) + 24)
    wait_for(lambda: is_promiscuous(NEAR), "capturing")
    browser.close()

    def over():
        send(ethernet(0x88B5, bytes(60)))
        return capturing_sockets() == 0

    wait_for(over, "the capture has ended")
    daemon.wait_for_rest(rest)
    assert not is_promiscuous(NEAR)


def test_captures_run_beside_each_other(daemon, wires):
    words = query(duration=2, totalsize=200000, interface=NEAR).encode()
    browsers = [daemon.ask(b"/x", words, tcp=True) for _ in range(8)]
    wait_for(lambda: capturing_sockets() == 8, "capturing")
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(10)]
    send(*frames)
    assert [frames_of(capture_of(browser.read_all())) for browser in browsers] == [frames] * 8


# The archive.


def udp_beacon(over, seen):
    """Sends datagrams over the loopback until `over` is set."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.bind(("127.0.0.1", 0))
        while not over.wait(0.05):
            sock.sendto(seen, sock.getsockname())


@pytest.mark.parametrize("path, head, check", [
    (b"/x/debug.tgz", COMPRESSED_HEAD, assert_compressed_whole),
    (b"/x/debug.tar", PLAIN_HEAD, assert_whole),
], ids=["compressed", "plain"])  # fmt: skip
def test_archive_has_a_capture_without_its_own_packets(daemon, wires, path, head, check):
    over = threading.Event()
    beacon = threading.Thread(target=udp_beacon, args=(over, b"this is a beacon"))
    beacon.start()
    try:
        browser = daemon.ask(path, tcp=True)
        port = struct.pack("!H", browser.near.getsockname()[1])
        answer = browser.read_all()
    finally:
        over.set()
        beacon.join()
    capture = next(member.data for member in check(body_of(answer, head)) if member.name == "netdump.cap")
    assert len(capture) == CAPTURE_SIZE
    frames = frames_of(capture)
    assert any(frame.endswith(b"this is a beacon") for frame in frames)
    assert not any(frame[23] == TCP and port in (frame[34:36], frame[36:38]) for frame in frames)
