import measure

ABOUT = "starting and ending the smallest applet as a fresh process (vfork, exec, wait)"
TARGETS = ["zarvo"]
NEEDS_SANDBOX = False
ROUNDS = 2000


def run(report):
    zarvo = [measure.BIN / "zarvo", "ctest"]
    busybox = ["/usr/bin/busybox", "true"]
    ours, theirs = measure.turns([zarvo, busybox], ROUNDS, warm_up=100)
    report.ratio(
        "wall time", ("zarvo ctest", ours), ("busybox true", theirs), measure.wall, bound=1.5,
        note="zarvo prints a line to /dev/null; busybox prints nothing",
    )  # fmt: skip
