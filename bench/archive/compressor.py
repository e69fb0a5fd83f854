import os
import random
import shutil
import tempfile

import measure

ABOUT = "compressing 500 MB: 60 % text like that of /proc, 15 % random bytes, 15 % zeros, 10 % small binary integers"
TARGETS = ["bench_gzip"]
NEEDS_SANDBOX = False
ROUNDS = 5
TOTAL = 500_000_000
PIECE = 1 << 20     # far larger than the compressor's window of 32 KiB, so it may repeat
KINDS = ["text"] * 12 + ["random"] * 3 + ["zeros"] * 3 + ["integers"] * 2


def text(source):
    lines, size = [], 0
    while size < PIECE:
        start, library = source.getrandbits(36) << 12, source.choice("abcdefgh")
        lines += [
            f"{start:012x}-{start + 4096 * source.randint(1, 99):012x} r-xp 00000000 fe:00 ",
            f"{source.getrandbits(20)} /usr/lib/lib{library}{source.randint(1, 40)}.so.{source.randint(0, 9)}\n",
            f"Rss: {source.randint(0, 9999):>15} kB\nPss: {source.randint(0, 9999):>15} kB\n",
            f"cpu{source.randint(0, 3)} {source.getrandbits(20)} {source.getrandbits(8)} 0 0\n",
        ]
        size += sum(map(len, lines[-4:]))
    return "".join(lines).encode()[:PIECE]


def integers(source):
    return b"".join(source.randint(0, 4000).to_bytes(4, "little") for _ in range(PIECE // 4))


def write_mix(path):
    """Writes the same bytes in every run."""
    source = random.Random(1)
    pieces = {
        "text": [text(source) for _ in range(8)],
        "random": [source.randbytes(PIECE) for _ in range(2)],
        "zeros": [bytes(PIECE)],
        "integers": [integers(source) for _ in range(2)],
    }
    order = KINDS.copy()
    source.shuffle(order)
    with open(path, "wb") as file:
        for number in range(-(-TOTAL // PIECE)):
            kind = pieces[order[number % len(order)]]
            file.write(kind[number % len(kind)])
        file.truncate(TOTAL)


def memory_folder():
    """A folder in memory with enough free space, or None for the default folder of temporary files."""
    shm = "/dev/shm"
    return shm if os.path.isdir(shm) and shutil.disk_usage(shm).free > 4 * TOTAL else None


def run(report):
    with tempfile.TemporaryDirectory(dir=memory_folder()) as folder:
        mix = os.path.join(folder, "mix")
        write_mix(mix)
        commands = [[measure.BIN / "bench_gzip"], ["gzip", "-1"]]
        ours, theirs = measure.turns(commands, ROUNDS, stdin=mix, pipe=True)
    mine, gzip = ("stream_gzip", ours), ("gzip -1", theirs)
    report.ratio("user and system time", mine, gzip, measure.cpu, bound=1.05, note="both read a file and write to a pipe")
    report.ratio("output", mine, gzip, lambda turn: turn.output_bytes / 1e6, unit="MB")
