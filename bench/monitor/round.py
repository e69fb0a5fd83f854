import measure

ABOUT = "a round of the leak monitor over 1,000 processes with 20 descriptors each, CPU time"
TARGETS = ["bench_round", "bench_bare", "bench_crowd"]
NEEDS_SANDBOX = True
PROCESSES, DESCRIPTORS = 1000, 20
ROUNDS_IN_ONE = 20  # so the start of the program hardly counts
STATUS = "/run/bench-status"


def run(report):
    with measure.crowd(PROCESSES, DESCRIPTORS):
        compare(report)


def compare(report):
    many = str(ROUNDS_IN_ONE)
    one, lsof = measure.turns([[measure.BIN / "bench_round", "1", STATUS], ["lsof", "-n", "-w"]], 11)
    report.ratio("one round as a fresh process", ("monitor", one), ("lsof -n -w", lsof), measure.cpu, bound=0.1)

    rounds, bare, folders = measure.turns(
        [
            [measure.BIN / "bench_round", many, STATUS],
            [measure.BIN / "bench_bare", many],
            [measure.BIN / "bench_bare", many, "folders"],
        ],
        21,
    )  # fmt: skip
    report.ratio(
        f"{many} rounds", ("monitor", rounds), ("its bare system calls", bare), measure.cpu, bound=1.2,
        note="reads the same command lines, folders, links and stat lines, and does nothing with them",
    )  # fmt: skip
    report.ratio(
        f"{many} rounds", ("monitor", rounds), ("opening and listing the folders alone", folders), measure.cpu,
        note="without names, kinds of descriptors and parents",
    )  # fmt: skip
