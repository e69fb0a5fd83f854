"""coredump-handler from outside: a core on its standard input, the daemon's socket and a real FTP server."""

import contextlib
import os
import pathlib
import random
import re
import socket
import subprocess
import threading
import time

import pytest

from ftp_server import PASSWORD, FtpServer
from zarvo_e2e import BIN, CORE_HEAD, PATIENCE, SANITIZE, SEGFAULT_SOCKET, Log

NEEDS_SANDBOX = True

HANDLER = str(BIN / "coredump-handler")
CONFIG = pathlib.Path("/etc/conf.d/debugar.cgi")
PROGRAM = ["4096", "!usr!bin!app", "app"]
CORE = b"\x7fELF" + random.Random(4).randbytes(300_000)
ERROR, WARNING, INFO = 11, 12, 14
BIG = 2**31 + 12_345
MEGABYTE_KB = 1024


@pytest.fixture(autouse=True)
def clean(here):
    """Neither a configuration nor a daemon's socket is left over from another test."""
    CONFIG.unlink(missing_ok=True)
    pathlib.Path(SEGFAULT_SOCKET).unlink(missing_ok=True)


class Download:
    """A browser that waits for a core and reads it as it comes."""

    def __init__(self, daemon):
        self.browser = daemon.wait_as()
        self.thread = threading.Thread(target=self._read)
        self.thread.start()

    def _read(self):
        self.got = self.browser.read_all()

    def whole(self):
        self.thread.join()
        return self.got


def logged(severity, text):
    return f"<{severity}>coredump-handler: {text}"


def start_handler(*arguments, stdin=subprocess.PIPE, before=(), **popen):
    popen = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE} | popen
    return subprocess.Popen([*before, HANDLER, *arguments], stdin=stdin, **popen)


def handle(*arguments, core=CORE, **popen):
    """Runs the handler on `core`; (exit status, what it wrote on its standard streams)."""
    process = start_handler(*arguments, **popen)
    out, err = process.communicate(core, PATIENCE)
    return process.returncode, out + err


# Arguments.


@pytest.mark.parametrize("words, complaint", [
    (["core", "4096"], "wrong number of arguments"),
    (["core", "4096", "!a"], "wrong number of arguments"),
    (["core", "4096", "!a", ""], "executable name argument missing"),
    (["core", "4096", "", "a"], "executable path argument missing"),
    (["core", "", "!a", "a"], "core file size argument missing"),
    (["core", "12k", "!a", "a"], "core file size limit parsing error"),
    (["core", "18446744073709551616", "!a", "a"], "core file size limit parsing error"),
])  # fmt: skip
def test_wrong_arguments_are_logged(words, complaint):
    log = Log()
    assert handle(*words) == (1, b"")
    assert log.wait(1) == [logged(ERROR, complaint)]


@pytest.mark.parametrize("limit", ["0", "1", "4095"])
def test_core_below_a_page_is_dropped_unread(limit):
    log = Log()
    reading, writing = os.pipe()
    with os.fdopen(reading, "rb") as kept, os.fdopen(writing, "wb") as core:
        core.write(b"core")
        core.flush()
        process = start_handler("core.app.7", limit, "!usr!bin!app", "app", stdin=kept)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
        assert process.returncode == 0
        core.close()
        assert kept.read() == b"core"
    assert log.wait(1) == [logged(INFO, "core dumps disabled for '/usr/bin/app/app'")]


# To the daemon.


@pytest.mark.parametrize("words", [
    [], ["core.7"], ["core.7", *PROGRAM], ["core.7", "-1", *PROGRAM[1:]],
    ["core.7", "18446744073709551615", *PROGRAM[1:]], ["a/../b 'c' \"%d\"", *PROGRAM, "more"],
])  # fmt: skip
def test_core_reaches_the_waiting_browser(daemon, words):
    log = Log()
    browser = Download(daemon)
    assert handle(*words) == (0, b"")
    assert browser.whole() == CORE_HEAD + CORE
    assert [line for line in log.lines() if "coredump-handler" in line] == []


def test_hand_over_takes_no_fixed_time(daemon):
    fastest = PATIENCE
    for _ in range(3):
        browser = Download(daemon)
        began = time.monotonic()
        assert handle("core", *PROGRAM) == (0, b"")
        fastest = min(fastest, time.monotonic() - began)
        assert browser.whole() == CORE_HEAD + CORE
    assert fastest < 4


