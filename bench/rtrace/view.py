import pathlib
import struct
import tempfile

import measure

ABOUT = "rtraceview --json on a trace of many samples, against wc -l on the same file"
TARGETS = ["rtraceview"]
NEEDS_SANDBOX = False
HEADER = struct.Struct("<IIqB3x")
GROUP, STATUS, MEMINFO = 4, 3, 8
PROCESSES, SAMPLES = 200, 1000
BYTES_AT_LEAST = 200e6
RATIO_BOUND = 10


def record(kind, at, more, data=b""):
    return HEADER.pack(kind, len(data), at, more) + data


def piece(kind, at, text, pid=b""):
    return record(kind, at, 1, pid + text) + record(kind, at, 0)


def sample(at, status, meminfo):
    yield record(GROUP, at, 1)
    for pid in range(1, PROCESSES + 1):
        yield piece(STATUS, at, status, struct.pack("<i", pid))
    yield record(GROUP, at, 0)
    yield piece(MEMINFO, at, meminfo)


def run(report):
    status = pathlib.Path("/proc/self/status").read_bytes()
    meminfo = pathlib.Path("/proc/meminfo").read_bytes()
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder, "trace")
        with open(path, "wb") as file:
            for number in range(SAMPLES):
                file.writelines(sample(1700000000000 + 1000 * number, status, meminfo))
        size = path.stat().st_size
        if size < BYTES_AT_LEAST:
            raise measure.Broken(f"the trace has only {size} bytes")
        ours, theirs = measure.turns([[measure.BIN / "rtraceview", "--json", path], ["wc", "-l", path]], 7)
    rate = size / 1e6 / sorted(turn.wall_s for turn in ours)[len(ours) // 2]
    report.ratio(f"{size / 1e6:.0f} MB", ("rtraceview --json", ours), ("wc -l", theirs), measure.wall, bound=RATIO_BOUND)
    report.figure("rate", round(rate), "MB/s", note="the goal is 200 MB/s, or the ratio above")
