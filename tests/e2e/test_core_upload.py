"""coredump-handler and a real FTP server."""

import os
import re
import socket
import threading

import pytest

from support.core_handler import BIG, CONFIG, CORE, ERROR, PROGRAM, WARNING, handle, logged, start_handler
from support.ftp_server import PASSWORD, FtpServer
from support.processes import status_kb
from support.system_log import Log
from support.under_test import SANITIZE
from support.waiting import PATIENCE

NEEDS_SANDBOX = True
pytest_plugins = ["core_handler_fixtures"]

MEMORY_LIMIT_KB = 16 * 1024
UPLOAD_LIMIT = 600  # seconds for the big core


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
def test_odd_names_arrive_unchanged(ftp, name):
    server = ftp()
    configure(server.url)
    assert handle(name, *PROGRAM) == (0, b"")
    assert server.files() == {f"dumps/{name}": CORE}
    assert server.commands("RNFR") == [f"RNFR /dumps/{name}"]


def test_slashes_in_a_name_separate_folders_of_the_server(ftp):
    server = ftp()
    (server.home / "dumps/sub").mkdir()
    configure(server.url)
    assert handle("sub/core", *PROGRAM) == (0, b"")
    assert handle("../core", *PROGRAM) == (0, b"")
    assert server.files() == {"dumps/sub/core": CORE, "core": CORE}
    assert server.commands("RNFR") == ["RNFR /dumps/sub/core", "RNFR /dumps/../core"]


@pytest.mark.parametrize("name", ["missing/core", "..", ".", ""])
def test_name_that_cannot_be_stored_fails(ftp, name):
    server = ftp()
    configure(server.url)
    assert handle(name, *PROGRAM) == (1, b"")
    assert server.files() == {}


def test_name_cannot_contain_further_commands(ftp):
    log = Log()
    server = ftp()
    configure(server.url)
    assert handle("x\r\nDELE y", *PROGRAM) == (1, b"")
    assert server.lines == []
    assert log.wait(1) == [logged(ERROR, "core not uploaded: its name has control characters")]


def test_default_name_is_core_core(ftp):
    server = ftp()
    configure(server.url)
    assert handle() == (0, b"")
    assert server.files() == {"dumps/core.core": CORE}


def test_default_path_is_the_login_folder(ftp):
    server = ftp()
    configure(server.url, path=None)
    assert handle("core.7") == (0, b"")
    assert server.files() == {"core.7": CORE}
    assert server.commands("RNFR") == ["RNFR /core.7"]


def test_path_is_copied_into_the_url_unchanged(ftp):
    server = ftp()
    (server.home / "my 50% dumps").mkdir()
    configure(server.url, path="/my%2050%25%20dumps")
    assert handle("core 7") == (1, b""), "the server has no file of that name to rename, so the upload fails"
    assert server.files() == {"my 50% dumps/core 7": CORE}
    assert server.commands("RNFR") == ["RNFR /my%2050%25%20dumps/core 7"]


def test_handler_name_needs_only_to_begin_with_ftp(ftp):
    server = ftp()
    lines = ["CoreHandler=FTPS", "[CoreHandlerFtp]", "TargetURL=ftp://x", f"TargetURL={server.url}",
             "TargetPath=/dumps"]    # fmt: skip
    CONFIG.write_bytes("\r\n".join(lines).encode())
    assert handle("core.7") == (0, b"")
    assert server.files() == {"dumps/core.7": CORE}


def test_core_of_a_failed_upload_does_not_go_to_the_daemon(daemon, ftp):
    server = ftp()
    browser = daemon.waiting_browser()
    configure(server.url.replace(PASSWORD, "wrong"))
    assert handle("core.7") == (1, b"")
    assert browser.is_silent()


@pytest.mark.parametrize("behaviour", [
    {"permissions": "el"}, {"drop_data": True}, {"refuse_rename": True},
], ids=["store refused", "data connection dropped", "rename refused"])  # fmt: skip
def test_refusal_by_the_server_is_logged_with_its_reason(ftp, behaviour):
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


def test_core_is_truncated_when_a_stalled_server_exceeds_the_time_limit(ftp):
    log = Log()
    server = ftp(stall=True)
    configure(server.url, Timeout=1)
    with open("/dev/zero", "rb") as endless:
        process = start_handler("core.7", *PROGRAM, stdin=endless)
        assert process.communicate(timeout=PATIENCE) == (b"", b"")
    assert process.returncode == 1
    assert log.wait(1) == [logged(WARNING, "coredump truncated.")]


def test_upload_to_a_silent_server_ends_at_the_time_limit():
    log = Log()
    with socket.socket() as silent:
        silent.bind(("127.0.0.1", 0))
        silent.listen(1)
        configure(f"ftp://127.0.0.1:{silent.getsockname()[1]}", Timeout=1)
        assert handle("core.7") == (1, b"")
    assert log.wait(1) == [logged(WARNING, "coredump truncated.")]


@pytest.mark.parametrize("timeout", ["-1", "9999999999999999999"])
def test_invalid_time_limit_is_a_failure(ftp, timeout):
    server = ftp()
    configure(server.url, Timeout=timeout)
    assert handle("core.7") == (1, b"")
    assert server.lines == []


def test_missing_url_is_logged_in_one_line():
    log = Log()
    configure(None)
    assert handle("core.7") == (1, b"")
    assert log.wait(1) == [logged(ERROR, f"core not uploaded: {CONFIG} has no TargetURL")]


def test_missing_libcurl_is_logged_in_one_line(ftp, no_libcurl):
    log = Log()
    server = ftp()
    configure(server.url)
    assert handle("core.7", env=no_libcurl) == (1, b"")
    (line,) = log.wait(1)
    assert line.startswith(logged(ERROR, "core not uploaded: ")) and "libcurl.so.4" in line
    assert server.lines == []


def test_upload_of_2_gigabytes_takes_no_more_memory_than_a_small_one(ftp, big_core, record_property):
    server = ftp()
    os.mkfifo(server.home / "dumps/core.7")  # the server writes the upload into it
    stored = []

    def drain():
        with open(server.home / "dumps/core.7", "rb") as end:
            stored.append(sum(iter(lambda: len(end.read(1 << 20)), 0)))

    reader = threading.Thread(target=drain)
    reader.start()
    configure(server.url)
    used = []
    process = start_handler("core.7", *PROGRAM, stdin=big_core)
    server.at_rename = lambda: used.append(status_kb(process.pid, "VmHWM"))
    assert process.communicate(timeout=UPLOAD_LIMIT) == (b"", b"")
    reader.join(PATIENCE)
    assert (process.returncode, stored) == (0, [BIG])
    record_property("upload_kb", used[0])
    if not SANITIZE:
        assert used[0] < MEMORY_LIMIT_KB
