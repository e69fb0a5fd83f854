"""pcapdump, on wires of the tests' own. Other programs must be able to read its files."""

import signal
import subprocess
import threading
import time

import pytest

from capture_checks import assert_capinfos_reads, assert_tcpdump_reads
from support.captures import (
    FILE_HEADER, HEADER_SIZE, ICMP, NEAR, SCTP, TCP, UDP, Applet, ethernet, frames_of, ipv4, ipv6, ports,
    record_bytes, send, split_capture, tagged,
)  # fmt: skip
from support.network import ip, is_promiscuous
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True
pytest_plugins = ["capture_fixtures"]

IDLE_TICKS = 2  # hundredths of a second of CPU time that a start and two idle seconds may take


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


def test_filter_drops_the_port_and_nothing_else(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", "8080")
    both = [frame for pair in zip(DROPPED_BY_8080, KEPT_BY_8080) for frame in pair]
    send(*both, DROPPED_BY_8080[-1])
    stream = applet.finish(HEADER_SIZE + record_bytes(KEPT_BY_8080))
    assert frames_of(stream) == KEPT_BY_8080
    assert_tcpdump_reads(stream, len(KEPT_BY_8080))


@pytest.mark.parametrize("port", [[], ["0"], ["65536"], ["-1"], ["text"]], ids=str)
def test_everything_is_captured_without_a_valid_port(wires, tmp_path, port):
    applet = Applet(tmp_path / "dump.cap", *port)
    sent = [frame for frame in DROPPED_BY_8080 + KEPT_BY_8080 if frame[12:14] != b"\x81\0"]
    send(*sent)
    stream = applet.finish(HEADER_SIZE + record_bytes(sent))
    assert frames_of(stream) == sent
    assert_tcpdump_reads(stream, len(sent))
    assert_capinfos_reads(stream, len(sent), tmp_path)


def test_vlan_tag_is_not_captured(wires, tmp_path):
    """The kernel removes the tag before a packet socket reads the frame."""
    applet = Applet(tmp_path / "dump.cap")
    frame = ipv4(UDP, ports(5, 6))
    send(tagged(frame))
    assert frames_of(applet.finish(HEADER_SIZE + record_bytes([frame]))) == [frame]


def test_several_interfaces_are_captured_into_one_file(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", interface="near1,unknown,near0", sockets=2)
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(2)]
    send(frames[0], interface="far0")
    wait_for(lambda: applet.size() > HEADER_SIZE, "the first frame")
    send(frames[1], interface="far1")
    assert frames_of(applet.finish(HEADER_SIZE + record_bytes(frames))) == frames


def test_idle_capture_costs_no_cpu_time(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    before = applet.cpu_ticks()
    time.sleep(2)  # the CPU time of this interval is measured
    assert applet.cpu_ticks() - before <= IDLE_TICKS
    assert applet.finish() == FILE_HEADER


def test_promiscuous_mode_is_on_during_a_capture_only(wires, tmp_path):
    ip("link", "set", NEAR, "promisc", "on")
    applet = Applet(tmp_path / "dump.cap")
    assert is_promiscuous(NEAR)
    applet.finish()
    assert not is_promiscuous(NEAR)


def test_interrupt_during_traffic_leaves_whole_records(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    ended = threading.Event()

    def flood():
        while not ended.is_set():
            send(*[ethernet(0x88B5, bytes(1000))] * 100)

    sender = threading.Thread(target=flood)
    sender.start()
    try:
        stream = applet.finish(1 << 20)
    finally:
        ended.set()
        sender.join()
    assert set(map(len, frames_of(stream))) == {1014}


def test_interrupt_that_the_starter_ignores_stays_ignored(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap", preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN))
    applet.process.send_signal(signal.SIGINT)
    frame = ethernet(0x88B5, bytes(60))
    send(frame)
    wait_for(lambda: applet.size() > HEADER_SIZE, "still capturing")
    applet.process.send_signal(signal.SIGTERM)
    assert applet.wait() == (0, b"")
    assert frames_of(applet.file.read_bytes()) == [frame]


def test_further_interrupts_neither_kill_it_nor_leave_the_interface_promiscuous(wires, tmp_path):
    applet = Applet(tmp_path / "dump.cap")
    frames = [ethernet(0x88B5, bytes([number]) * 60) for number in range(10)]
    send(*frames)

    def ends_by_interrupt():
        applet.process.send_signal(signal.SIGINT)
        return applet.process.poll() is not None

    wait_for(ends_by_interrupt, "ended")
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
    stream = applet.finish(HEADER_SIZE + 2000 * (16 + len(frame)))
    times = [header[:2] for header, _ in split_capture(stream)]
    assert len(times) == 2000
    assert times == sorted(times)
    assert_tcpdump_reads(stream, len(times))


def test_capture_ends_when_its_interface_vanishes(wires, tmp_path):
    ip("link", "add", "short0", "type", "veth", "peer", "name", "short1")
    ip("link", "set", "short0", "up")
    applet = Applet(tmp_path / "dump.cap", interface="short0")
    ip("link", "del", "short0")
    assert applet.wait() == (0, b"")
    frames_of(applet.file.read_bytes())


def test_capture_ends_when_the_disk_is_full(wires, tmp_path):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k", "small", tmp_path], check=True)
    try:
        applet = Applet(tmp_path / "dump.cap")
        send(*[ethernet(0x88B5, bytes(1400))] * 100)
        assert applet.wait() == (0, b"")
        assert applet.size() <= 65536
        assert not is_promiscuous(NEAR)
    finally:
        subprocess.run(["umount", tmp_path], check=True)


def test_capture_ends_when_its_reader_is_gone(wires):
    process = subprocess.Popen([BIN / "pcapdump", NEAR, "/dev/stdout"], stdout=subprocess.PIPE)
    assert process.stdout.read(HEADER_SIZE) == FILE_HEADER
    process.stdout.close()
    send(ethernet(0x88B5, bytes(60)))
    assert process.wait(PATIENCE) == 0


def test_missing_permission_is_reported(wires):
    words = ["setpriv", "--bounding-set", "-net_raw", BIN / "pcapdump", NEAR, "/dev/null"]
    ran = subprocess.run(words, capture_output=True)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, b"", b"socket: : Operation not permitted\n")


@pytest.mark.parametrize("words", [[], ["lo"]])
def test_missing_arguments_print_the_usage(wires, words):
    ran = subprocess.run([BIN / "pcapdump", *words], capture_output=True)
    usage = b"USAGE: pcapdump netif dumpname [filter_portnumber]\n"
    assert (ran.returncode, ran.stdout, ran.stderr) == (1, usage, b"")
