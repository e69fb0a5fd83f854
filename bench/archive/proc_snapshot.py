import io
import os
import pathlib
import subprocess
import tarfile
import tempfile

import measure

ABOUT = "one snapshot of /proc and its 26 folders as a tar stream, as a fresh process into a pipe"
TARGETS = ["bench_proc"]
NEEDS_SANDBOX = True
ROUNDS = 31
BOUND = 102400                                      # bytes that the snapshot keeps of a file
SKIPPED = {"kcore", "vmcore", "kmem", "kmsg"}       # files of /proc itself that it passes over


def snapshot():
    """{path of a file: bytes kept of it} of one snapshot."""
    stream = subprocess.run([measure.BIN / "bench_proc"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    with tarfile.open(fileobj=io.BytesIO(stream), mode="r|") as tar:
        return {path_of(member.name): member.size for member in tar}


def path_of(name):
    folder, _, rest = name.partition("/")
    return f"/proc/{rest}"


def files_looked_at(kept):
    """All files of the folders that gave a member, as the snapshot opens those too that turn out empty."""
    found = []
    for folder in sorted({os.path.dirname(path) for path in kept}):
        for entry in os.scandir(folder):
            if entry.is_dir(follow_symlinks=False) or (folder == "/proc" and entry.name in SKIPPED):
                continue
            found.append(entry.path)
    return found


def in_two_steps(list_path):
    """What gives a tar with the files' content: copies, of which tar can trust the size."""
    script = (
        'd=$(mktemp -d /run/copy.XXXXXX); xargs -a "$0" cp --parents -t "$d" 2>/dev/null; '
        'tar -C "$d" -cf - .; rm -r "$d"'
    )
    return ["/bin/sh", "-c", script, list_path]


def output_kb(taken):
    return f"{taken[0].output_bytes / 1000:.0f} kB"


def run(report):
    kept = snapshot()
    files = files_looked_at(kept)
    small = [path for path in files if kept.get(path, 0) < BOUND]
    with tempfile.TemporaryDirectory(dir="/run") as folder:
        whole, uncut = pathlib.Path(folder, "all"), pathlib.Path(folder, "small")
        whole.write_text("".join(f"{path}\n" for path in files))
        uncut.write_text("".join(f"{path}\n" for path in small))
        snapshot_turns, tar, head, copies = measure.turns(
            [
                [measure.BIN / "bench_proc"],
                ["tar", "-cf", "-", "--ignore-failed-read", "-T", whole],
                ["head", "-q", "-c", str(BOUND), *files],
                in_two_steps(uncut),
            ],
            ROUNDS, warm_up=3, pipe=True,  # tar and head say by 1 that they could not read some of the files
            accept=[(0,), (0, 1), (0, 1), (0,)],
        )  # fmt: skip
    ours = (f"snapshot of {len(files)} files, {output_kb(snapshot_turns)}", snapshot_turns)
    report.ratio(
        "wall time, tar", ours, (f"GNU tar, {output_kb(tar)}", tar), measure.wall, bound=1.0,
        note="tar trusts the size that stat gives, 0 for most of these files, and stores headers without content",
    )  # fmt: skip
    report.ratio(
        "wall time, same reading", ours, (f"head -c {BOUND}, {output_kb(head)}", head), measure.wall,
        note="the same bytes of the same files, without any archive around them",
    )  # fmt: skip
    report.ratio(
        "wall time, same result", ours, (f"cp, then tar, {output_kb(copies)}", copies), measure.wall,
        note=f"a tar with content; without the {len(files) - len(small)} files that are larger than the snapshot keeps",
    )  # fmt: skip
