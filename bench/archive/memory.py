import pathlib
import subprocess
import tempfile

import measure
from support.daemon import Daemon
from support.processes import children_of, program_of
from support.waiting import wait_for

ABOUT = "memory of the idle daemon, and the growth of builder and compressor during a stream"
TARGETS = ["zarvo", "bench_stream"]
NEEDS_SANDBOX = True
SIZES_MIB = [64, 1024]
BOUND_KB = 4096


def memory(pid):
    """(resident, proportional, private) kB."""
    found = measure.proc_numbers(pid, "smaps_rollup")
    return found["Rss"], found["Pss"], found["Private_Clean"] + found["Private_Dirty"]


def report_memory(report, what, pid):
    rss, pss, private = memory(pid)
    report.figure(what, rss, "kB resident", note=f"{pss} kB proportional, {private} kB private")


def idle_sleeper(report):
    """A process that does nothing, for comparison."""
    sleeper = subprocess.Popen(["/usr/bin/busybox", "sleep", "1000"])
    try:
        wait_for(lambda: "nanosleep" in pathlib.Path(f"/proc/{sleeper.pid}/wchan").read_text(), "asleep")
        report_memory(report, "busybox sleep, for comparison", sleeper.pid)
    finally:
        sleeper.kill()
        sleeper.wait()


def family(pid):
    return [pid, *(child for child, state in children_of(pid) if state != "Z")]


def during_archive(report, daemon):
    """Samples the daemon and its compressor while an archive is downloaded."""
    before = memory(daemon.pid)
    most, size, ended = [0, 0], 0, False
    with daemon.ask(b"/x/debug.tgz") as browser:
        while not ended:
            found = [memory_of_copy(pid) for pid in family(daemon.pid)]
            most = [max(old, sum(column)) for old, column in zip(most, zip(*found))]
            if not browser.is_silent(0.02):
                piece = browser.near.recv(1 << 16)
                size, ended = size + len(piece), not piece
    daemon.sync()
    remains = memory(daemon.pid)[0] - before[0]
    report.figure(
        f"the daemon while a debug.tgz of {size / 1e6:.1f} MB is sent, growth with its compressor",
        most[0] - before[0], "kB resident", bound=BOUND_KB,
        note=f"{most[1] - before[1]} kB proportional; {remains} kB resident remain afterwards",
    )  # fmt: skip


def memory_of_copy(pid):
    """(resident, proportional) kB; zeros for a child that runs another program or has just ended."""
    try:
        return memory(pid)[:2] if program_of(pid).startswith(str(measure.BIN)) else (0, 0)
    except (FileNotFoundError, ProcessLookupError, KeyError):
        return 0, 0


def stream(report, mib):
    """One stream through the archive's pipeline, in a program that is linked like zarvo."""
    ran = subprocess.run([measure.BIN / "bench_stream", str(mib)], stdout=subprocess.PIPE, text=True)
    if ran.returncode != 0:
        raise measure.Broken("bench_stream failed")
    found = {words[0]: list(map(int, words[1:])) for words in map(str.split, ran.stdout.splitlines())}
    (rss, pss), (most_rss, most_pss), (peak,) = found["before"], found["during"], found["peak"]
    report.figure(
        f"{mib} MiB through the pipeline, growth of both processes together", max(most_rss, peak) - rss,
        "kB resident", bound=BOUND_KB,
        note=f"{most_pss - pss} kB proportional; the resident size counts shared pages twice",
    )  # fmt: skip
    return most_pss - pss


def run(report):
    with tempfile.TemporaryDirectory(dir="/run") as folder:
        daemon = Daemon(pathlib.Path(folder))
        try:
            report_memory(report, "the idle daemon, just started", daemon.pid)
            idle_sleeper(report)
            during_archive(report, daemon)
            report_memory(report, "the idle daemon, after one archive", daemon.pid)
        finally:
            daemon.stop()
    small, large = [stream(report, mib) for mib in SIZES_MIB]
    report.figure(
        f"growth at {SIZES_MIB[1]} MiB minus growth at {SIZES_MIB[0]} MiB", large - small, "kB proportional"
    )
