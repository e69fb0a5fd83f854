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
BOUND = 102400  # bytes that the snapshot stores of a file
SKIPPED = {"kcore", "vmcore", "kmem", "kmsg"}  # files of /proc itself that it skips


def snapshot():
    """{path: stored bytes} of the files in one snapshot."""
    stream = subprocess.run([measure.BIN / "bench_proc"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    with tarfile.open(fileobj=io.BytesIO(stream), mode="r|") as tar:
        return {path_of(member.name): member.size for member in tar}


def path_of(name):
    folder, _, rest = name.partition("/")
    return f"/proc/{rest}"


def files_opened(stored):
    """All files of the folders in the snapshot, which also opens files that turn out to be empty."""
    found = []
    for folder in sorted({os.path.dirname(path) for path in stored}):
        for entry in os.scandir(folder):
            if entry.is_dir(follow_symlinks=False) or (folder == "/proc" and entry.name in SKIPPED):
                continue
            found.append(entry.path)
    return found


def in_two_steps(list_path):
    """A command that makes a tar with the files' contents: it archives copies, whose sizes are right."""
    script = (
        'd=$(mktemp -d /run/copy.XXXXXX); xargs -a "$0" cp --parents -t "$d" 2>/dev/null; '
        'tar -C "$d" -cf - .; rm -r "$d"'
    )
    return ["/bin/sh", "-c", script, list_path]


def output_kb(taken):
    return f"{taken[0].output_bytes / 1000:.0f} kB"


def run(report):
    stored = snapshot()
    files = files_opened(stored)
    small = [path for path in files if stored.get(path, 0) < BOUND]
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
            ROUNDS, warm_up=3, pipe=True,  # tar and head exit with 1 if they could not read some of the files
            accept=[(0,), (0, 1), (0, 1), (0,)],
        )  # fmt: skip
    ours = (f"snapshot of {len(files)} files, {output_kb(snapshot_turns)}", snapshot_turns)
    report.ratio(
        "wall time, tar", ours, (f"GNU tar, {output_kb(tar)}", tar), measure.wall, bound=1.0,
        note="tar relies on the size of stat, which is 0 for most of these files, and stores headers without content",
    )  # fmt: skip
    report.ratio(
        "wall time, same reading", ours, (f"head -c {BOUND}, {output_kb(head)}", head), measure.wall,
        note="the same bytes of the same files, without an archive",
    )  # fmt: skip
    report.ratio(
        "wall time, same result", ours, (f"cp, then tar, {output_kb(copies)}", copies), measure.wall,
        note=f"a tar with contents, without the {len(files) - len(small)} files that the snapshot truncates",
    )  # fmt: skip
