import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import measure
from support.network import add_quiet_wire, capturing_sockets, private_network
from support.waiting import wait_for

ABOUT = "pcapdump against tcpdump -w on the same load: frames lost and CPU time for each captured frame"
TARGETS = ["zarvo", "bench_frames"]
NEEDS_SANDBOX = False  # it makes a network of its own, and examines only its own processes

# ZARVO_BENCH=quick is faster and less exact.
QUICK = os.environ.get("ZARVO_BENCH") == "quick"
SECONDS, ROUNDS = (3, 3) if QUICK else (10, 3)
SIZES = {"small": 60, "full-size": 1514}
RATES = [10000, 50000, 0]  # frames a second; 0: as many as possible
NEAR, FAR = "zb0", "zb1"

COMMANDS = {
    "pcapdump": lambda file: [measure.BIN / "pcapdump", NEAR, file],
    "tcpdump": lambda file: ["tcpdump", "-Z", "root", "-i", NEAR, "-w", file],
}


class Run:
    """One capture of one load."""

    def __init__(self, sent, captured, cpu_s, peak_kb):
        self.sent, self.captured, self.cpu_s, self.peak_kb = sent, captured, cpu_s, peak_kb

    def cpu_per_frame(self):
        return self.cpu_s / self.captured

    def lost(self):
        return self.sent - self.captured


def bytes_written(pid):
    return int(re.search(r"^wchar: (\d+)$", pathlib.Path(f"/proc/{pid}/io").read_text(), re.MULTILINE)[1])


def wait_until_drained(pid):
    """Waits until the capture has written everything. tcpdump writes at least once a second."""
    last, since = -1, time.monotonic()
    while time.monotonic() - since < 1.5:
        now = bytes_written(pid)
        if now != last:
            last, since = now, time.monotonic()
        time.sleep(0.05)


def frames_in(file, size):
    return (file.stat().st_size - 24) // (16 + size)


def capture(command, file, size, rate):
    """Captures one load. At the highest rate the file is not kept, so the disk is not measured."""
    target = "/dev/null" if rate == 0 else file
    process = subprocess.Popen(command(target), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_for(capturing_sockets, "capturing")
        sender = [measure.BIN / "bench_frames", FAR, str(size), str(rate), str(SECONDS)]
        sent = int(subprocess.run(sender, stdout=subprocess.PIPE, check=True).stdout)
        wait_until_drained(process.pid)
        written = bytes_written(process.pid)
        peak_kb = measure.proc_numbers(process.pid, "status")["VmHWM"]
    finally:
        process.send_signal(signal.SIGTERM)  # a process in the background ignores SIGINT
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = status
    wait_for(lambda: capturing_sockets() == 0, "socket closed")
    captured = (written - 24) // (16 + size) if rate == 0 else frames_in(file, size)
    file.unlink(missing_ok=True)
    return Run(sent, captured, usage.ru_utime + usage.ru_stime, peak_kb)


def lost_and_sent(runs):
    return sum(run.lost() for run in runs), sum(run.sent for run in runs)


def compare(report, folder, label, size, rate):
    load = f"{label} frames at {rate or 'the highest'} {'a second' if rate else 'rate'}"
    runs = {name: [] for name in COMMANDS}
    for _ in range(ROUNDS):
        for name, command in COMMANDS.items():
            runs[name].append(capture(command, folder / "capture", size, rate))
    ours, peers = runs["pcapdump"], runs["tcpdump"]
    report.ratio(f"CPU time for each captured frame, {load}", ("pcapdump", ours), ("tcpdump", peers),
                 Run.cpu_per_frame, bound=1.0)
    our_lost, our_sent = lost_and_sent(ours)
    peer_lost, peer_sent = lost_and_sent(peers)
    report.figure(
        f"frames lost, {load}", our_lost, "frames", bound=peer_lost,
        note=f"of {our_sent}; tcpdump lost {peer_lost} of {peer_sent}",
    )  # fmt: skip
    report.figure(f"largest memory, {load}", max(run.peak_kb for run in ours), "kB resident",
                  note=f"tcpdump {max(run.peak_kb for run in peers)} kB")


def run(report):
    if os.geteuid() != 0 or not shutil.which("tcpdump"):
        raise measure.Broken("needs tcpdump, and root for a network of its own")
    with private_network(), tempfile.TemporaryDirectory(dir="/dev/shm") as folder:
        add_quiet_wire(NEAR, FAR)
        for rate in RATES:
            for label, size in SIZES.items():
                compare(report, pathlib.Path(folder), label, size, rate)
