import pathlib
import signal
import subprocess

import measure
from support.processes import in_mount_namespace
from support.waiting import wait_for

ABOUT = "memory of mon with 1,000 processes of 20 descriptors each"
TARGETS = ["zarvo", "bench_crowd"]
NEEDS_SANDBOX = True
PROCESSES, DESCRIPTORS = 1000, 20
BOUND_KB = 1536


def run(report):
    few = watch(report, "few processes")
    with measure.crowd(PROCESSES, DESCRIPTORS):
        many = watch(report, f"{PROCESSES} processes", BOUND_KB)
    report.figure(f"growth by {PROCESSES} processes", many - few, "kB private")
    idle(report)


def watch(report, what, bound=None):
    """Runs mon for 20 rounds over the processes of the sandbox. Returns its private memory."""
    words = [*in_mount_namespace("mount -t tmpfs none /tmp"), str(measure.BIN / "mon"), "50000"]
    with subprocess.Popen(words, stderr=subprocess.DEVNULL) as mon:
        status = pathlib.Path(f"/proc/{mon.pid}/root/tmp/dbg-report.txt")

        def settled():
            return status.exists() and status.read_text().startswith("Debug monitor status round=20\n")

        wait_for(settled, "round 20")
        found = measure.proc_numbers(mon.pid, "smaps_rollup")
        mon.send_signal(signal.SIGINT)
    private = found["Private_Clean"] + found["Private_Dirty"]
    report.figure(
        f"mon, {what}", found["Rss"], "kB resident", bound=bound,
        note=f"{found['Pss']} kB proportional, {private} kB private",
    )  # fmt: skip
    return private


def idle(report):
    """A program that does nothing, for comparison: the memory of the C library alone."""
    with subprocess.Popen(["/bin/sleep", "1000"], env={}) as sleeper:
        wait_for(lambda: "nanosleep" in pathlib.Path(f"/proc/{sleeper.pid}/wchan").read_text(), "asleep")
        found = measure.proc_numbers(sleeper.pid, "smaps_rollup")
        sleeper.kill()
    private = found["Private_Clean"] + found["Private_Dirty"]
    report.figure(
        "sleep, for comparison", found["Rss"], "kB resident",
        note=f"{found['Pss']} kB proportional, {private} kB private",
    )  # fmt: skip
