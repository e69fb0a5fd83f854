"""The web front's page in a real browser. The browser runs outside the sandbox, the front and the daemon in
it."""

import base64
import fcntl
import gzip
import hashlib
import json
import os
import re
import select
import shutil
import subprocess
import urllib.request

import pytest

from support.answers import BAD_REQUEST, BUSY_PAGE, SERVER_ERROR, download_head
from support.archives import assert_full_whole, header_of
from support.fake_daemon import FakeDaemon, write_all
from support.under_test import BIN, ROOT, SANITIZE
from support.waiting import wait_for

SCRIPTS = ROOT / "tests" / "e2e" / "page"
PAGE = ROOT / "tools" / "webfront" / "page"
SANDBOX = ROOT / "tools" / "sandbox"
MODULES = ROOT / "build" / "page-tests"
PATIENCE = 120 if SANITIZE else 30

# Starts a process for the list and for traces, and one with a difficult name. Then executes the command.
PROCESSES = r"""
import ctypes, os, sys, time
named = os.pipe()
def start(name, work):
    if os.fork() == 0:
        ctypes.CDLL(None).prctl(15, name)
        os.write(named[1], b"x")
        while True:
            work()
            time.sleep(0.02)
start(b"cal" b"ler", lambda: os.close(os.open("/dev/null", os.O_RDONLY)) or open("/dev/null").read())
start(b'<b>"\\\n\xff', lambda: time.sleep(100))
os.read(named[0], 1), os.read(named[0], 1)
os.execv(sys.argv[1], sys.argv[1:])
"""
REPORT = """<!DOCTYPE html><html lang="en"><title>r</title><style>p { color: red }</style><p>BYTES bytes</p>
<script>const done = document.createElement("p"); done.id = "done"; done.textContent = "by script";
document.body.append(done);</script>"""
EVIL_NAME = '<b>"\\\n\ufffd'

pytestmark = [
    pytest.mark.skipif(not (BIN / "webfront").exists(), reason="webfront is not built"),
    pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to make the sandbox"),
]


def modules():
    """The folder of the browser's driver, which is installed there if it is missing."""
    MODULES.mkdir(parents=True, exist_ok=True)
    with open(MODULES / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the tests of other builds share the folder
        wanted = SCRIPTS / "package-lock.json"
        done = MODULES / "installed.json"
        if not done.exists() or done.read_bytes() != wanted.read_bytes():
            for name in ("package.json", "package-lock.json"):
                shutil.copy(SCRIPTS / name, MODULES)
            words = ["npm", "ci", "--no-audit", "--no-fund", "--ignore-scripts"]
            how = dict(cwd=MODULES, stdin=subprocess.DEVNULL, capture_output=True, text=True)
            ran = subprocess.run(words, timeout=300, **how)
            if ran.returncode != 0:
                pytest.skip(f"needs playwright-core, which npm could not install: {ran.stderr[-300:]}")
            shutil.copy(wanted, done)
    return MODULES


class Browser:
    """A browser that runs scenarios of browse.mjs."""

    def __init__(self):
        command = ["node", SCRIPTS / "browse.mjs", modules(), shutil.which("chromium")]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def play(self, front, scenario, errors=0, **words):
        """Returns what the scenario found. The browser must have sent requests to the front only. The only
        errors that it may have logged are `errors` failed requests."""
        words |= {"scenario": scenario, "url": front.url, "patience": PATIENCE}
        self.process.stdin.write(json.dumps(words).encode() + b"\n")
        self.process.stdin.flush()
        assert select.select([self.process.stdout], [], [], 5 * PATIENCE)[0], f"{scenario} does not end"
        seen = json.loads(self.process.stdout.readline())
        assert "failed" not in seen, seen["failed"]
        assert seen["foreign"] == []
        expected = [line for line in seen["errors"] if line.startswith("Failed to load resource: ")]
        assert seen["errors"] == expected
        assert len(expected) == errors, expected
        return seen["found"]

    def stop(self):
        self.process.stdin.close()
        try:
            assert self.process.wait(PATIENCE) == 0
        finally:
            self.process.kill()
            self.process.stdout.close()


@pytest.fixture(scope="session")
def browser():
    for program in ("chromium", "node", "npm"):
        if not shutil.which(program):
            pytest.skip(f"needs {program}")
    running = Browser()
    yield running
    running.stop()


class SandboxedFront:
    """A web front in a sandbox, together with the processes above."""

    def __init__(self, *words):
        command = [SANDBOX, "/usr/bin/python3", "-c", PROCESSES, *map(str, words)]
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=ROOT)
        assert select.select([self.process.stdout], [], [], PATIENCE)[0], "the front printed nothing"
        self.url = self.process.stdout.readline().decode().strip()
        assert re.fullmatch(r"http://127\.0\.0\.1:\d+/", self.url), self.process.communicate()

    def get(self, path):
        with urllib.request.urlopen(self.url.rstrip("/") + path, timeout=PATIENCE) as answer:
            return answer.headers, answer.read()

    def stop(self):
        self.process.terminate()
        self.process.communicate(timeout=PATIENCE)


