import os
import pathlib
import tempfile
import time

import measure
from support.archives import PROCESS_FILE, assert_full_whole
from support.daemon import Daemon

ABOUT = "the two forms of the archive, without cores, of a machine with 200 sleeping processes"
TARGETS = ["zarvo", "bench_crowd"]
NEEDS_SANDBOX = True
PROCESSES, DESCRIPTORS = 200, 20
ROUNDS = 9
TICK_S = 1 / os.sysconf("SC_CLK_TCK")
PROCESS_BOUND_S = 0.3  # processor time of both looks at the processes and of their table


def processor_s(pid):
    """User and system time of a process and of its children that have ended."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    user, system, child_user, child_system = map(int, fields[11:15])
    return (user + child_user) * TICK_S, (system + child_system) * TICK_S


def one_archive(daemon, path, query=b""):
    """(Turn, answer) of one download."""
    user, system = processor_s(daemon.pid)
    began = time.monotonic()
    answer = daemon.answer(path, query)
    wall_s = time.monotonic() - began
    daemon.sync()
    user_after, system_after = processor_s(daemon.pid)
    return measure.Turn(wall_s, user_after - user, system_after - system, len(answer), 0), answer


def process_seconds(stream):
    """How long the members of the processes took, by the archive's own manifest."""
    members, manifest = assert_full_whole(stream)
    names = {member.name for member in members if PROCESS_FILE.fullmatch(member.name)} | {"processes.txt"}
    return len(names), sum(manifest.seconds[name] for name in names)


def run(report):
    with tempfile.TemporaryDirectory(dir="/run") as folder, measure.crowd(PROCESSES, DESCRIPTORS):
        daemon = Daemon(pathlib.Path(folder), "-p", "/bin/false")
        try:
            for path, name in ((b"/x/debug.tar", "plain"), (b"/x/debug.tgz", "compressed")):
                usual, full = [], []
                for _ in range(ROUNDS):
                    usual.append(one_archive(daemon, path)[0])
                    full.append(one_archive(daemon, path, b"full")[0])
                sizes = [f"{turns[0].output_bytes / 1e6:.1f} MB" for turns in (full, usual)]
                names = (f"full form, {sizes[0]}", full), (f"usual form, {sizes[1]}", usual)
                report.ratio(f"{name}: processor time", *names, measure.cpu)
                report.ratio(f"{name}: wall time", *names, measure.wall)
            stream = one_archive(daemon, b"/x/debug.tar", b"full")[1]
            files, seconds = process_seconds(stream[stream.index(b"\r\n\r\n") + 4 :])
            report.figure(
                f"both looks at {PROCESSES} processes and their table, by the manifest", seconds, "s",
                bound=PROCESS_BOUND_S, note=f"{files} files, written to a browser that reads at once",
            )  # fmt: skip
        finally:
            daemon.stop()
