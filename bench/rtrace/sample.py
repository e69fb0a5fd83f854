import pathlib
import resource
import socket
import subprocess
import tempfile
import threading
import time

import measure
from support.daemon import Daemon

ABOUT = "a sample of every file over 500 processes, CPU time of the daemon, against cat of the same files"
TARGETS = ["zarvo", "bench_crowd"]
NEEDS_SANDBOX = True
PROCESSES, DESCRIPTORS = 500, 20
ROUNDS = 21
GROWTH_BOUND_KB = 1024
SOURCES = "smaps,status,smapstot,filenr,meminfo,diskinfo,pagetypeinfo"


def run(report):
    with measure.crowd(PROCESSES, DESCRIPTORS), tempfile.TemporaryDirectory() as folder:
        daemon = Daemon(pathlib.Path(folder, "daemon"))
        try:
            compare(report, daemon)
        finally:
            daemon.stop()


def compare(report, daemon):
    idle_kb = daemon.resident_kb()
    most_kb = idle_kb
    ours, theirs = [], []
    with daemon.ask(b"/x", f"cmd=rtrace&interval=1&trace={SOURCES}".encode()) as browser:
        sample = Samples(browser.near)
        sample.next()  # the trace starts its thread and warms up
        for _ in range(ROUNDS):
            used, at = processor_s(daemon.pid), time.monotonic()
            size = sample.next()
            ours.append(measure.Turn(time.monotonic() - at, processor_s(daemon.pid) - used, 0, size, 0))
            theirs.append(cat_once())
            most_kb = max(most_kb, daemon.resident_kb())
    report.ratio(
        f"{PROCESSES} processes", ("a sample", ours), ("cat of the same files into a socket", theirs), measure.cpu,
        bound=1.0, note=f"{ours[-1].output_bytes / 1e6:.2f} MB a sample, {theirs[-1].output_bytes / 1e6:.2f} MB from cat",
    )  # fmt: skip
    report.figure("growth of the daemon during a trace", most_kb - idle_kb, "kB resident", bound=GROWTH_BOUND_KB)


class Samples:
    """Reads a stream sample by sample. A sample ends when the trace pauses."""

    def __init__(self, connection):
        self.connection = connection
        self.connection.settimeout(0.3)

    def next(self):
        size = 0
        while True:
            try:
                piece = self.connection.recv(1 << 20)
            except TimeoutError:
                if size > 0:
                    return size
                continue
            if not piece:
                raise measure.Broken("the trace ended")
            size += len(piece)


def processor_s(pid):
    """The CPU time of all threads of a process."""
    return sum(int(path.read_text().split()[0]) for path in pathlib.Path(f"/proc/{pid}/task").glob("*/schedstat")) / 1e9


def cat_once():
    proc = pathlib.Path("/proc")
    files = [*proc.glob("[0-9]*/smaps"), *proc.glob("[0-9]*/status"),
             *(proc / name for name in ("sys/fs/file-nr", "meminfo", "pagetypeinfo"))]  # fmt: skip
    near, far = socket.socketpair()
    sizes = []
    reader = threading.Thread(target=lambda: sizes.append(drain(near)))
    reader.start()
    before, at = resource.getrusage(resource.RUSAGE_CHILDREN), time.monotonic()
    subprocess.run(["cat", *map(str, files)], stdout=far, stderr=subprocess.DEVNULL, check=False)
    took = time.monotonic() - at
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    far.close()
    reader.join()
    near.close()
    return measure.Turn(took, after.ru_utime - before.ru_utime, after.ru_stime - before.ru_stime, sizes[0], 0)


def drain(connection):
    size = 0
    while piece := connection.recv(1 << 20):
        size += len(piece)
    return size