@pytest.fixture
def socket_path(tmp_path):
    return tmp_path / "ctrl"


@pytest.fixture
def front(socket_path, tmp_path):
    """The front, with a program that reads an archive and writes a small page with a script."""
    reader = tmp_path / "reader"
    reader.write_text(f"#!/bin/sh\nbytes=$(wc -c)\nprintf '%s' '{REPORT}' | sed \"s/BYTES/$bytes/\"\n")
    reader.chmod(0o755)
    words = ["--port", "0", "--socket", socket_path, "--reader", reader]
    running = SandboxedFront(BIN / "webfront", *words)
    yield running
    running.stop()


@pytest.fixture
def real():
    """A front with a real daemon."""
    running = SandboxedFront(ROOT / "tools" / "serve", BIN, "0")
    yield running
    running.stop()


@pytest.fixture
def play(socket_path):
    """play(answer) starts a daemon that answers with `answer(message)`, bytes or a sequence of them."""
    started = []

    def start(answer):
        def reply(message, fd):
            bytes_or_pieces = answer(message)
            for piece in [bytes_or_pieces] if isinstance(bytes_or_pieces, bytes) else bytes_or_pieces:
                write_all(fd, piece)

        started.append(FakeDaemon(socket_path, reply))
        return started[-1]

    yield start
    for fake in started:
        fake.stop()


def tar(*members):
    """A tar stream like the daemon's."""
    stream = b""
    for name, size in members:
        stream += header_of(f"debug-20260101-000000-c0/{name}", size, 0) + bytes(size + -size % 512)
    return stream


MEMBERS = [("dbg-monitor.txt", 3), ("proc.20260101-000000/stat", 700), ("proc/sys/vm/x", 1), ("strace.log", 2048),
           ("netdump.cap", 1024), ("serverreport.txt", 5), ("proc.20260101-000011/stat", 512), ("x.7/core", 4000),
           ("manifest.txt", 9)]  # fmt: skip
FILE_NAMES = {
    b"/debug.tgz\0": "debug.tgz", b"/debug.tar\0": "debug.tar",
    b"/debug.tgz\0full": "debug-cam1.tgz", b"/debug.tar\0full": "debug-cam1.tar",
    b"/debug.tgz\0full=": "debug-cam1.tgz", b"/debug.tgz\0pop": "core.812.gz",
}  # fmt: skip


def valid_answers(message):
    """A valid answer to any request, with the file name that the daemon gives it."""
    name = FILE_NAMES.get(message) or re.search(rb"(?:cmd=)?(\w+)", message.partition(b"\0")[2])[1].decode()
    bodies = {"tgz": gzip.compress(tar(*MEMBERS)), "tar": tar(*MEMBERS)}
    body = bodies.get(name.rpartition(".")[2], b"some text\n" * 20)
    return download_head("application/octet-stream", name) + body


