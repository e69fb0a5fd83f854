"""/report.html of the web front, between a browser, a daemon and a reader that the tests play themselves."""

import concurrent.futures
import contextlib
import gzip
import os
import pathlib
import select
import socket
import textwrap
import threading
import time

import pytest

from support.answers import BUSY_PAGE, SERVER_ERROR, download_head
from support.connections import receive_all
from support.fake_daemon import FakeDaemon, write_all
from support.processes import process_stat
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for
from support.web import Front

ARCHIVE = gzip.compress(os.urandom(300_000))
HEAD = download_head("application/x-tar", "debug-cam1.tgz")
REPORTS_AT_ONCE = 3
REPORTS_WAITING = 3

pytestmark = pytest.mark.skipif(not (BIN / "webfront").exists(), reason="webfront is not built")


def error_of(answer):
    """(status, sentence) of an error answer."""
    head, _, body = answer.partition(b"\r\n\r\n")
    assert head.startswith(b"HTTP/1.0 ") and b"\r\nContent-Type: text/plain; charset=utf-8" in head, answer
    assert body.endswith(b".\n") and body.count(b"\n") == 1, body
    return int(head[9:12]), body.decode()


def page_of(answer):
    """(fields, page) of a report."""
    head, _, body = answer.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    assert lines[0] == "HTTP/1.0 200 OK", answer[:1000]
    return dict(line.split(": ", 1) for line in lines[1:]), body


class Setup:
    """A front, a daemon that answers with `answer(message, fd)`, and a reader that runs `script`."""

    def __init__(self, folder):
        self.folder = folder
        self.reader = folder / "reader"
        self.socket_path = folder / "socket"
        self.front = self.daemon = None

    def start(self, script, answer=lambda _message, fd: write_all(fd, HEAD + ARCHIVE)):
        if script is not None:
            self.reader.write_text("#!/usr/bin/python3 -ISB\nimport os, signal, sys, time\n" + textwrap.dedent(script))
            self.reader.chmod(0o755)
        if answer:
            self.daemon = FakeDaemon(self.socket_path, answer)
        self.front = Front("--reader", str(self.reader), socket_path=self.socket_path)
        return self.front

    def readers(self):
        """The processes that the front has started."""
        pid = self.front.process.pid
        found = []
        for thread in os.listdir(f"/proc/{pid}/task"):
            found += pathlib.Path(f"/proc/{pid}/task/{thread}/children").read_text().split()
        return [int(one) for one in found]

    def is_idle(self):
        return self.readers() == [] and self.front.sockets() == 1

    def stop(self):
        if self.front:
            self.front.stop()
        if self.daemon:
            self.daemon.stop()


@pytest.fixture
def setup(tmp_path):
    made = Setup(tmp_path)
    yield made
    made.stop()


ECHO = "sys.stdout.buffer.write(' '.join(sys.argv[1:]).encode() + sys.stdin.buffer.read())"
WAIT = "sys.stdin.buffer.read(); time.sleep(1000)"


def test_report_is_what_the_reader_makes_of_a_full_archive(setup):
    front = setup.start(ECHO)
    fields, page = page_of(front.get("/report.html"))
    assert page == b"--html - -" + ARCHIVE
    assert setup.daemon.messages == [b"/debug.tgz\0full"]
    assert fields["Content-Type"] == "text/html; charset=utf-8"
    assert fields["Content-Length"] == str(len(page))
    wait_for(setup.is_idle, "everything ended")


def test_report_may_run_its_scripts_but_not_as_a_part_of_the_fronts_site(setup):
    policy = page_of(setup.start(ECHO).get("/report.html"))[0]["Content-Security-Policy"]
    directives = dict(one.strip().partition(" ")[::2] for one in policy.split(";"))
    assert directives["default-src"] == "'none'" and "connect-src" not in directives
    assert "allow-scripts" in directives["sandbox"] and "allow-same-origin" not in directives["sandbox"]


