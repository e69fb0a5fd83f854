"""The tracer against strace(1). For each call, strace prints one line and tstrace prints two."""

import signal
import subprocess
import tempfile
import time

import measure
from support.processes import started, status_kb, tracer_of
from support.waiting import wait_for

ABOUT = "tracing a program into a file, against strace -yy -o FILE"
TARGETS = ["zarvo", "bench_trace_reads", "bench_trace_sockets", "bench_trace_herd"]
NEEDS_SANDBOX = True
STRACE = "/usr/bin/strace"
RESIDENT_BOUND_KB = 2048


def program(name, *numbers):
    return [str(measure.BIN / f"bench_trace_{name}"), *map(str, numbers)]


def resident_kb():
    """Peak resident memory of a tstrace that traces one process."""
    with started() as start:
        sleeper = start("sleep", "1000")
        words = [measure.BIN / "tstrace", "-p", str(sleeper.pid)]
        tracer = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        wait_for(lambda: tracer_of(sleeper.pid), "traced")
        for _ in range(1000):
            sleeper.send_signal(signal.SIGWINCH)  # ignored by default; each gives a line
            time.sleep(0.0001)
        peak = status_kb(tracer.pid, "VmHWM")
        tracer.send_signal(signal.SIGINT)
        tracer.wait()
    return peak


def run(report):
    with tempfile.TemporaryDirectory() as folder:
        ours = ["/bin/sh", "-c", f'exec "$@" > {folder}/tstrace', "sh"]
        tstrace, strace = str(measure.BIN / "tstrace"), [STRACE, "-qq", "-yy", "-o", f"{folder}/strace"]

        def compare(what, traced, rounds):
            mine, theirs = measure.turns([[*ours, tstrace, *traced], [*strace, *traced]], rounds)
            for cost, name in ((measure.wall, "wall time"), (measure.cpu, "CPU time")):
                report.ratio(f"{what}, {name}", ("tstrace", mine), ("strace", theirs), cost,
                             bound=1.0 if cost is measure.wall else None)

        compare("100,000 one-byte reads", program("reads", 100000), 9)
        compare("1,000 TCP sockets, opened and written to 5 times", program("sockets", 1000, 5), 9)
        herd = program("herd", 8, 5000)
        mine, theirs = measure.turns([[*ours, *herd, tstrace], [*herd, *strace]], 9)
        for cost, name in ((measure.wall, "wall time"), (measure.cpu, "CPU time")):
            report.ratio(f"eight processes of 5,000 reads each, {name}", ("tstrace", mine), ("strace", theirs), cost,
                         bound=1.0 if cost is measure.wall else None)
    report.figure("peak resident memory with one tracee", resident_kb(), "kB", bound=RESIDENT_BOUND_KB)