REQUESTS = [
    (dict(kind="archive"), b"/debug.tgz\0full", "debug-cam1.tgz"),
    (dict(kind="report"), b"/debug.tgz\0full", ""),
    (dict(kind="ps"), b"/debugar.cgi\0cmd=ps", ""),
    (dict(kind="strace", fields=dict(pid="12, syslogd")), b"/debugar.cgi\0cmd=strace&pid=12,%20syslogd&times=1", ""),
    (dict(kind="strace", button="Trace all"), b"/debugar.cgi\0cmd=strace&times=1", ""),
    (dict(kind="coredump", fields=dict(pid="a&b=c")), b"/debugar.cgi\0cmd=coredump&pid=a%26b%3Dc", "coredump"),
    (dict(kind="pcapdump"), b"/debugar.cgi\0cmd=pcapdump&duration=5&exact=1", "pcapdump"),
    (dict(kind="pcapdump", fields=dict(interface="eth0", duration="3", totalsize="4000")),
     b"/debugar.cgi\0cmd=pcapdump&interface=eth0&duration=3&totalsize=4000&exact=1", "pcapdump"),
    (dict(kind="rtrace"), b"/debugar.cgi\0cmd=rtrace&interval=10&trace=fast", "rtrace"),
    (dict(kind="rtrace", fields=dict(interval="2", trace="meminfo,iostat")),
     b"/debugar.cgi\0cmd=rtrace&interval=2&trace=meminfo,iostat", "rtrace"),
    (dict(kind="listen"), b"/debug.tgz\0listen", "listen"),
    (dict(kind="pop"), b"/debug.tgz\0pop", "core.812.gz"),
    (dict(kind="waitcore"), b"/debugar.cgi\0cmd=coredump", "coredump"),
]  # fmt: skip


def test_each_form_sends_its_request_and_saves_the_answer_under_the_daemons_name(browser, front, play):
    fake = play(valid_answers)
    shown = browser.play(front, "forms", requests=[words for words, _, _ in REQUESTS])
    assert fake.messages == [message for _, message, _ in REQUESTS]
    assert [one["name"] for one in shown] == [name for _, _, name in REQUESTS]
    for one in shown:
        assert one["classes"] == "job over good", one
    assert [one["state"] for one in shown] == [
        f"Done. Passed to the browser as debug-cam1.tgz. The archive is complete: {len(MEMBERS)} members.",
        "The report is ready. The web front keeps it for 15 minutes.",
        "Done.",
        "The trace has ended.",
        "The trace has ended.",
        *(f"Done. Passed to the browser as {name}." for _, _, name in REQUESTS[5:]),
    ]
    assert "some text" in shown[2]["text"] and "Lines: 20 received, 20 shown." in shown[2]["text"]


def test_every_request_works_without_scripts(browser, front, play):
    fake = play(valid_answers)
    fields = {"strace": dict(pid="12,syslogd"), "coredump": dict(pid="7"), "pcapdump": dict(interface="eth0")}
    kinds = ["archive", "listen", "pop", "waitcore", "ps", "strace", "coredump", "pcapdump", "rtrace"]
    requests = [dict(kind=kind, fields=fields.get(kind)) for kind in kinds]
    found = browser.play(front, "without_script", requests=requests)
    by_form = [b"/debug.tgz\0full=", b"/debug.tgz\0listen=", b"/debug.tgz\0pop=", b"/debugar.cgi\0cmd=coredump",
               b"/debugar.cgi\0cmd=ps", b"/debugar.cgi\0cmd=strace&pid=12%2Csyslogd&times=1", b"/debugar.cgi\0cmd=coredump&pid=7",
               b"/debugar.cgi\0cmd=pcapdump&interface=eth0&duration=5&totalsize=&exact=1",
               b"/debugar.cgi\0cmd=rtrace&interval=10&trace=fast"]  # fmt: skip
    targets = ["/debug.tgz?full", "/debug.tar?full", "/debug.tgz", "/debug.tar", "/debug.tgz?listen", "/debug.tgz?pop", "/debugar.cgi?cmd=coredump",
               "/debugar.cgi?cmd=ps", "/debugar.cgi?cmd=strace"]  # fmt: skip
    assert found["targets"] == targets
    by_link = [f"{path}\0{query}".encode() for path, _, query in (target.partition("?") for target in targets)]
    assert fake.messages == [*by_form, *by_link, b"/debug.tgz\0full"]  # the last one is the report's
    assert len(found["names"]) == len(by_form + by_link)
    assert re.fullmatch(r"[1-9]\d* bytes", found["report"])
    assert found["hidden"] == 0 and "Without script" in found["note"]


