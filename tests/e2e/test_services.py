"""The device of ./run: the daemon, the web front and the services that give an archive something to show."""

import os
import pathlib
import select
import signal
import subprocess

import pytest

from support.archives import assert_full_whole, unpacked
from support.processes import process_stat
from support.under_test import BIN, ROOT, SANITIZE
from support.waiting import PATIENCE, wait_for
from support.web import http_get

SERVICES = {"streamd", "recorderd", "eventd", "controld"}
ARCHIVE_TIME = 240 if SANITIZE else 90

pytestmark = [
    pytest.mark.skipif(not (BIN / "services" / "streamd").exists(), reason="the services are not built"),
    pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to make the sandbox"),
]


def children(pid):
    return [int(word) for word in pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]


def name_of(pid):
    return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()


def text_of(members, name):
    (member,) = [one for one in members if one.name == name]
    return member.data


class Device:
    """tools/serve in a sandbox."""

    def __init__(self, *more):
        words = [ROOT / "tools" / "sandbox", "--dcore", BIN / "dcore", ROOT / "tools" / "serve", BIN, "0", *more]
        self.process = subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert select.select([self.process.stdout], [], [], PATIENCE)[0], "the front printed nothing"
        self.url = self.process.stdout.readline().strip()
        (init,) = children(self.process.pid)
        (self.serve,) = children(init)
        self.pids = {name_of(pid): pid for pid in children(self.serve)}

    def ends(self):
        """The exit status and what was written to standard error. No process is left."""
        _, said = self.process.communicate(timeout=PATIENCE)
        wait_for(lambda: not any(map(process_stat, self.pids.values())), "all processes ended")
        return self.process.returncode, said

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        return self.ends()


@pytest.fixture(scope="module")
def device():
    running = Device()
    yield running
    running.stop()


@pytest.fixture
def own_device():
    running = Device()
    yield running
    running.stop()


@pytest.fixture(scope="module")
def members(device):
    wait_for(lambda: recordings(device), "a recording has begun")
    head, _, body = http_get(device.url, "/debug.tgz?full").partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.0 200 ")
    return assert_full_whole(unpacked(body))[0]


def recordings(device):
    """The files that the recorder keeps, and their sizes."""
    folder = pathlib.Path(f"/proc/{device.pids['recorderd']}/root/run/recordings")
    return {path.name: path.stat().st_size for path in folder.iterdir()} if folder.exists() else {}


def test_services_have_the_names_and_command_lines_of_a_device(device):
    assert SERVICES | {"debugar.cgi", "webfront"} == set(device.pids)
    for name in SERVICES:
        assert pathlib.Path(f"/proc/{device.pids[name]}/cmdline").read_bytes() == f"/usr/sbin/{name}\0".encode()


def test_archive_has_a_core_of_each_service_and_of_the_front_but_not_of_the_daemons_parent(members):
    cores = {one.name.rpartition("/")[0].rpartition(".")[0] for one in members if one.name.endswith("/core")}
    assert cores == SERVICES | {"webfront"}


def test_archive_has_a_trace_of_each_service_that_is_not_full(members):
    trace = text_of(members, "strace.log").decode(errors="replace")
    lines = [line for line in trace.splitlines() if line.strip()]
    traced = {line.split("] [", 1)[0].rpartition(" ")[2] for line in lines if "] [" in line}
    assert SERVICES - {"controld"} <= traced  # a question for controld may come after the trace of a slow machine
    if not SANITIZE:
        assert sum(map(len, lines)) < 0.7 * len(trace)


def test_archive_has_packets_of_the_stream_with_room_for_others(members):
    capture = text_of(members, "netdump.cap")
    source = b"Zarv"  # in each packet of the stream
    assert 10 < capture.count(source) < 400


def test_services_keep_their_descriptors_and_rotate_their_files(device):
    def descriptors():
        return {name: len(os.listdir(f"/proc/{device.pids[name]}/fd")) for name in SERVICES}

    wait_for(lambda: max(recordings(device).values(), default=0) > 1000, "something was recorded")
    before, first = descriptors(), set(recordings(device))
    wait_for(lambda: set(recordings(device)) - first, "the next file has begun")
    wait_for(lambda: descriptors() == before, lambda: f"{before} became {descriptors()}")


def test_services_use_little_of_the_processor(device):
    fields = [process_stat(device.pids[name]) for name in SERVICES]
    now = float(pathlib.Path("/proc/uptime").read_text().split()[0])
    seconds = [now - int(one[19]) / os.sysconf("SC_CLK_TCK") for one in fields]
    used = sum(int(one[11]) + int(one[12]) for one in fields) / os.sysconf("SC_CLK_TCK")
    assert used < 0.5 + 0.05 * max(seconds)


@pytest.mark.parametrize(("name", "words"), [("debugar.cgi", "the daemon"), ("webfront", "the web front")])
def test_end_of_the_daemon_or_the_front_ends_everything(own_device, name, words):
    os.kill(own_device.pids[name], signal.SIGKILL)
    status, said = own_device.ends()
    assert status == 1
    assert said.endswith(f"serve: {words} ended unexpectedly\n")


def test_end_of_a_service_does_not_end_the_others(own_device):
    os.kill(own_device.pids["streamd"], signal.SIGKILL)
    wait_for(lambda: process_stat(own_device.pids["streamd"]) is None, "it has been reaped")
    assert http_get(own_device.url, "/debugar.cgi?cmd=ps").startswith(b"HTTP/1.0 200 ")
    assert own_device.stop()[0] == 0


def test_command_is_one_more_process_of_the_device():
    running = Device("exec fdleak 100000000")
    try:
        pid = wait_for(lambda: [pid for pid in children(running.serve) if name_of(pid) == "fdleak"], "it was started")[0]
    finally:
        assert running.stop()[0] == 0
    assert process_stat(pid) is None


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_everything_with_status_zero(own_device, number):
    own_device.process.send_signal(number)
    assert own_device.ends()[0] == 0
