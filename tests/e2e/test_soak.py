"""Two thousand mixed requests from several clients at once. Afterwards the daemon is as before."""

import collections
import random
import threading
import time

from support.answers import (
    BAD_REQUEST, BUSY_PAGE, COMPRESSED_HEAD, CORE_HEAD, PLAIN_HEAD, PS_HEAD, SERVER_ERROR, body_of,
)  # fmt: skip
from support.archives import assert_compressed_whole, assert_whole
from support.connections import SMALL_BUFFER, Browser, send_message
from support.daemon import OFF, ON, temporary_leftovers
from support.under_test import SANITIZE
from support.waiting import wait_for

NEEDS_SANDBOX = True

SEED = 2000
CLIENTS = 4
REQUESTS = 2000
WARM_UP = 400
# The share of each kind; the rest are "bad command".
SHARES = {
    "no slash": 0.13, "no zero byte": 0.1, "no descriptor": 0.08, "two descriptors": 0.08,
    "gone before": 0.07, "waiting": 0.1, "push": 0.05, "long": 0.03, "ps": 0.03,
}  # fmt: skip
ARCHIVES = 40  # half of them are read to the end, half are left
ARCHIVE_TIME = 30  # seconds for all of them; on a slow machine, fewer are made
# The C library keeps the arenas of the threads, and the arenas that are used differ between runs. Sanitizers
# keep freed memory for a while, and shadow memory for all addresses that were ever used.
GROWTH_KB = 16384 if SANITIZE else 512


class Client:
    """Makes its share of the requests in a random order, and keeps the first error."""

    def __init__(self, daemon, work, seed):
        self.daemon = daemon
        self.rng = random.Random(seed)
        self.work = list(work)
        self.rng.shuffle(self.work)
        self.thread = threading.Thread(target=self.run)
        self.done = collections.Counter()
        self.error = None

    def run(self):
        try:
            for kind in self.work:
                getattr(self, kind.replace(" ", "_"))()
                self.done[kind] += 1
        except BaseException as error:
            self.error = error

    def send(self, message, browsers):
        send_message(self.daemon.cgi_socket, message, [browser.far.fileno() for browser in browsers]).close()
        for browser in browsers:
            browser.far.close()

    def bad_command(self):
        assert self.daemon.answer(b"/x", b"cmd=" + bytes(self.rng.choices(b"abc%+\xff", k=9))) == BAD_REQUEST

    def no_slash(self):
        assert self.daemon.answer(b"path") == SERVER_ERROR

    def no_zero_byte(self):
        assert self.daemon.ask_raw(b"/x/debug.tgz").read_all() == SERVER_ERROR

    def no_descriptor(self):
        self.send(b"/x\0cmd=none", [])

    def two_descriptors(self):
        browsers = [Browser(), Browser()]
        self.send(b"/x\0cmd=none", browsers)
        assert [browser.read_all() for browser in browsers] == [b"", b""]

    def gone_before(self):
        browser = Browser()
        browser.near.close()
        self.send(b"/x\0cmd=none", [browser])

    def waiting(self):
        """Gets a core from any client, or nothing if another browser replaces it."""
        browser = self.daemon.waiting_browser(query=self.rng.choice([b"listen", b"cmd=coredump"]))
        if self.rng.random() < 0.2:
            browser.close()
            return
        self.daemon.push(b"core")
        answer = browser.read_all()
        assert answer in (b"", CORE_HEAD + b"core", CORE_HEAD), answer

    def push(self):
        self.daemon.push(b"")

    def long(self):
        assert self.daemon.answer(b"/x", b"cmd=" + b"l" * self.rng.randint(4000, 9000)) == BAD_REQUEST

    def ps(self):
        assert body_of(self.daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""

    def begin_archive(self, compressed, **kind):
        """Starts an archive when the previous one has ended. Only one client makes archives."""
        path = b"/x/debug.tgz" if compressed else b"/x/debug.tar"

        def begin():
            browser = self.daemon.ask(path, **kind)
            head = browser.read(len(COMPRESSED_HEAD))
            if BUSY_PAGE.startswith(head):
                browser.close()
                return None
            assert head == (COMPRESSED_HEAD if compressed else PLAIN_HEAD)
            return browser

        return wait_for(begin, "free for another archive")

    def whole_archive(self):
        compressed = self.rng.random() < 0.5
        (assert_compressed_whole if compressed else assert_whole)(self.begin_archive(compressed).read_all())

    def aborted_archive(self):
        browser = self.begin_archive(self.rng.random() < 0.5, buffer_size=SMALL_BUFFER)
        browser.read(self.rng.randint(0, 60_000))
        browser.close()


def mixture(total, archives):
    """The kinds of `total` requests, as a list for each client. The first client makes the archives."""
    quick = [kind for kind, share in SHARES.items() for _ in range(round(share * total))]
    work = ["whole archive", "aborted archive"] * (archives // 2)
    quick += ["bad command"] * (total - len(quick) - len(work))
    random.Random(SEED).shuffle(quick)
    others = [quick[number :: CLIENTS - 1] for number in range(CLIENTS - 1)]
    return [work, *others]


def run(daemon, total, archives):
    clients = [Client(daemon, work, SEED + number) for number, work in enumerate(mixture(total, archives))]
    for client in clients:
        client.thread.start()
    for client in clients:
        client.thread.join()
    failed = [client.error for client in clients if client.error]
    if failed:
        raise failed[0]
    assert sum((client.done for client in clients), collections.Counter()).total() == total
    daemon.push(b"")  # releases a browser that is still waiting
    daemon.sync()


def affordable_archives(daemon):
    begin = time.monotonic()
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))
    return max(4, min(ARCHIVES, int(ARCHIVE_TIME / (time.monotonic() - begin))))


def test_daemon_is_as_before_after_2000_mixed_requests(daemon, record_property):
    archives = affordable_archives(daemon)
    run(daemon, WARM_UP, min(archives, 8))
    idle = daemon.idle_state()
    resident = daemon.resident_kb()
    run(daemon, REQUESTS, archives)
    daemon.wait_until_idle(idle)
    grown = daemon.resident_kb() - resident
    record_property("archives", archives)
    record_property("resident_kb", resident)
    record_property("grown_kb", grown)
    assert grown <= GROWTH_KB
    switches = daemon.switches()
    assert switches == (OFF + ON) * (len(switches) // len(OFF + ON))
    assert temporary_leftovers() == []
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