def test_refusals_are_shown_as_sentences(browser, front, play):
    cut = download_head("application/x-tar", "debug.tar") + tar(*MEMBERS)[:-3000]
    answers = {
        b"/debugar.cgi\0cmd=coredump&pid=nobody": BAD_REQUEST,
        b"/debugar.cgi\0cmd=strace&pid=99999&times=1": BAD_REQUEST,
        b"/debugar.cgi\0cmd=rtrace&interval=10&trace=fast": SERVER_ERROR,
        b"/debug.tgz\0full": BUSY_PAGE,
        b"/debug.tgz\0pop": b"",
        b"/debug.tgz\0listen": b"",
        b"/debugar.cgi\0cmd=coredump&pid=7": download_head("application/octet-stream", "core"),
        b"/debug.tar\0full": cut,
    }
    play(answers.get)
    requests = [dict(kind="coredump", fields=dict(pid="nobody")), dict(kind="strace", fields=dict(pid="99999")),
                dict(kind="rtrace"), dict(kind="archive"), dict(kind="pop"), dict(kind="listen"),
                dict(kind="coredump", fields=dict(pid="7"))]  # fmt: skip
    shown = browser.play(front, "forms", errors=6, requests=requests)
    assert {one["classes"] for one in shown} == {"job over bad"}
    assert [one["state"] for one in shown] == [
        "No process has the pid or name “nobody” (400).",
        "No running process matches “99999” (400).",
        "The daemon could not do it: it is out of memory or threads, or does not accept these parameters (500).",
        "The machine is already making an archive, and makes one at a time; try again when it is done (503).",
        "No dump is stored on the machine.",
        "The wait ended without a dump: another browser replaced this one, or the daemon exited.",
        "The daemon sent nothing: there was nothing to send, or making it failed.",
    ]


def test_without_a_daemon_the_page_shows_the_fronts_error(browser, front, socket_path):
    shown = browser.play(front, "forms", errors=1, requests=[dict(kind="archive")])
    assert shown[0]["state"] == f"The daemon at {socket_path} did not take the request: No such file or directory. (502)"


def test_truncated_archive_is_reported_as_bad(browser, front, play):
    stream = gzip.compress(tar(*MEMBERS))[:-20]
    play(lambda _message: download_head("application/x-tar", "debug.tgz") + stream)
    (shown,) = browser.play(front, "forms", requests=[dict(kind="archive")])
    assert shown["name"] == "debug.tgz"
    assert shown["state"] == "Done. Passed to the browser as debug.tgz. But the archive is cut off or damaged."
    assert shown["classes"] == "job over bad"


def test_full_archive_without_its_manifest_is_reported_as_bad(browser, front, play):
    stream = gzip.compress(tar(*MEMBERS[:-1]))
    play(lambda _message: download_head("application/x-tar", "debug.tgz") + stream)
    (shown,) = browser.play(front, "forms", requests=[dict(kind="archive")])
    assert shown["state"] == "Done. Passed to the browser as debug.tgz. But the archive is cut off or damaged."


def test_large_download_goes_straight_into_the_chosen_file(browser, front, play):
    content = os.urandom(1 << 20) * 24
    play(lambda _message: [download_head("application/octet-stream", "core"), content])
    found = browser.play(front, "into_a_file")
    assert found["state"] == "Done. Saved as core."
    assert found["sum"] == hashlib.sha256(content).hexdigest()
    assert found["downloads"] == 0
    assert found["numbers"].startswith("25.2 MB · ")


def test_no_request_is_sent_if_no_file_is_chosen(browser, front, play):
    fake = play(valid_answers)
    found = browser.play(front, "no_file_chosen")
    assert found == {"news": "No file was chosen, so no request was sent.", "jobs": 0}
    assert fake.messages == []


def test_cancelling_ends_the_connection(browser, front, play):
    ended = []

    def endless(_message):
        yield download_head("application/octet-stream", "core")
        while True:
            yield bytes(1000)

    def stream(message, fd):
        try:
            for piece in endless(message):
                os.write(fd, piece)
        except (BrokenPipeError, ConnectionResetError):
            ended.append(message)

    fake = play(valid_answers)
    fake.answer = stream
    assert browser.play(front, "cancel") == "Cancelled. The data received so far was discarded."
    wait_for(lambda: ended == [b"/debugar.cgi\0cmd=coredump&pid=7"], "the connection ended")