def test_empty_core_is_an_empty_download(daemon):
    browser = Download(daemon)
    assert handle("core", *PROGRAM, core=b"") == (0, b"")
    assert browser.whole() == CORE_HEAD


def test_without_a_waiting_browser_the_core_is_dropped(daemon):
    assert handle("core", *PROGRAM) == (0, b"")
    browser = Download(daemon)
    assert handle("core", *PROGRAM, core=b"the next") == (0, b"")
    assert browser.whole() == CORE_HEAD + b"the next"


@pytest.mark.parametrize("config", [
    "", "CoreHandler = CGI\n", "CoreHandler = ftp\n[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n",
    "[CoreHandlerFtp]\nTargetURL = ftp://127.0.0.1:1\n", "\0\xff[[=\n",
])  # fmt: skip
def test_configuration_without_ftp_means_the_daemon(daemon, config):
    CONFIG.write_text(config)
    browser = Download(daemon)
    assert handle("core", *PROGRAM) == (0, b"")
    assert browser.whole() == CORE_HEAD + CORE


def test_without_a_daemon_it_says_so_and_fails():
    assert handle("core", *PROGRAM) == (1, f"connect to {SEGFAULT_SOCKET} failed\n".encode())


def test_as_the_kernel_starts_it_only_standard_input_is_open(daemon):
    browser = Download(daemon)
    words = ["/bin/sh", "-c", 'exec "$@" >&- 2>&-', "sh"]
    assert handle("core", *PROGRAM, before=words) == (0, b"")
    assert browser.whole() == CORE_HEAD + CORE


def test_core_that_cannot_be_read_is_not_begun(daemon):
    log = Log()
    browser = daemon.wait_as()
    with open("/dev/null", "wb") as wrong:
        assert start_handler("core", stdin=wrong).wait(PATIENCE) == 1
    assert browser.is_silent()
    assert log.wait(1) == [logged(ERROR, "no core on standard input: Bad file descriptor")]


@contextlib.contextmanager
def fake_daemon():
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(SEGFAULT_SOCKET)
        listener.listen(2)
        listener.settimeout(PATIENCE)
        yield listener


def accept(listener):
    connection = listener.accept()[0]
    connection.settimeout(PATIENCE)
    return connection


def read_to_end(connection, count=0):
    while got := connection.recv(1 << 20):
        count += len(got)
    return count


def test_daemon_that_never_answers_holds_it_for_5_seconds():
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM)
        process.stdin.write(b"fits into the socket")
        process.stdin.close()
        with accept(listener):
            began = time.monotonic()
            assert process.wait(PATIENCE) == 0
            assert 3 < time.monotonic() - began < 20
        process.stdout.close()
        process.stderr.close()


def test_daemon_that_dies_half_way_ends_it():
    with fake_daemon() as listener, open("/dev/zero", "rb") as endless:
        process = start_handler("core", *PROGRAM, stdin=endless)
        with accept(listener) as connection:
            assert connection.recv(100_000)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
        assert process.returncode == 0


def test_daemon_sees_the_end_of_the_core_at_once():
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM)
        process.stdin.write(b"core")
        process.stdin.close()
        with accept(listener) as connection:
            assert read_to_end(connection) == 4
            assert process.poll() is None
            connection.sendall(b"thank you very much")
            assert process.wait(PATIENCE) == 0
        process.stdout.close()
        process.stderr.close()


def most_memory_kb(pid):
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+) kB$", text, re.MULTILINE)[1])


@pytest.fixture
def big_core(tmp_path):
    """A file of more than 2 GB that takes no room."""
    path = tmp_path / "big"
    with open(path, "wb") as file:
        file.truncate(BIG)
    with open(path, "rb") as file:
        yield file


def test_core_of_2_gigabytes_takes_no_more_memory_than_a_small_one(big_core, record_property):
    with fake_daemon() as listener:
        process = start_handler("core", *PROGRAM, stdin=big_core)
        with accept(listener) as connection:
            assert read_to_end(connection) == BIG
            used = most_memory_kb(process.pid)
            loaded = pathlib.Path(f"/proc/{process.pid}/maps").read_text()
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert "libcurl" not in loaded
    record_property("forward_kb", used)
    if not SANITIZE:
        assert used < 6 * MEGABYTE_KB


# To an FTP server.


