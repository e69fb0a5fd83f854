"""archiveview: the first finding on an archive names the fault that was planted, and the guilty process."""

import concurrent.futures
import json
import os
import re
import subprocess

import pytest

from support.under_test import BIN, REMOTE_URL, ROOT
from support.waiting import PATIENCE

AT_ONCE = 3  # sandboxes; an archive waits most of its time
LIMIT_S = 20 * PATIENCE
PYTHON = "/usr/bin/python3"
THREADS = [str(BIN / "e2e_faulty_threads")]
SCRIPT = [PYTHON, str(ROOT / "tests/e2e/faults/fault.py")]
SERVICE = [PYTHON, "-c", """
import os, socket, time
os.write(1, b"ready 0\\n")
server = socket.create_server(("127.0.0.1", 0))
while True:
    client = socket.create_connection(server.getsockname())
    one, _ = server.accept()
    for _ in range(200):
        one.sendall(bytes(20000))
        left = 20000
        while left:
            left -= len(client.recv(left))
    with open("/run/busy", "wb") as file:
        file.write(os.urandom(1 << 20))
    one.close(); client.close()
    time.sleep(0.01)
"""]  # fmt: skip
FULL, USUAL = "full", ""

# The fault, the form of the archive, and the id of its first finding.
FAULTS = [
    (THREADS, "deadlock2", FULL, "deadlock"),
    (THREADS, "deadlock2", USUAL, "deadlock"),
    (THREADS, "deadlock3", FULL, "deadlock"),
    (THREADS, "orphan", FULL, "deadlock"),
    (THREADS, "spin", FULL, "spinning-thread"),
    (THREADS, "spin-thread", FULL, "spinning-thread"),
    (SCRIPT, "files", FULL, "descriptor-leak"),
    (SCRIPT, "sockets", FULL, "descriptor-leak"),
    (SCRIPT, "sockets", USUAL, "descriptor-leak"),
    (SCRIPT, "forks", FULL, "child-runaway"),
    (SCRIPT, "memory", FULL, "memory-low"),
    (SCRIPT, "errors", FULL, "error-storm"),
    (SCRIPT, "polling", FULL, "polling-loop"),
    (SCRIPT, "stopped", FULL, "process-stopped"),
    (SCRIPT, "zombies", FULL, "zombies"),
    (SCRIPT, "refused", FULL, "connect-refused"),
    (SCRIPT, "unanswered", FULL, "connect-unanswered"),
    (SCRIPT, "names", FULL, "dns-unanswered"),
    (SCRIPT, "queue", FULL, "listen-queue-full"),
    (SCRIPT, "reader", FULL, "send-queue-stuck"),
    (SCRIPT, "loss", FULL, "retransmissions"),
    (SCRIPT, "oops", FULL, "kernel-oops"),
]
HEALTHY = [("idle", [], FULL), ("idle", [], USUAL), ("busy", SERVICE, FULL), ("busy", SERVICE, USUAL)]


def take(archive, form, command):
    """What the fault's program said, and what archiveview says of the archive that was made beside it."""
    taker = [PYTHON, str(ROOT / "tests/support/fault_archive.py"), str(archive), form, *command]
    done = subprocess.run([ROOT / "tools/sandbox", "--net", "--dcore", BIN / "dcore", *taker], capture_output=True,
                          stdin=subprocess.DEVNULL, text=True, timeout=LIMIT_S)  # fmt: skip
    assert done.returncode == 0, done.stderr
    said = done.stdout.strip()
    if not said.startswith("ready "):
        return said, None
    viewed = subprocess.run([BIN / "archiveview", "--json", archive], capture_output=True, text=True, timeout=LIMIT_S)
    assert viewed.returncode == 0, viewed.stderr
    return said, json.loads(viewed.stdout)


@pytest.fixture(scope="module")
def taken(tmp_path_factory):
    """All archives, as futures: several sandboxes run at once."""
    if REMOTE_URL:
        pytest.skip("makes its own archives")
    if os.geteuid() != 0:
        pytest.skip("needs root, to make the sandbox")
    folder = tmp_path_factory.mktemp("archives")
    jobs = {(name, form): [*program, name] for program, name, form, _ in FAULTS}
    jobs |= {(name, form): command for name, command, form in HEALTHY}
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        made = {key: pool.submit(take, folder / "-".join([*key, "archive"]), key[1], command)
                for key, command in jobs.items()}  # fmt: skip
        yield made
        for job in made.values():
            job.cancel()


def result_of(taken, name, form):
    said, seen = taken[name, form].result(LIMIT_S)
    if found := re.fullmatch("skip (.*)", said):
        pytest.skip(f"this kernel cannot show it: {found[1]}")
    return int(said.removeprefix("ready ")), seen


@pytest.mark.parametrize(("name", "form", "wanted"), [fault[1:] for fault in FAULTS])
def test_first_finding_names_the_fault_and_the_process(taken, name, form, wanted):
    pid, seen = result_of(taken, name, form)
    findings = seen["findings"]
    assert findings, "no finding at all"
    assert (findings[0]["id"], findings[0]["pid"]) == (wanted, pid), findings[:3]
    assert findings[0]["severity"] != "note"
    assert findings[0]["evidence"] and findings[0]["next"]


@pytest.mark.parametrize(("name", "form"), [(name, form) for name, _, form in HEALTHY])
def test_healthy_archive_has_no_finding_above_a_note(taken, name, form):
    _, seen = result_of(taken, name, form)
    assert seen["archive"]["state"] == "whole"
    assert [one for one in seen["findings"] if one["severity"] != "note"] == []