def test_waiting_for_a_crash_is_explained_and_saves_the_dump_that_arrives(browser, front, play):
    waiting = []

    def answer(message, fd):
        if message == b"/debug.tgz\0listen":
            waiting.append(os.dup(fd))
        else:  # a process crashes
            write_all(waiting[0], download_head("application/octet-stream", "core") + b"\x7fELF\0")
            os.close(waiting[0])
            write_all(fd, download_head("text/plain", "done"))

    fake = play(valid_answers)
    fake.answer = answer
    found = browser.play(front, "wait_for_a_crash")
    assert found["asked"] == "Waiting for a process to crash. Another browser that starts to wait replaces this one."
    assert found["saved"] == {"name": "core", "bytes": base64.b64encode(b"\x7fELF\0").decode()}
    assert fake.messages == [b"/debug.tgz\0listen", b"/crash-now\0"]


def test_report_is_made_opened_in_a_tab_of_its_own_and_saved(browser, front, play):
    begun = []

    def answer(message, fd):
        if message == b"/debug.tgz\0full":
            begun.append(os.dup(fd))
        else:
            write_all(begun[0], valid_answers(b"/debug.tgz\0full"))
            os.close(begun[0])
            write_all(fd, download_head("text/plain", "done"))

    fake = play(valid_answers)
    fake.answer = answer
    found = browser.play(front, "report")
    assert found["asked"].startswith("The machine makes an archive, and archiveview reads it meanwhile.")
    assert found["waits"] == 1
    assert found["state"] == "The report is ready. The web front keeps it for 15 minutes."
    size = len(valid_answers(b"/debug.tgz\0full").partition(b"\r\n\r\n")[2])
    assert found["text"].split() == [str(size), "bytes", "by", "script"]
    assert (found["origin"], found["reached"]) == ("null", False)
    assert found["address"].startswith(f"{front.url}report.html?kept=")
    assert found["saved"]["name"] == "report.html"
    assert base64.b64decode(found["saved"]["bytes"]).decode() == REPORT.replace("BYTES", str(size))
    assert fake.messages == [b"/debug.tgz\0full", b"/go-on\0"]


def test_cancelling_a_report_ends_its_archive(browser, front, play):
    kept, ended = [], []

    def answer(message, fd):
        if message == b"/debug.tgz\0full":
            kept.append(os.dup(fd))
        else:
            write_all(fd, download_head("text/plain", "done"))

    fake = play(valid_answers)
    fake.answer = answer
    assert browser.play(front, "cancel_report") == "Cancelled."
    gone = select.poll()
    gone.register(kept[0], select.POLLRDHUP)
    ended = gone.poll(PATIENCE * 1000)
    os.close(kept[0])
    assert ended


def test_failed_report_shows_the_fronts_reason(browser, front, play):
    play(lambda _message: BUSY_PAGE)
    (shown,) = browser.play(front, "forms", errors=1, requests=[dict(kind="report")])
    assert shown["state"] == ("The machine is already making an archive, and makes one at a time; try again when it is "
                              "done. (503)")  # fmt: skip
    assert shown["classes"] == "job over bad"


def test_axe_finds_no_violation(browser, front, play):
    kept = []

    def answer(message, fd):
        if message == b"/debug.tgz\0listen":
            kept.append(os.dup(fd))
        else:
            write_all(fd, BAD_REQUEST if b"coredump" in message else valid_answers(message))

    fake = play(valid_answers)
    fake.answer = answer
    looks = {
        "light": dict(colorScheme="light"),
        "dark": dict(colorScheme="dark"),
        "narrow": dict(viewport=dict(width=360, height=740), colorScheme="light"),
    }
    found = browser.play(front, "axe", errors=3, looks=looks)
    for fd in kept:
        os.close(fd)
    assert found == {name: [] for name in looks}


def test_process_list_is_shown_filtered_and_sorted_and_starts_requests(browser, front, play):
    fake = play(valid_answers)
    found = browser.play(front, "list")
    assert {"caller", "webfront", EVIL_NAME.replace("\n", " ")} <= {name.replace("\n", " ") for name in found["names"]}
    by_pid = found["sorted"]["pid"]
    assert (by_pid["pids"], by_pid["direction"]) == (sorted(by_pid["pids"]), "ascending")
    assert found["sorted"]["memory_kb"]["direction"] == "descending"
    assert sorted(found["sorted"]["name"]["pids"]) == by_pid["pids"] != found["sorted"]["name"]["pids"]
    assert found["filtered"] == ["caller"]
    assert found["ticked"] == found["pid"]
    assert found["link"] == f"/debugar.cgi?cmd=strace&pid={found['pid']}&times=1"
    assert fake.messages == [f"/debugar.cgi\0cmd=coredump&pid={found['pid']}".encode()]
    assert found["core"].startswith("Done.")
    assert found["focus"] == f"Core dump of {found['pid']} (caller)"
    assert {"any", "lo"} <= set(found["interfaces"])
    assert "caller" in found["offered"]