def test_reader_gets_the_archive_while_it_is_made(setup):
    has_begun = setup.folder / "begun"
    seen = []

    def two_pieces(_message, fd):
        write_all(fd, HEAD + ARCHIVE[:1000])
        seen.append(wait_for(has_begun.exists, "the reader has read the first piece"))
        write_all(fd, ARCHIVE[1000:])

    front = setup.start(f"""
        first = os.read(0, 1000)
        open({str(has_begun)!r}, "w").close()
        sys.stdout.buffer.write(first + sys.stdin.buffer.read())
        """, two_pieces)  # fmt: skip
    assert page_of(front.get("/report.html"))[1] == ARCHIVE
    assert seen == [True]


def test_reader_is_not_started_before_the_daemon_has_begun_the_archive(setup):
    seen = []

    def late(_message, fd):
        write_all(fd, HEAD + ARCHIVE[:10])  # the compressor's header
        time.sleep(0.3)  # a front that does not wait for more would have started the reader
        seen.append(setup.readers())
        write_all(fd, ARCHIVE[10:])

    assert page_of(setup.start(ECHO, late).get("/report.html"))[1].endswith(ARCHIVE)
    assert seen == [[]]


def test_head_and_archive_may_arrive_in_any_pieces(setup):
    def byte_by_byte(_message, fd):
        for at in range(len(HEAD) + 200):
            write_all(fd, (HEAD + ARCHIVE)[at : at + 1])

    front = setup.start(ECHO, byte_by_byte)
    assert page_of(front.get("/report.html"))[1] == b"--html - -" + ARCHIVE[:200]


@pytest.mark.parametrize("length", [0, 1, 1000])
def test_cut_archive_gets_the_page_that_the_reader_makes_of_it(setup, length):
    front = setup.start(ECHO + "; sys.stdout.flush(); os._exit(3)",
                        lambda _message, fd: write_all(fd, HEAD + ARCHIVE[:length]))  # fmt: skip
    assert page_of(front.get("/report.html"))[1] == b"--html - -" + ARCHIVE[:length]


def test_large_page_arrives_complete_at_a_slow_browser(setup):
    front = setup.start("sys.stdin.buffer.read(); sys.stdout.buffer.write(b'0123456789' * 3_000_000)")
    with socket.socket() as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 16)
        client.settimeout(PATIENCE)
        client.connect(("127.0.0.1", front.port))
        client.sendall(front.head("/report.html"))
        received = bytearray(client.recv(1000))
        ends = time.monotonic() + 3  # longer than the front waits for a browser that takes nothing
        while time.monotonic() < ends:
            received += client.recv(1 << 17)
            time.sleep(0.02)
        received += receive_all(client)
    assert page_of(bytes(received))[1] == b"0123456789" * 3_000_000


# Failures of the reader.


@pytest.mark.parametrize(("script", "sentence"), [
    ("sys.stdin.buffer.read(); sys.stderr.write('not an archive.\\nmore\\n'); sys.exit(1)",
     "There is no report: archiveview ended with status 1: not an archive.\n"),
    ("print('half a page', flush=True); os.kill(os.getpid(), signal.SIGSEGV)",
     "There is no report: archiveview was ended by signal 11.\n"),
    ("sys.stdin.buffer.read()", "There is no report: archiveview wrote no page.\n"),
    ("sys.exit(2)", "There is no report: archiveview ended with status 2.\n"),
    ("sys.stderr.write('\\x1b<b>\\xe9' + 'y' * 100000); sys.exit(1)",
     "There is no report: archiveview ended with status 1: ?<b>??" + "y" * 294 + ".\n"),
    ("w = sys.stdout.buffer.write\nwhile True: w(bytes(1 << 20))",
     "There is no report: archiveview wrote a page of more than 33554432 bytes.\n"),
], ids=["status", "signal", "no page", "usage", "odd remark", "endless page"])  # fmt: skip
def test_failure_of_the_reader_is_reported(setup, script, sentence):
    front = setup.start(script)
    assert error_of(front.get("/report.html")) == (502, sentence)
    wait_for(setup.is_idle, "everything ended")


