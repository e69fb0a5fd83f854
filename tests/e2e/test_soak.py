"""Two thousand mixed requests from several clients at once, after which the daemon is as it was."""

import collections
import random
import threading
import time

from zarvo_e2e import (
    BAD_REQUEST, BUSY_PAGE, COMPRESSED_HEAD, CORE_HEAD, OFF, ON, PATIENCE, PLAIN_HEAD, PS_HEAD,
    SANITIZE, SERVER_ERROR, Browser, assert_compressed_whole, assert_whole, body_of, send_message,
    temporary_leftovers,
)  # fmt: skip

NEEDS_SANDBOX = True

SEED = 2000
CLIENTS = 4
REQUESTS = 2000
WARM_UP = 400
# How many of each; "bad command" makes up the number.
SHARES = {
    "no slash": 0.13, "no zero byte": 0.1, "no descriptor": 0.08, "two descriptors": 0.08,
    "gone before": 0.07, "waiting": 0.1, "push": 0.05, "long": 0.03, "ps": 0.03,
}  # fmt: skip
ARCHIVES = 40                       # half of them read to the end, half left
ARCHIVE_TIME = 30                   # seconds for all of them together: where each takes long, fewer are made
# The C library keeps the threads' arenas, and which of them a thread uses differs from run to run. Sanitizers
# keep freed memory for a while and a shadow of all that was ever used.
GROWTH_KB = 16384 if SANITIZE else 512
ROOM = 4096


class Client:
    """Makes its share of the requests, in an order of its own, and remembers what went wrong."""

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
        """Ends with a core of another client's, or unanswered when one waits after it."""
        browser = self.daemon.wait_as(query=self.rng.choice([b"listen", b"cmd=coredump"]))
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
        """An archive as soon as it is not another's turn; only one client makes them."""
        path = b"/x/debug.tgz" if compressed else b"/x/debug.tar"
        end = time.monotonic() + PATIENCE
        while True:
            browser = self.daemon.ask(path, **kind)
            head = browser.read(len(COMPRESSED_HEAD))
            if not BUSY_PAGE.startswith(head):
                assert head == (COMPRESSED_HEAD if compressed else PLAIN_HEAD)
                return browser
            browser.close()
            assert time.monotonic() < end
            time.sleep(0.02)

    def whole_archive(self):
        compressed = self.rng.random() < 0.5
        (assert_compressed_whole if compressed else assert_whole)(self.begin_archive(compressed).read_all())

    def aborted_archive(self):
        browser = self.begin_archive(self.rng.random() < 0.5, room=ROOM)
        browser.read(self.rng.randint(0, 60_000))
        browser.close()


def mixture(total, archives):
    """What `total` requests are, as a list for each client; the first client makes the archives."""
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
    daemon.push(b"")  # lets go of a browser that still waits
    daemon.sync()


def affordable_archives(daemon):
    begin = time.monotonic()
    assert_compressed_whole(body_of(daemon.answer(b"/x/debug.tgz"), COMPRESSED_HEAD))
    return max(4, min(ARCHIVES, int(ARCHIVE_TIME / (time.monotonic() - begin))))


def test_daemon_is_as_it_was_after_two_thousand_mixed_requests(daemon, record_property):
    archives = affordable_archives(daemon)
    run(daemon, WARM_UP, min(archives, 8))
    rest = daemon.rest()
    resident = daemon.resident_kb()
    run(daemon, REQUESTS, archives)
    daemon.wait_for_rest(rest)
    grown = daemon.resident_kb() - resident
    record_property("archives", archives)
    record_property("resident_kb", resident)
    record_property("grown_kb", grown)
    assert grown <= GROWTH_KB
    switches = daemon.switches()
    assert switches == (OFF + ON) * (len(switches) // len(OFF + ON))
    assert temporary_leftovers() == []
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