def test_page_can_be_used_with_the_keyboard_and_each_control_has_a_name(browser, front, play):
    fake = play(valid_answers)
    found = browser.play(front, "keyboard")
    assert found["nameless"] == []
    assert found["reached"] == found["reachable"] > 30
    assert fake.messages == [b"/debugar.cgi\0cmd=ps"]


def test_page_is_readable_on_a_narrow_screen_and_in_dark_mode(browser, front, play):
    play(lambda message: BAD_REQUEST if b"coredump" in message else
         download_head("text/plain", "psdump.txt") + b"x" * 500 + b"\n" + b"short\n" * 50)  # fmt: skip
    looks = {
        "light": dict(colorScheme="light"),
        "dark": dict(colorScheme="dark"),
        "narrow": dict(viewport=dict(width=360, height=740), colorScheme="dark"),
    }
    found = browser.play(front, "looks", errors=3, looks=looks, pictures=os.environ.get("ZARVO_PICTURES"))
    for name, seen in found.items():
        assert seen["width"] <= seen["window"], name
        assert seen["wide"] == [], name
        assert seen["pale"] == [], name
    assert found["light"]["ground"] > 0.7
    assert found["dark"]["ground"] < 0.1 > found["narrow"]["ground"]


def test_files_of_the_page_are_those_of_the_tree(front):
    files = list(PAGE.iterdir())
    assert len(files) > 3
    for file in files:
        headers, body = front.get("/" if file.name == "index.html" else f"/webfront/{file.name}")
        assert body == file.read_bytes(), file.name
        policy = headers["Content-Security-Policy"]
        assert policy.startswith("default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self';")


def test_lists_are_valid_json_for_any_process_name(front):
    headers, body = front.get("/webfront/processes")
    assert headers["Content-Type"] == "application/json"
    found = {one["name"]: one for one in json.loads(body)["processes"]}
    assert EVIL_NAME in found
    caller = found["caller"]
    assert caller["command"].startswith("/usr/bin/python3 -c \nimport ctypes")
    assert caller["state"] in "RS" and 1000 < caller["memory_kb"] < 100000 and not caller["kernel"]
    assert json.loads(front.get("/webfront/interfaces")[1])["interfaces"].count("lo") == 1


def test_archive_is_downloaded_and_a_second_one_is_refused_meanwhile(browser, real, tmp_path):
    saved = tmp_path / "debug.tar"
    found = browser.play(real, "archive", errors=1, save=str(saved))
    assert "makes one at a time" in found["refused"] and "(503)" in found["refused"]
    assert re.fullmatch(r"debug-[\w.-]+-\d{8}-\d{6}\.tar", found["name"])
    assert found["state"].startswith(f"Done. Passed to the browser as {found['name']}. The archive is complete: ")
    assert {"System calls, 5 seconds", "Network traffic, 5 seconds"} <= set(found["phases"])
    members, _ = assert_full_whole(saved.read_bytes())
    listed = subprocess.run(["tar", "-tf", saved], capture_output=True, text=True, check=True).stdout.splitlines()
    assert listed == [member.path for member in members]
    assert f"The archive is complete: {len(members)} members." in found["state"]


def test_trace_is_shown_paused_stopped_and_saved(browser, real):
    found = browser.play(real, "trace")
    line = r"^\d\d:\d\d:\d\d\.\d{6} \[\d+ python3\] .*(open|read|close)\w*\("
    assert re.search(line, found["paused"], re.MULTILINE)
    assert found["still"]
    assert found["filtered"] and all("read(" in line for line in found["filtered"])
    assert found["state"] == "Stopped."
    text = base64.b64decode(found["saved"]["bytes"]).decode()
    assert re.fullmatch(r"trace-python3-\d+-\d{8}-\d{6}\.txt", found["saved"]["name"])
    # Only the last lines of a trace are shown, which may not be the first ones on a busy machine.
    assert found["paused"][:200] in text and text.count("\n") > found["paused"].count("\n")
