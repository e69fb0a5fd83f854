import measure

ABOUT = "ehash against std::unordered_map with the same 1,000 keys and records, CPU time"
TARGETS = ["bench_ehash"]
NEEDS_SANDBOX = False
REPEATS = {"insert": 2000, "lookup": 30000, "iterate": 30000}    # about a tenth of a second each


def run(report):
    for keys in ("pids", "steps", "names"):
        for work, repeats in REPEATS.items():
            ours, peer = measure.turns(
                [[measure.BIN / "bench_ehash", table, keys, work, str(repeats)] for table in ("ehash", "map")], 21
            )
            what = f"{work} of {keys}, {repeats} times 1,000"
            report.ratio(what, ("ehash", ours), ("std::unordered_map", peer), measure.cpu, bound=1.0)