def test_daemon_is_not_asked_if_there_is_no_reader(setup):
    front = setup.start(None)
    status, sentence = error_of(front.get("/report.html"))
    assert status == 503 and str(setup.reader) in sentence and "archiveview" in sentence
    setup.reader.write_text("x")
    assert error_of(front.get("/report.html"))[0] == 503
    assert setup.daemon.messages == []


def test_reader_that_cannot_be_started_is_reported(setup):
    front = setup.start(None)
    setup.reader.write_text("no program\n")
    setup.reader.chmod(0o755)
    assert error_of(front.get("/report.html")) == (
        502, "There is no report: archiveview could not be started: Exec format error.\n")  # fmt: skip


def test_usual_reader_is_archiveview_beside_the_front(setup):
    setup.daemon = FakeDaemon(setup.socket_path, lambda _message, fd: write_all(fd, HEAD + b"x" * 1000))
    setup.front = Front(socket_path=setup.socket_path)
    if (BIN / "archiveview").exists():
        assert error_of(setup.front.get("/report.html"))[1].startswith("There is no report: archiveview ended with")
    else:
        assert str(BIN / "archiveview") in error_of(setup.front.get("/report.html"))[1]


# Failures of the daemon.


@pytest.mark.parametrize(("answer", "status", "words"), [
    (BUSY_PAGE, 503, "already making an archive"),
    (SERVER_ERROR, 502, "with status 500"),
    (b"", 502, "did not answer"),
    (b"HTTP/1.0 200 OK\r\n", 502, "did not answer"),
    (b"x" * 10000, 502, "did not answer"),
], ids=["busy", "error", "nothing", "cut head", "no head"])  # fmt: skip
def test_daemon_without_an_archive_is_reported(setup, answer, status, words):
    front = setup.start(ECHO, lambda _message, fd: write_all(fd, answer))
    seen = error_of(front.get("/report.html"))
    assert seen[0] == status and words in seen[1]
    wait_for(setup.is_idle, "everything ended")


def test_daemon_that_is_missing_is_reported(setup):
    front = setup.start(ECHO, answer=None)
    status, sentence = error_of(front.get("/report.html"))
    assert status == 502 and str(setup.socket_path) in sentence


# Ends.


class Stalled:
    """A daemon whose answer stalls after `bytes_before`, until the other side has gone."""

    def __init__(self, bytes_before):
        self.bytes_before = bytes_before
        self.ended = threading.Event()
        self.may_end = threading.Event()

    def __call__(self, _message, fd):
        write_all(fd, self.bytes_before)
        gone = select.poll()
        gone.register(fd, select.POLLRDHUP)
        while not self.may_end.is_set():
            if gone.poll(10):
                self.ended.set()
                return


@pytest.mark.parametrize("before", [b"", HEAD[:20], HEAD, HEAD + ARCHIVE[:10], HEAD + ARCHIVE],
                         ids=["before the head", "in the head", "after the head", "before the archive", "in the archive"])
def test_browser_that_leaves_ends_the_archive_and_the_reader(setup, before):
    stalled = Stalled(before)
    front = setup.start(WAIT, stalled)
    try:
        with front.connect() as client:
            client.sendall(front.head("/report.html"))
            wait_for(lambda: setup.daemon.messages, "the daemon was asked")
            if len(before) > len(HEAD) + 64:
                wait_for(setup.readers, "the reader was started")
        assert stalled.ended.wait(PATIENCE)
        wait_for(setup.is_idle, "everything ended")
    finally:
        stalled.may_end.set()


