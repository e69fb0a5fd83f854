"""The dumper against gdb's gcore on the same process, which measures how long it was stopped."""

import collections
import os
import pathlib
import re
import subprocess
import tempfile
import time

import measure

ABOUT = "a core of a running process, read to its last byte, against gcore -o FILE"
TARGETS = ["dcore", "bench_core_target"]
NEEDS_SANDBOX = True
GCORE = "/usr/bin/gcore"
ROUNDS, WARM_UP = 5, 1
TIME_BOUND, PAUSE_BOUND, MEMORY_BOUND = 0.2, 0.2, 0.1
BLOCK = 1 << 20

# Name, MB touched, MB reserved, number of threads.
PROCESSES = [
    ("100 MB touched", (100, 0, 0)),
    ("1 GB reserved, 10 MB touched", (10, 1024, 0)),
    ("200 threads", (1, 0, 200)),
]


Dump = collections.namedtuple("Dump", "wall_s pause_s peak_kb")


class Target:
    def __init__(self, numbers):
        words = [measure.BIN / "bench_core_target", *map(str, numbers)]
        self.process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.process.stdout.readline()
        self.pid = self.process.pid

    def longest_gap_s(self):
        """The longest time between two readings of its clock since the last call."""
        self.process.stdin.write(b"\n")
        self.process.stdin.flush()
        return int(self.process.stdout.readline()) / 1e6

    def end(self):
        self.process.kill()
        self.process.communicate()


def peak_of(pid):
    """The peak memory of a process in kB. Unlike ru_maxrss, it does not include the time before exec."""
    try:
        return measure.proc_numbers(pid, "status").get("VmHWM", 0)
    except OSError:
        return 0


def descendants(pid):
    """A process and its descendants. gcore is a script; the debugger that it starts needs the memory."""
    found = [pid]
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            for child in pathlib.Path(f"/proc/{pid}/task/{task}/children").read_text().split():
                found += descendants(int(child))
    except OSError:
        pass
    return found


def timed(target, go):
    target.longest_gap_s()
    began = time.monotonic()
    go()
    return time.monotonic() - began, target.longest_gap_s()


def read_all(pipe):
    block, total = bytearray(BLOCK), 0
    while count := pipe.readinto(block):
        total += count
    return total


def dcore(target):
    def go():
        dumper = subprocess.Popen([measure.BIN / "dcore", "-c", "/dev/stdout", str(target.pid)],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, bufsize=0)
        total = read_all(dumper.stdout)
        said = dumper.stderr.read()
        if dumper.wait() != 0 or int(re.match(rb".{8}(\d+)", said)[1]) != total or said.count(b"\n") != 1:
            raise measure.Broken(f"dcore: {said.decode()}")

    return timed(target, go)


def gcore(target, folder):
    def go():
        subprocess.run([GCORE, "-o", f"{folder}/core", str(target.pid)], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL, check=True)

    taken = timed(target, go)
    (pathlib.Path(folder) / f"core.{target.pid}").unlink()
    return taken


def peak_while(words, **streams):
    """The peak memory of a program and of those that it starts, polled while they run."""
    running = subprocess.Popen(words, **streams)
    peaks = {}
    if running.stdout:
        os.set_blocking(running.stdout.fileno(), False)
    while running.poll() is None:
        for pid in descendants(running.pid):
            peaks[pid] = max(peaks.get(pid, 0), peak_of(pid))
        if running.stdout:
            # A small piece, so that the memory is polled often before the dumper ends.
            running.stdout.read(1 << 18)
        time.sleep(0.0002)
    if running.stdout:
        running.stdout.close()
    return max(peaks.values())


def peaks(target, folder):
    quiet = {"stdin": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    ours = peak_while([measure.BIN / "dcore", str(target.pid)], stdout=subprocess.PIPE, bufsize=0, **quiet)
    theirs = peak_while([GCORE, "-o", f"{folder}/core", str(target.pid)], **quiet | {"stdout": subprocess.DEVNULL})
    (pathlib.Path(folder) / f"core.{target.pid}").unlink()
    return ours, theirs


def compare(report, what, numbers, folder):
    target = Target(numbers)
    mine, theirs = [], []
    try:
        for _ in range(WARM_UP + ROUNDS):
            timings = dcore(target), gcore(target, folder)
            # Polling the memory takes time, so it happens in separate runs.
            for dumps, taken, peak in zip((mine, theirs), timings, peaks(target, folder)):
                dumps.append(Dump(*taken, peak))
    finally:
        target.end()
    mine, theirs = ("dcore", mine[WARM_UP:]), ("gcore", theirs[WARM_UP:])
    report.ratio(f"{what}, time to the last byte", mine, theirs, lambda dump: dump.wall_s, bound=TIME_BOUND)
    report.ratio(f"{what}, longest pause of the process", mine, theirs, lambda dump: dump.pause_s, bound=PAUSE_BOUND)
    report.ratio(f"{what}, peak memory", mine, theirs, lambda dump: dump.peak_kb, unit="kB", bound=MEMORY_BOUND)


def run(report):
    if not os.access(GCORE, os.X_OK):
        raise measure.Broken(f"{GCORE} is missing (Debian package gdb)")
    with tempfile.TemporaryDirectory() as folder:
        for what, numbers in PROCESSES:
            compare(report, what, numbers, folder)
