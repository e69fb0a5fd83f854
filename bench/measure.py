"""What the benchmarks share: running programs in turn, ratios with their spread, and the report.

A benchmark is a file FOLDER/NAME.py with
    ABOUT            one line: what is compared, on which workload
    TARGETS          what has to be built for it, in addition to bench_turns
    NEEDS_SANDBOX    True if it examines processes
    run(report)      measures, and calls report.ratio() and report.figure()
It may import the modules of tests/support as support.NAME.
"""

import collections
import contextlib
import datetime
import os
import pathlib
import statistics
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = ROOT / "build" / "host"
BIN = BUILD / "bin"

sys.path.append(str(ROOT / "tests"))

Turn = collections.namedtuple("Turn", "wall_s user_s system_s output_bytes status")


class Broken(Exception):
    """A program did not do what was to be measured."""


def wall(turn):
    return turn.wall_s


def cpu(turn):
    return turn.user_s + turn.system_s


def turns(commands, rounds, warm_up=1, stdin=None, pipe=False, accept=None):
    """Runs the commands in turn, each as a fresh process. Returns a list of `rounds` Turns for each command.

    Output goes to /dev/null or, with `pipe`, into a pipe that is read to its end. `accept` lists the valid
    exit statuses of each command; by default, only 0 is valid. Another status breaks the benchmark.
    """
    words = [str(BIN / "bench_turns"), *(["-i", stdin] if stdin else []), *(["-p"] if pipe else [])]
    words.append(str(warm_up + rounds))
    for command in commands:
        words += ["--", *command]
    ran = subprocess.run(list(map(str, words)), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if ran.returncode != 0:
        raise Broken(f"{words[0]}: {ran.stderr[-500:]}")
    taken = [[] for _ in commands]
    for line in ran.stdout.splitlines():
        index, wall_ns, user_us, system_us, output, status = map(int, line.split())
        if status not in (accept[index] if accept else (0,)):
            raise Broken(f"{commands[index][0]} ended with status {status}: {ran.stderr[-500:]}")
        taken[index].append(Turn(wall_ns / 1e9, user_us / 1e6, system_us / 1e6, output, status))
    return [each[warm_up:] for each in taken]


def proc_numbers(pid, name):
    """{"Rss": 1234, ...}: the lines "Key:  NUMBER ..." of /proc/PID/NAME."""
    found = {}
    for line in pathlib.Path(f"/proc/{pid}/{name}").read_text().splitlines():
        key, colon, rest = line.partition(":")
        if colon and rest.split()[:1] and rest.split()[0].isdigit():
            found[key] = int(rest.split()[0])
    return found


@contextlib.contextmanager
def crowd(processes, descriptors):
    """Sleeping processes with that many descriptors each, until the end of the context (bench_crowd)."""
    words = [BIN / "bench_crowd", str(processes), str(descriptors)]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as started:
        if started.stdout.readline() != b"ready\n":
            raise Broken("bench_crowd failed")
        yield


class Report:
    """The results of one benchmark."""

    def __init__(self, name, about):
        self.content = {
            "name": name,
            "about": about,
            "began": datetime.datetime.now().astimezone().isoformat(timespec="seconds"),
            "processors": os.cpu_count(),
            "load_before": os.getloadavg()[0],
            "rows": [],
        }

    def ratio(self, what, ours, peer, cost, unit="s", bound=None, note=""):
        """Adds a ratio ours/peer. `ours` and `peer`: a name and its Turns. `cost`: maps a Turn to a number."""
        (our_name, our_turns), (peer_name, peer_turns) = ours, peer
        our_costs, peer_costs = list(map(cost, our_turns)), list(map(cost, peer_turns))
        if len(our_costs) != len(peer_costs) or not all(peer_costs):
            raise Broken(f"{what}: a cost of {peer_name} is missing or zero")
        ratios = [mine / theirs for mine, theirs in zip(our_costs, peer_costs)]
        self._add(
            kind="ratio", what=what, ours=our_name, peer=peer_name, unit=unit, rounds=len(ratios),
            our_median=statistics.median(our_costs), peer_median=statistics.median(peer_costs),
            value=statistics.median(ratios), quartiles=statistics.quantiles(ratios, n=4)[::2],
            range=[min(ratios), max(ratios)], bound=bound, note=note,
        )  # fmt: skip

    def figure(self, what, value, unit, bound=None, note=""):
        """Adds a number without a comparison."""
        self._add(kind="figure", what=what, value=value, unit=unit, bound=bound, note=note)

    def _add(self, **row):
        row["holds"] = None if row["bound"] is None else row["value"] <= row["bound"]
        self.content["rows"].append(row)

    def finish(self):
        self.content["load_after"] = os.getloadavg()[0]
        return self.content


def verdict(row):
    if row["bound"] is None:
        return "no bound"
    return f"at most {row['bound']:g}: {'holds' if row['holds'] else 'DOES NOT HOLD'}"


def quantity(value, unit):
    if unit != "s":
        return f"{value:g} {unit}"
    scale, name = next((pair for pair in ((1, "s"), (1e-3, "ms")) if value >= pair[0]), (1e-6, "us"))
    return f"{value / scale:.4g} {name}"


def row_text(row):
    lines = []
    if row["kind"] == "ratio":
        low, high = row["quartiles"]
        costs = " / ".join(quantity(row[key], row["unit"]) for key in ("our_median", "peer_median"))
        lines.append(f"  {row['what']}: {row['ours']} / {row['peer']}")
        lines.append(
            f"      {row['value']:.3f}  quartiles {low:.3f} to {high:.3f}, range {row['range'][0]:.3f} to "
            f"{row['range'][1]:.3f}, {row['rounds']} rounds; {costs}; {verdict(row)}"
        )
    else:
        lines.append(f"  {row['what']}: {quantity(row['value'], row['unit'])}; {verdict(row)}")
    if row["note"]:
        lines.append(f"      {row['note']}")
    return "\n".join(lines)


def table(content):
    """The report as text."""
    head = (
        f"{content['name']}: {content['about']}\n  load {content['load_before']:.2f} before, "
        f"{content['load_after']:.2f} after, {content['processors']} processors"
    )
    return "\n".join([head, *map(row_text, content["rows"])])
