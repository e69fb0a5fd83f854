"""cmd=strace with times=1, and its durations compared with those of strace."""

import re
import shutil
import socket
import subprocess
import sys
import time

import pytest

from support.answers import body_of, download_head
from support.processes import tracer_of
from support.tracers import BUSY_PROGRAM, LINE
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

TIME = r"\d\d:\d\d:\d\d\.\d{6} "
DURATION = r" <(\d+\.\d{6})>"
REPEATS = 4
SLOW_PROGRAM = f"""
import os, time
ask_in, ask_out = os.pipe()
answer_in, answer_out = os.pipe()
if os.fork() == 0:
    os.close(ask_out)
    while os.read(ask_in, 1):
        time.sleep(0.3)
        os.write(answer_out, b"x")
    os._exit(0)
os.close(ask_in)
os.read(0, 1)
for _ in range({REPEATS}):
    time.sleep(0.2)
    os.write(ask_out, b"x")
    os.read(answer_in, 1)
"""

pytestmark = pytest.mark.usefixtures("idle")


def query(*pids):
    return b"cmd=strace&times=1&pid=" + b",".join(str(pid).encode() for pid in pids)


def timed_body(answer, subject):
    """The text of a timed trace, whose file name must tell `subject`."""
    name = re.search(rb'filename="([^"]*)"', answer)[1].decode()
    assert re.fullmatch(rf"trace-{re.escape(subject)}-\d{{8}}-\d{{6}}\.txt", name), name
    return body_of(answer, download_head("text/plain", name)).decode()


def untimed(text):
    """The text without times and durations. Each line that is not empty must have the one, each return the other."""
    plain = []
    for line in text.splitlines():
        rest = re.fullmatch(rf"({TIME})(.*)", line)
        assert rest or not line, line
        call = rest and re.fullmatch(rf"(.*?)({DURATION})?", rest[2])
        match = call and LINE.fullmatch(call[1])
        assert not match or bool(match[7]) == bool(call[2]), line
        plain.append(call[1] if call else line)
    return "\n".join(plain)


def slow_calls(pattern, text):
    """The durations of 0.1 s and more by kind of call, shortest first, without those of descriptor 0."""
    found = {"sleep": [], "read": []}
    for line in text.splitlines():
        match = re.search(pattern + r"(\w+)\((\d+)?.*" + DURATION + "$", line)
        if not match or match[2] == "0" and match[1] == "read" or float(match[3]) < 0.1:
            continue
        found["read" if match[1] == "read" else "sleep"].append(float(match[3]))
    return {kind: sorted(durations) for kind, durations in found.items()}


def trace_with_strace(folder):
    log = folder / "strace"
    words = ["strace", "-T", "-o", log, "-e", "trace=read,nanosleep,clock_nanosleep,select,pselect6"]
    program = subprocess.run([*words, sys.executable, "-c", SLOW_PROGRAM], input=b"\n", timeout=PATIENCE)
    assert program.returncode == 0
    return slow_calls("^", log.read_text())


def test_durations_are_those_of_strace(daemon, service, tmp_path):
    if not shutil.which("strace"):
        pytest.skip("needs strace, to compare the durations with")
    theirs = trace_with_strace(tmp_path)
    child = service(sys.executable, "-c", SLOW_PROGRAM)
    browser = daemon.ask(b"/x", query(child.pid))
    wait_for(lambda: tracer_of(child.pid), "traced")
    child.stdin.write(b"\n")
    child.stdin.flush()
    text = timed_body(browser.read_all(), f"{sys.executable.rpartition('/')[2]}-{child.pid}")
    ours = slow_calls(r"\] ", text)
    for kind, least in (("sleep", 0.2), ("read", 0.3)):
        assert len(ours[kind]) == len(theirs[kind]) == REPEATS, (ours, theirs)
        # The program's sleeps have an absolute end, and the time for which it is stopped at a call's entry is not part
        # of the call.
        assert ours[kind][0] >= least * 0.9, ours
        # The shortest of each, since other work of the machine can prolong any of them.
        assert ours[kind][0] == pytest.approx(theirs[kind][0], rel=0.1), (ours, theirs)


def test_every_line_has_its_time_and_the_rest_is_the_usual_text(daemon, service):
    children = [service("sh", "-c", "read x; kill -USR1 $$"), service("sh", "-c", "read x; exit 3")]
    browser = daemon.ask(b"/x", query(*(child.pid for child in children)))
    for child in children:
        wait_for(lambda pid=child.pid: tracer_of(pid), "traced")
        child.communicate(b"\n", timeout=PATIENCE)
    host = re.sub(r"[^\w.-]", "_", socket.gethostname(), flags=re.ASCII)
    text = timed_body(browser.read_all(), host)
    plain = untimed(text)
    assert re.search(rf"^\n\[{children[0].pid} sh\] ---  SIGNAL \d+ SIGUSR1 ---\n$", plain, re.MULTILINE)
    assert re.search(rf"^\n\[{children[1].pid} sh\] \d+ open fds:\n0\tpipe:", plain, re.MULTILINE)
    assert re.search(r"^\[\d+ sh\] \[\w+ \w+\] exit_group\(3\)$", plain, re.MULTILINE)
    assert " = 1" in plain


def test_times_are_local(daemon, service):
    child = service(*BUSY_PROGRAM)
    before = time.strftime("%H:%M:%S")
    with daemon.ask(b"/x", query(child.pid)) as browser:
        text = browser.read(20000).decode()
    after = time.strftime("%H:%M:%S.999999")
    if before < after:  # no midnight between them
        times = re.findall(rf"^({TIME})\[", text, re.MULTILINE)
        assert times == sorted(times)
        assert before <= times[0] and times[-1] <= after


@pytest.mark.parametrize("times", ["0", "", "abc", "-1"])
def test_other_values_of_times_give_the_usual_trace(daemon, service, times):
    child = service(*BUSY_PROGRAM)
    head = download_head("text/plain", "stracedump.txt")
    with daemon.ask(b"/x", f"cmd=strace&pid={child.pid}&times={times}".encode()) as browser:
        assert browser.read(len(head)) == head
        lines = browser.read(10000).decode().splitlines()
    assert [line for line in lines if re.match(TIME, line) or re.search(DURATION, line)] == []
