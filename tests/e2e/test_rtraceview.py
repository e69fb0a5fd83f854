"""rtraceview: a trace as text, as JSON, as a table and as a page."""

import csv
import io
import json
import os
import pathlib
import re
import select
import shutil
import subprocess

import pytest

from support.answers import download_head
from support.processes import without_trace_programs
from support.rtrace_records import DISKINFO, EVENT, GROUP, HEADER, MEMINFO, count, read_until
from support.under_test import BIN, SANITIZE
from support.waiting import PATIENCE

NEEDS_SANDBOX = True
pytest_plugins = ["fault_fixtures"]

HEAD = download_head("application/octet-stream", "rtrace")
SAMPLES = 3


def view(*words, stdin=b"", status=0):
    done = subprocess.run([BIN / "rtraceview", *words], input=stdin, capture_output=True, check=False)
    assert done.returncode == status, done.stderr
    return done


@pytest.fixture
def daemon(start):
    """A daemon whose traces have no output of programs, which would come at random moments."""
    return start(before=without_trace_programs())


@pytest.fixture
def trace(daemon, tmp_path):
    """A file with three samples of everything. The last one is truncated after its disks."""
    idle = daemon.idle_state()
    with daemon.ask(b"/x", b"cmd=rtrace&interval=1&trace=all,smapstot,pagetypeinfo") as browser:
        records, stream = read_until(browser.near.recv, lambda records: count(records, DISKINFO) == SAMPLES, HEAD)
    daemon.wait_until_idle(idle)
    assert count(records, GROUP) == 2 * SAMPLES
    path = tmp_path / "rtrace"
    path.write_bytes(stream)
    return path


def test_json_has_the_kernels_numbers(daemon, trace):
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


def test_text_has_the_files_unchanged(daemon, trace):
    text = view("-", stdin=trace.read_bytes()).stdout.decode()
    assert re.search(rf"^=== \d{{4}}-\d\d-\d\d [\d:.]+ status of process {daemon.pid}, offset \d+\nName:\t", text, re.M)
    assert text.count(" meminfo, offset ") == SAMPLES and text.count("\nMemTotal: ") == SAMPLES


def test_download_that_was_cut_anywhere_is_read(trace):
    stream = trace.read_bytes()
    for length in (0, 1, 19, 20, len(stream) // 2, len(stream) - 1):
        done = view("--json", "-", stdin=stream[:length])
        assert [json.loads(line) for line in done.stdout.splitlines()] or length < 1000
        is_complete = not done.stderr
        assert is_complete or b"cut off" in done.stderr or b"unfinished files" in done.stderr


def test_damage_is_reported_with_its_offset(trace, tmp_path):
    stream = trace.read_bytes()
    bad = tmp_path / "bad"
    bad.write_bytes(stream[:20] + b"\x08\0\0\0\xff\xff\xff\xff" + stream[28:])
    done = view("--json", bad, status=1)
    message = "offset 24: length 4294967295 is above the limit of 204800 for meminfo"
    assert done.stderr.decode() == f"rtraceview: {bad}: {message}\n"


def test_bad_arguments_are_reported(tmp_path):
    assert view(status=2).stderr.startswith(b"rtraceview: missing file\nusage: ")
    assert view("--json", tmp_path / "missing", status=2).stderr.endswith(b"missing: No such file or directory\n")
    assert view("--json", tmp_path, status=2).stderr.endswith(b": Is a directory\n")
    assert view("--help").stdout.startswith(b"usage: rtraceview ")


# Input and output.

TIME_MS = 1700000000123


def made_record(kind, data, more, time_ms=TIME_MS):
    return HEADER.pack(kind, len(data), time_ms, more, b"\0\0\0") + data


def made_file(kind, text, time_ms=TIME_MS):
    return made_record(kind, text, 1, time_ms) + made_record(kind, b"", 0, time_ms)


@pytest.fixture
def small(tmp_path):
    """A trace with one number."""
    path = tmp_path / "small"
    path.write_bytes(made_file(MEMINFO, b"MemFree: 6 kB\n"))
    return path


@pytest.mark.parametrize("how", ["name", "symbolic link", "hard link", "standard input"])
def test_page_must_not_overwrite_its_trace(small, tmp_path, how):
    before = small.read_bytes()
    other = tmp_path / "other"
    if how == "symbolic link":
        other.symlink_to("small")
    elif how == "hard link":
        other.hardlink_to(small)
    else:
        other = small
    with open(small, "rb") as file:
        words = ["--html", other, "-" if how == "standard input" else small]
        done = subprocess.run([BIN / "rtraceview", *words], stdin=file, capture_output=True)
    assert (done.returncode, done.stdout) == (2, b"")
    assert done.stderr == b"rtraceview: the output would overwrite the trace\n"
    assert small.read_bytes() == before


def test_output_must_not_be_appended_to_its_trace(small):
    before = small.read_bytes()
    with open(small, "ab") as out:
        done = subprocess.run([BIN / "rtraceview", "--json", small], stdout=out, stderr=subprocess.PIPE)
    assert done.returncode == 2 and b"would overwrite the trace" in done.stderr
    assert small.read_bytes() == before


def test_page_replaces_an_earlier_one_atomically(small, tmp_path):
    page, link = tmp_path / "page.html", tmp_path / "link.html"
    page.write_text("earlier")
    page.chmod(0o640)
    link.symlink_to("page.html")
    with open(page) as reader:
        view("--html", link, small)
        assert reader.read() == "earlier"
    assert page.read_text().startswith("<!DOCTYPE html>") and link.is_symlink()
    assert page.stat().st_mode & 0o777 == 0o640
    assert sorted(os.listdir(tmp_path)) == ["link.html", "page.html", "small"]


@pytest.mark.parametrize("name", ["missing", "."])
def test_earlier_page_stays_if_the_trace_cannot_be_read(tmp_path, name):
    page = tmp_path / "page.html"
    page.write_text("earlier")
    view("--html", page, tmp_path / name, status=2)
    assert page.read_text() == "earlier"
    assert os.listdir(tmp_path) == ["page.html"]


def test_page_can_be_written_to_something_other_than_a_file(small):
    assert view("--html", "-", small).stdout.startswith(b"<!DOCTYPE html>")
    assert view("--html", "/dev/null", small).stdout == b""
    assert pathlib.Path("/dev/null").is_char_device()


def test_samples_from_a_pipe_are_shown_at_once():
    words = [BIN / "rtraceview", "-"]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0) as viewer:
        for number in range(3):
            viewer.stdin.write(made_file(MEMINFO, b"MemFree: %d kB\n" % number))
            text = b""
            while b"MemFree: %d kB\n" % number not in text:
                assert select.select([viewer.stdout], [], [], PATIENCE)[0], text
                text += viewer.stdout.read(1 << 16)
        viewer.stdin.close()
        assert viewer.wait(PATIENCE) == 0