def test_browser_that_leaves_at_any_moment_leaves_nothing_behind(setup):
    def pieces(_message, fd):
        for at in range(0, len(ARCHIVE), 30000):
            write_all(fd, (HEAD if at == 0 else b"") + ARCHIVE[at : at + 30000])
            time.sleep(0.005)

    front = setup.start("sys.stdin.buffer.read(); print('page', flush=True); time.sleep(0.02)", pieces)
    for moment in range(30):
        with front.connect() as client:
            client.sendall(front.head("/report.html"))
            time.sleep(moment * 0.005)
    wait_for(setup.is_idle, "everything ended")
    wait_for(lambda: len(os.listdir(f"/proc/{front.process.pid}/fd")) < 12, "no descriptor is left")
    assert page_of(front.get("/report.html"))[1] == b"page\n"


def test_programs_that_the_reader_has_started_end_with_it(setup):
    noted = setup.folder / "child"
    front = setup.start(f"""
        if (child := os.fork()) == 0:
            time.sleep(1000)
        with open({str(noted)!r} + ".new", "w") as file:
            file.write(str(child))
        os.rename({str(noted)!r} + ".new", {str(noted)!r})
        time.sleep(1000)
        """)
    with front.connect() as client:
        client.sendall(front.head("/report.html"))
        wait_for(noted.exists, "the reader has started a program")
    wait_for(lambda: process_stat(int(noted.read_text())) is None, "it has ended")


def test_signal_to_the_front_leaves_no_reader(setup):
    front = setup.start(WAIT)
    with front.connect() as client:
        client.sendall(front.head("/report.html"))
        (reader,) = wait_for(setup.readers, "the reader was started")
        front.process.terminate()
        assert front.process.wait(PATIENCE) == 0
        wait_for(lambda: process_stat(reader) is None, "the reader has ended")


def test_front_serves_others_while_reports_wait_and_has_a_limit(setup):
    stalled = Stalled(b"")
    setup.start(WAIT, None)
    # A daemon that takes each connection and answers none.
    kept = []
    setup.daemon = FakeDaemon(setup.socket_path, lambda _message, fd: kept.append(os.dup(fd)))
    front = setup.front
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(front.connect()) for _ in range(REPORTS_AT_ONCE + REPORTS_WAITING)]
        for number, client in enumerate(clients):
            client.sendall(front.head("/report.html"))
            wait_for(lambda: len(setup.daemon.messages) >= min(number + 1, REPORTS_AT_ONCE), "it was taken")
        wait_for(lambda: error_of(front.get("/report.html"))[0] == 503, "a further one is refused")
        assert front.get("/").startswith(b"HTTP/1.0 200 OK\r\n")
    for fd in kept:
        os.close(fd)
    stalled.may_end.set()
    wait_for(setup.is_idle, "everything ended")


# Reports that were made before.


def test_report_can_be_opened_again_under_the_name_in_its_answer(setup):
    front = setup.start(ECHO)
    fields, page = page_of(front.get("/report.html"))
    place = fields["Content-Location"]
    assert place.startswith("/report.html?kept=")
    again_fields, again = page_of(front.get(place))
    assert again == page
    assert again_fields == fields
    assert len(setup.daemon.messages) == 1


def test_only_the_latest_reports_are_kept(setup):
    front = setup.start(ECHO)
    places = [page_of(front.get("/report.html"))[0]["Content-Location"] for _ in range(4)]
    assert len(set(places)) == 4
    assert error_of(front.get(places[0]))[0] == 404
    for place in places[1:]:
        page_of(front.get(place))
    assert error_of(front.get("/report.html?kept="))[0] == 404
    assert len(setup.daemon.messages) == 4


def test_pages_of_other_sites_cannot_embed_a_report(setup):
    front = setup.start(ECHO)
    fields = "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: no-cors\r\n"
    assert error_of(front.get("/report.html", fields=fields))[0] == 403
    assert setup.daemon.messages == []


def test_several_reports_are_made_at_the_same_time_if_the_daemon_makes_several_archives(setup):
    front = setup.start(ECHO)
    with concurrent.futures.ThreadPoolExecutor(REPORTS_AT_ONCE) as pool:
        answers = list(pool.map(lambda _number: front.get("/report.html"), range(REPORTS_AT_ONCE)))
    assert {page_of(answer)[1] for answer in answers} == {b"--html - -" + ARCHIVE}