@pytest.fixture
def ftp(tmp_path):
    """Starts FTP servers; arguments as for FtpServer."""
    pytest.importorskip("pyftpdlib", reason="needs python3-pyftpdlib")
    started = []

    def start(**behaviour):
        started.append(FtpServer(tmp_path / f"ftp{len(started)}", **behaviour))
        return started[-1]

    yield start
    for server in started:
        server.stop()


def configure(url, path="/dumps", **more):
    lines = ["[General]", "CoreHandler = FTP", "[CoreHandlerFtp]"]
    lines += [f"TargetURL = {url}"] if url is not None else []
    lines += [f"TargetPath = {path}"] if path is not None else []
    lines += [f"{key} = {value}" for key, value in more.items()]
    CONFIG.write_text("\n".join(lines) + "\n")


@pytest.mark.parametrize("core", [b"", b"x", CORE], ids=["empty", "one", "many"])
def test_core_is_stored_under_its_name(ftp, core):
    log = Log()
    server = ftp()
    configure(server.url)
    assert handle("core.app.7", *PROGRAM, core=core) == (0, b"")
    assert server.files() == {"dumps/core.app.7": core}
    said = ["CWD dumps", "STOR core.app.7", "RNFR /dumps/core.app.7"]
    assert server.commands("CWD", "STOR", "RNFR", "RNTO") == said
    assert log.lines() == []


@pytest.mark.parametrize("name", [
    "with blanks  in it", "quo'tes\"", "100%", "50%41", "%2e%2e%2fx", "a#b?c;type=a", "back\\slash",
    "br[ack]{ets}", "gr\u00fc\u00dfe", "~home", "-dash", "core:app@host&x=y", "n" * 200, "trailing ",
])  # fmt: skip
def test_odd_names_arrive_as_they_were_given(ftp, name):
    server = ftp()
    configure(server.url)
    assert handle(name, *PROGRAM) == (0, b"")
    assert server.files() == {f"dumps/{name}": CORE}
    assert server.commands("RNFR") == [f"RNFR /dumps/{name}"]


def test_slashes_of_a_name_are_folders_of_the_server(ftp):
    server = ftp()
    (server.home / "dumps/sub").mkdir()
    configure(server.url)
    assert handle("sub/core", *PROGRAM) == (0, b"")
    assert handle("../core", *PROGRAM) == (0, b"")
    assert server.files() == {"dumps/sub/core": CORE, "core": CORE}
    assert server.commands("RNFR") == ["RNFR /dumps/sub/core", "RNFR /dumps/../core"]


@pytest.mark.parametrize("name", ["missing/core", "..", ".", ""])
def test_names_that_cannot_be_stored_fail(ftp, name):
    server = ftp()
    configure(server.url)
    assert handle(name, *PROGRAM) == (1, b"")
    assert server.files() == {}


def test_name_cannot_hold_further_commands(ftp):
    log = Log()
    server = ftp()
    configure(server.url)
    assert handle("x\r\nDELE y", *PROGRAM) == (1, b"")
    assert server.lines == []
    assert log.wait(1) == [logged(ERROR, "core not uploaded: its name has control characters")]


def test_without_a_name_it_is_core_core(ftp):
    server = ftp()
    configure(server.url)
    assert handle() == (0, b"")
    assert server.files() == {"dumps/core.core": CORE}


def test_missing_path_is_the_login_folder(ftp):
    server = ftp()
    configure(server.url, path=None)
    assert handle("core.7") == (0, b"")
    assert server.files() == {"core.7": CORE}
    assert server.commands("RNFR") == ["RNFR /core.7"]


def test_path_is_part_of_the_url_as_it_stands(ftp):
    server = ftp()
    (server.home / "my 50% dumps").mkdir()
    configure(server.url, path="/my%2050%25%20dumps")
    assert handle("core 7") == (1, b""), "the server knows no such name to rename, and that counts"
    assert server.files() == {"my 50% dumps/core 7": CORE}
    assert server.commands("RNFR") == ["RNFR /my%2050%25%20dumps/core 7"]


def test_handler_that_only_begins_with_ftp_uploads_too(ftp):
    server = ftp()
    lines = ["CoreHandler=FTPS", "[CoreHandlerFtp]", "TargetURL=ftp://x", f"TargetURL={server.url}",
             "TargetPath=/dumps"]    # fmt: skip
    CONFIG.write_bytes("\r\n".join(lines).encode())
    assert handle("core.7") == (0, b"")
    assert server.files() == {"dumps/core.7": CORE}