def test_failed_allocation_is_reported(small, faults):
    errors = set()
    for number in range(1, 40):
        faults["countdown"] = number
        words = ["--html", "page" * 10, small.parent / ("missing" * 10)]
        done = subprocess.run([BIN / "rtraceview", *words], capture_output=True, timeout=PATIENCE)
        assert done.returncode == 2 and done.stdout == b"", f"allocation {number}: {done}"
        errors.add(done.stderr)
    assert b"rtraceview: std::bad_alloc\n" in errors


def test_memory_does_not_grow_with_the_trace(trace):
    if SANITIZE:
        pytest.skip("not measured with a sanitizer, which uses more memory")
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


# Puts the contents of the plots into the title, where --dump-dom shows it.
PROBE = """
<script>
document.title = JSON.stringify(rtraceviewGraphs.map((graph) => [graph.numRows(), graph.numColumns() - 1,
    graph.visibility().filter((on) => on).length]));
document.querySelector(".legend input").click();
document.title += " " + rtraceviewGraphs[0].visibility().filter((on) => !on).length;
document.title += " " + document.querySelector(".dygraph-axis-label-x").textContent;
</script>
"""


def title_in_browser(page, tmp_path, probe):
    """The title of a page after `probe`, a script that is added at its end."""
    chromium = shutil.which("chromium")
    if not chromium:
        pytest.skip("needs chromium")
    probed = tmp_path / "probed.html"
    probed.write_text(page.read_text().replace("</body>", probe + "</body>"))
    words = [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             f"--user-data-dir={tmp_path}/profile", "--virtual-time-budget=5000", "--dump-dom", f"file://{probed}"]
    done = subprocess.run(words, capture_output=True, check=True, timeout=120)
    found = re.search(r"<title>(\[.*?)</title>", done.stdout.decode())
    assert found, done.stdout[-2000:]
    return found[1]


def test_page_plots_a_point_for_each_sample(page, trace, tmp_path):
    title = title_in_browser(page, tmp_path, PROBE)
    found = re.fullmatch(r"(\[\[.*\]\]) (\d+) (.*)", title)
    assert found, title
    plots = json.loads(found[1])
    data = json.loads(re.search(r'id="trace">\n(.*?)\n</script>', page.read_text(), re.S)[1])
    assert len(plots) == len(data["plots"]) >= 5
    for (rows, lines, visible), plot in zip(plots, data["plots"]):
        assert rows == len(plot["rows"]) == SAMPLES
        assert lines == visible == len(plot["labels"])
    assert found[2] == "1"  # one line is switched off by its box in the legend
    assert re.fullmatch(r"\d\d[:.][\d:.]+", found[3]), found[3]  # a time of day, or a fraction of a minute


def test_page_ignores_impossible_times(tmp_path):
    stream = b""
    for number, time_ms in enumerate([TIME_MS, (1 << 63) - 1, -(1 << 63), -1, 253402300799999, 1 << 53, TIME_MS + 1000]):
        stream += made_file(MEMINFO, b"MemFree: %d kB\n" % number, time_ms)
        stream += made_record(EVENT, b"event %d\n" % number, 0, time_ms)
    (tmp_path / "odd").write_bytes(stream)
    done = view("--html", tmp_path / "page.html", tmp_path / "odd")
    assert b"impossible time; records affected: 12\n" in done.stderr
    probe = """<script>
    document.title = JSON.stringify([rtraceviewGraphs.map((graph) => graph.numRows()),
        [...document.querySelectorAll("#events td:last-child")].map((cell) => cell.textContent)]);
    </script>"""
    rows, events = json.loads(title_in_browser(tmp_path / "page.html", tmp_path, probe))
    assert rows == [3]
    assert events == [f"event {number}" for number in range(7)]
