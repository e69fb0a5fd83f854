"""rtraceview: a trace of the daemon's as text, JSON, a table and a page."""

import csv
import io
import json
import pathlib
import re
import shutil
import subprocess

import pytest

from rtrace_records import DISKINFO, GROUP, count, read_until
from zarvo_e2e import BIN, SANITIZE, download_head, without_trace_programs

NEEDS_SANDBOX = True

HEAD = download_head("application/octet-stream", "rtrace")
SAMPLES = 3


def view(*words, stdin=b"", status=0):
    done = subprocess.run([BIN / "rtraceview", *words], input=stdin, capture_output=True, check=False)
    assert done.returncode == status, done.stderr
    return done


@pytest.fixture
def daemon(start):
    """A daemon whose traces have no output of programs, which would come at moments of its own."""
    return start(before=without_trace_programs())


@pytest.fixture
def trace(daemon, tmp_path):
    """A file with three samples of everything, the last of them cut off behind its disks."""
    rest = daemon.rest()
    with daemon.ask(b"/x", b"cmd=rtrace&interval=1&trace=all,smapstot,pagetypeinfo") as browser:
        records, stream = read_until(browser.near.recv, lambda records: count(records, DISKINFO) == SAMPLES, HEAD)
    daemon.wait_for_rest(rest)
    assert count(records, GROUP) == 2 * SAMPLES
    path = tmp_path / "rtrace"
    path.write_bytes(stream)
    return path


def test_json_has_what_the_kernel_said(daemon, trace):
    done = view("--json", trace)
    samples = [json.loads(line) for line in done.stdout.splitlines()]
    assert len(samples) == SAMPLES
    total = int(re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text())[1])
    for sample in samples:
        assert sample["meminfo"]["MemTotal"] == total
        own = sample["status"][str(daemon.pid)]
        assert own["Name"] and own["VmRSS"] > 100 and own["Threads"] >= 2
        assert 0 < sample["smaps"][str(daemon.pid)]["Pss"] <= sample["smaps"][str(daemon.pid)]["Rss"]
        assert sample["filenr"]["allocated"] > 0
        assert sample["diskinfo"]["/run"]["Filesystem"] == "sandbox"
    times = [sample["time_ms"] for sample in samples]
    assert times == sorted(times) and times[-1] - times[0] >= 990 * (SAMPLES - 1)


def test_table_has_the_same_numbers(trace):
    samples = [json.loads(line) for line in view("--json", trace).stdout.splitlines()]
    rows = list(csv.DictReader(io.StringIO(view("--csv", trace).stdout.decode())))
    free = [row for row in rows if row["source"] == "meminfo" and row["key"] == "MemFree"]
    assert [(int(row["value"]), row["unit"]) for row in free] == [
        (sample["meminfo"]["MemFree"], "KiB") for sample in samples
    ]


def test_text_has_the_files_as_they_stand(daemon, trace):
    text = view("-", stdin=trace.read_bytes()).stdout.decode()
    assert re.search(rf"^=== \d{{4}}-\d\d-\d\d [\d:.]+ status of process {daemon.pid}, offset \d+\nName:\t", text, re.M)
    assert text.count(" meminfo, offset ") == SAMPLES and text.count("\nMemTotal: ") == SAMPLES


def test_download_that_was_stopped_anywhere_is_read(trace):
    stream = trace.read_bytes()
    for length in (0, 1, 19, 20, len(stream) // 2, len(stream) - 1):
        done = view("--json", "-", stdin=stream[:length])
        assert [json.loads(line) for line in done.stdout.splitlines()] or length < 1000
        whole = not done.stderr
        assert whole or b"cut off" in done.stderr or b"without their end" in done.stderr


def test_damage_is_named_with_its_offset(trace, tmp_path):
    stream = trace.read_bytes()
    bad = tmp_path / "bad"
    bad.write_bytes(stream[:20] + b"\x08\0\0\0\xff\xff\xff\xff" + stream[28:])
    done = view("--json", bad, status=1)
    message = "offset 24: a length of 4294967295, but a record of meminfo has at most 204800"
    assert done.stderr.decode() == f"rtraceview: {bad}: {message}\n"


def test_wrong_use_is_said(tmp_path):
    assert view(status=2).stderr.startswith(b"rtraceview: no file\nusage: ")
    assert view("--json", tmp_path / "missing", status=2).stderr.endswith(b"missing: No such file or directory\n")
    assert view("--json", tmp_path, status=2).stderr.endswith(b": Is a directory\n")
    assert view("--help").stdout.startswith(b"usage: rtraceview ")


def test_memory_does_not_grow_with_the_trace(trace):
    if SANITIZE:
        pytest.skip("a sanitizer takes memory of its own")
    stream = trace.read_bytes()

    def peak(repeats):
        program = "import os,resource,subprocess,sys;" \
            "subprocess.run(sys.argv[1:],stdout=subprocess.DEVNULL,stderr=subprocess.DEVNULL,check=True);" \
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)"
        words = ["python3", "-c", program, BIN / "rtraceview", "--json", "-"]
        return int(subprocess.run(words, input=stream * repeats, capture_output=True, check=True).stdout)

    assert peak(100) - peak(1) < 1024  # KiB


# The page, in a browser.


@pytest.fixture
def page(trace, tmp_path):
    done = view("--html", tmp_path / "page.html", trace)
    assert done.stdout == b""
    return tmp_path / "page.html"


# Says what the plots hold once they stand, where --dump-dom shows it.
PROBE = """
<script>
document.title = JSON.stringify(rtraceviewGraphs.map((graph) => [graph.numRows(), graph.numColumns() - 1,
    graph.visibility().filter((on) => on).length]));
document.querySelector(".legend input").click();
document.title += " " + rtraceviewGraphs[0].visibility().filter((on) => !on).length;
document.title += " " + document.querySelector(".dygraph-axis-label-x").textContent;
</script>
"""


def test_page_plots_a_point_for_each_sample(page, trace, tmp_path):
    chromium = shutil.which("chromium")
    if not chromium:
        pytest.skip("needs chromium")
    probed = tmp_path / "probed.html"
    probed.write_text(page.read_text().replace("</body>", PROBE + "</body>"))
    words = [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             f"--user-data-dir={tmp_path}/profile", "--virtual-time-budget=5000", "--dump-dom", f"file://{probed}"]
    done = subprocess.run(words, capture_output=True, check=True, timeout=120)
    found = re.search(r"<title>(\[\[.*\]\]) (\d+) ([^<]*)</title>", done.stdout.decode())
    assert found, done.stdout[-2000:]
    plots = json.loads(found[1])
    data = json.loads(re.search(r'id="trace">\n(.*?)\n</script>', page.read_text(), re.S)[1])
    assert len(plots) == len(data["plots"]) >= 5
    for (rows, lines, visible), plot in zip(plots, data["plots"]):
        assert rows == len(plot["rows"]) == SAMPLES
        assert lines == visible == len(plot["labels"])
    assert found[2] == "1"  # one line switched off by its box in the legend
    assert re.fullmatch(r"\d\d[:.][\d:.]+", found[3]), found[3]  # a time of day, or a part of a minute