def test_upload_needs_no_daemon_and_a_failed_one_does_not_turn_to_it(daemon, ftp):
    server = ftp()
    browser = daemon.wait_as()
    configure(server.url.replace(PASSWORD, "wrong"))
    assert handle("core.7") == (1, b"")
    assert browser.is_silent()


@pytest.mark.parametrize("behaviour", [
    {"permissions": "el"}, {"drop_data": True}, {"refuse_rename": True},
], ids=["store refused", "data connection dropped", "rename refused"])  # fmt: skip
def test_refusing_server_is_a_failure_with_a_reason(ftp, behaviour):
    log = Log()
    server = ftp(**behaviour)
    configure(server.url)
    assert handle("core.7", *PROGRAM) == (1, b"")
    (line,) = log.wait(1)
    assert re.fullmatch(re.escape(logged(ERROR, "core not uploaded: ")) + r".{5,}", line)


def test_refused_login_and_missing_server_are_failures(ftp):
    log = Log()
    server = ftp()
    configure(server.url.replace(PASSWORD, "wrong"))
    assert handle("core.7") == (1, b"")
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        configure(f"ftp://127.0.0.1:{unused.getsockname()[1]}")
        assert handle("core.7") == (1, b"")
    assert len(log.wait(2)) == 2
    assert server.files() == {}


def test_stalling_server_truncates_the_core_when_the_time_is_up(ftp):
    log = Log()
    server = ftp(stall=True)
    configure(server.url, Timeout=1)
    with open("/dev/zero", "rb") as endless:
        process = start_handler("core.7", *PROGRAM, stdin=endless)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == 1
    assert log.wait(1) == [logged(WARNING, "coredump truncated.")]


def test_server_that_says_nothing_is_bounded_by_the_time_limit():
    log = Log()
    with socket.socket() as silent:
        silent.bind(("127.0.0.1", 0))
        silent.listen(1)
        configure(f"ftp://127.0.0.1:{silent.getsockname()[1]}", Timeout=1)
        assert handle("core.7") == (1, b"")
    assert log.wait(1) == [logged(WARNING, "coredump truncated.")]


@pytest.mark.parametrize("timeout", ["-1", "9999999999999999999"])
def test_time_limit_that_makes_no_sense_is_a_failure(ftp, timeout):
    server = ftp()
    configure(server.url, Timeout=timeout)
    assert handle("core.7") == (1, b"")
    assert server.lines == []


def test_without_a_url_it_fails_in_one_line():
    log = Log()
    configure(None)
    assert handle("core.7") == (1, b"")
    assert log.wait(1) == [logged(ERROR, f"core not uploaded: {CONFIG} has no TargetURL")]


@pytest.fixture
def no_libcurl(tmp_path):
    """An environment in which the loader finds no usable libcurl."""
    folder = tmp_path / "libraries"
    folder.mkdir()
    (folder / "libcurl.so.4").write_bytes(b"")
    return dict(os.environ, LD_LIBRARY_PATH=str(folder))


def test_upload_without_libcurl_fails_in_one_line(ftp, no_libcurl):
    log = Log()
    server = ftp()
    configure(server.url)
    assert handle("core.7", env=no_libcurl) == (1, b"")
    (line,) = log.wait(1)
    assert line.startswith(logged(ERROR, "core not uploaded: ")) and "libcurl.so.4" in line
    assert server.lines == []


def test_forwarding_needs_no_libcurl(daemon, no_libcurl):
    browser = Download(daemon)
    assert handle("core.7", env=no_libcurl) == (0, b"")
    assert browser.whole() == CORE_HEAD + CORE


def test_upload_of_2_gigabytes_takes_no_more_memory_than_a_small_one(ftp, big_core, record_property):
    server = ftp()
    os.mkfifo(server.home / "dumps/core.7")    # the server writes into it what it gets
    stored = []

    def drain():
        with open(server.home / "dumps/core.7", "rb") as end:
            stored.append(sum(iter(lambda: len(end.read(1 << 20)), 0)))

    reader = threading.Thread(target=drain)
    reader.start()
    configure(server.url)
    used = []
    process = start_handler("core.7", *PROGRAM, stdin=big_core)
    server.at_rename = lambda: used.append(most_memory_kb(process.pid))
    assert process.communicate(timeout=600) == (b"", b"")
    reader.join(PATIENCE)
    assert (process.returncode, stored) == (0, [BIG])
    record_property("upload_kb", used[0])
    if not SANITIZE:
        assert used[0] < 16 * MEGABYTE_KB
