"""The waiting browser: it gets the next core, or a stored dump."""

import os
import pathlib
import random

import pytest

from support.answers import BAD_REQUEST, CORE_HEAD, download_head
from support.connections import SMALL_BUFFER
from support.system_log import Log, log_error, log_info
from support.waiting import wait_for

NEEDS_SANDBOX = True

DEFAULT_DIRS = [
    "/var/spool/storage/SD_DISK/dumps",
    "/var/spool/storage/HDD_DISK/dumps",
    "/var/spool/storage/RAID_DISK/dumps",
    "/var/volatile/tmp/dumps",
]


def dump_head(name):
    return download_head("application/octet-stream", name)


@pytest.fixture
def dumps(tmp_path):
    folder = tmp_path / "dumps"
    folder.mkdir()
    return folder


def checked_and_empty(daemon, folder):
    return [log_info(daemon.pid, f"Check dir: {folder}"), log_info(daemon.pid, "Dump dir empty")]


def checked_and_failed(daemon, folder, name):
    failed = f"Failed to send dump: {name}"
    return [log_info(daemon.pid, f"Check dir: {folder}"), log_error(daemon.pid, failed)]


# Push.


@pytest.mark.parametrize("size", [0, 1, 2047, 2048, 2049, 3_000_001])
def test_pushed_core_reaches_the_waiting_browser_byte_for_byte(daemon, size):
    core = random.Random(size).randbytes(size)
    browser = daemon.waiting_browser()
    if size < 10_000:
        assert daemon.push(core) == b""
        assert browser.read_all() == CORE_HEAD + core
        return
    if (pid := os.fork()) == 0:
        daemon.push(core)
        os._exit(0)
    assert browser.read_all() == CORE_HEAD + core
    assert os.waitpid(pid, 0)[1] == 0


@pytest.mark.parametrize("query", [b"listen", b"listening", b"cmd=coredump"])
def test_every_way_of_waiting_gets_the_core(daemon, query):
    browser = daemon.waiting_browser(b"/x/anything", query)
    assert browser.is_silent()
    assert daemon.push(b"core") == b""
    assert browser.read_all() == CORE_HEAD + b"core"


def test_core_is_dropped_if_no_browser_waits(daemon):
    idle = daemon.idle_state()
    assert daemon.push(b"x" * 100_000) == b""
    assert daemon.push(b"") == b""
    daemon.sync()
    daemon.wait_until_idle(idle)


def test_browser_gets_only_one_core(daemon):
    browser = daemon.waiting_browser()
    daemon.push(b"first")
    daemon.push(b"second")
    assert browser.read_all() == CORE_HEAD + b"first"


def test_core_is_dropped_if_the_waiting_browser_is_gone(daemon):
    idle = daemon.idle_state()
    daemon.waiting_browser().close()
    assert daemon.push(b"x" * 100_000) == b""
    daemon.sync()
    daemon.wait_until_idle(idle)


@pytest.mark.parametrize("query", [b"listen", b"cmd=coredump"])
def test_next_waiting_browser_replaces_the_first(daemon, query):
    first = daemon.waiting_browser()
    second = daemon.waiting_browser(query=query)
    assert first.read_all() == b""
    daemon.push(b"core")
    assert second.read_all() == CORE_HEAD + b"core"


def test_other_requests_do_not_disturb_the_waiting_browser(daemon):
    browser = daemon.waiting_browser()
    daemon.answer(b"/x", b"cmd=ps")
    daemon.answer(b"/x/debug.tar")
    assert browser.is_silent()
    daemon.push(b"core")
    assert browser.read_all() == CORE_HEAD + b"core"


# Pop.


def test_pop_delivers_a_dump_under_its_name_and_deletes_it(start, dumps):
    daemon = start("-k", dumps)
    content = bytes(range(256)) * 20
    (dumps / "core.413").write_bytes(content)
    log = Log()
    assert daemon.answer(b"/x/core", b"pop") == dump_head("core.413") + content
    assert log.wait(2) == checked_and_empty(daemon, dumps)
    assert os.listdir(dumps) == []


def test_each_pop_delivers_one_dump_and_the_last_is_logged(start, dumps):
    daemon = start("-k", dumps)
    contents = {"one": b"1" * 5000, "two": b"2" * 10}
    for name, content in contents.items():
        (dumps / name).write_bytes(content)
    first, second = os.listdir(dumps)
    log = Log()
    assert daemon.answer(b"/x", b"pop") == dump_head(first) + contents[first]
    wait_for(lambda: os.listdir(dumps) == [second], lambda: os.listdir(dumps))
    assert daemon.answer(b"/x", b"popular") == dump_head(second) + contents[second]
    check = log_info(daemon.pid, f"Check dir: {dumps}")
    assert log.wait(3) == [check, check, log_info(daemon.pid, "Dump dir empty")]
    assert os.listdir(dumps) == []


def test_pop_of_an_empty_folder_closes_the_connection(start, dumps):
    daemon = start("-k", dumps)
    log = Log()
    assert daemon.answer(b"/x", b"pop") == b""
    assert log.wait(2) == checked_and_empty(daemon, dumps)


def test_missing_folder_of_an_option_is_logged_and_no_default_is_tried(start):
    os.makedirs(DEFAULT_DIRS[0], exist_ok=True)
    dump = pathlib.Path(DEFAULT_DIRS[0], "stays")
    dump.write_bytes(b"dump")
    daemon = start("-k", "/nonexistent")
    log = Log()
    assert daemon.answer(b"/x", b"pop") == b""
    assert daemon.answer(b"/x", b"pop") == b""
    assert log.wait(2) == [log_info(daemon.pid, "No dump dir")] * 2
    assert dump.read_bytes() == b"dump"
    dump.unlink()
    os.rmdir(DEFAULT_DIRS[0])


def test_default_folders_are_tried_in_order(daemon):
    log = Log()
    assert daemon.answer(b"/x", b"pop") == b""
    assert log.wait(1) == [log_info(daemon.pid, "No dump dir")]
    for folder in reversed(DEFAULT_DIRS):
        os.makedirs(folder)
        name = folder.split("/")[-2]
        pathlib.Path(folder, name).write_bytes(folder.encode())
        log = Log()
        assert daemon.answer(b"/x", b"pop") == dump_head(name) + folder.encode()
        assert log.wait(2) == checked_and_empty(daemon, folder)
    for folder in DEFAULT_DIRS:
        os.rmdir(folder)


def test_dump_that_cannot_be_sent_is_kept_and_logged(start, dumps):
    daemon = start("-k", dumps)
    (dumps / "kept").write_bytes(b"dump" * 100_000)
    log = Log()
    browser = daemon.ask(b"/x", b"pop", buffer_size=SMALL_BUFFER)
    browser.read(10)
    browser.close()
    expected = checked_and_failed(daemon, dumps, "kept")
    assert log.wait(2) == expected
    assert os.listdir(dumps) == ["kept"]


def test_folder_among_the_dumps_is_not_deleted(start, dumps):
    daemon = start("-k", dumps)
    (dumps / "folder").mkdir()
    log = Log()
    assert daemon.answer(b"/x", b"pop") == dump_head("folder")
    failed = checked_and_failed(daemon, dumps, "folder")
    assert log.wait(2) == failed
    assert os.listdir(dumps) == ["folder"]


def test_dump_that_cannot_be_opened_is_reported_on_standard_error(start, dumps):
    daemon = start("-k", dumps)
    (dumps / "dangling").symlink_to("/nonexistent")
    assert daemon.answer(b"/x", b"pop") == b""
    assert daemon.said().splitlines()[-1] == "check_dumps: No such file or directory"


def test_quotes_and_control_characters_in_a_name_are_replaced_in_the_head(start, dumps):
    daemon = start("-k", dumps)
    (dumps / 'a"b\r\nc\x7fd').write_bytes(b"dump")
    assert daemon.answer(b"/x", b"pop") == dump_head("a_b__c_d") + b"dump"


def test_listen_after_pop_is_not_served_from_the_folder(start, dumps):
    daemon = start("-k", dumps)
    (dumps / "dump").write_bytes(b"dump")
    assert daemon.answer(b"/x", b"pop") == dump_head("dump") + b"dump"
    (dumps / "dump").write_bytes(b"dump")
    browser = daemon.waiting_browser()
    assert browser.is_silent()
    daemon.push(b"pushed")
    assert browser.read_all() == CORE_HEAD + b"pushed"


def test_requests_after_a_pop_repeat_it_and_keep_a_dump_without_a_browser(start, dumps):
    daemon = start("-k", dumps)
    log = Log()
    assert daemon.answer(b"/x", b"pop") == b""
    log.wait(2)  # lines reach the file some time after they are logged
    (dumps / "dump").write_bytes(b"dump")
    log = Log()
    assert daemon.answer(b"/x", b"cmd=none") == BAD_REQUEST
    failed = checked_and_failed(daemon, dumps, "dump")
    assert log.wait(2) == failed
    assert os.listdir(dumps) == ["dump"]


def test_coredump_request_after_pop_is_served_from_the_folder(start, dumps):
    daemon = start("-k", dumps)
    assert daemon.answer(b"/x", b"pop") == b""
    (dumps / "dump").write_bytes(b"dump")
    assert daemon.answer(b"/x", b"cmd=coredump") == dump_head("dump") + b"dump"


def test_pops_leave_no_descriptor_open(start, dumps):
    daemon = start("-k", dumps)
    idle = daemon.idle_state()
    for number in range(30):
        (dumps / f"dump{number}").write_bytes(b"dump")
        assert daemon.answer(b"/x", b"pop").endswith(b"dump")
    daemon.wait_until_idle(idle)
    wait_for(lambda: os.listdir(dumps) == [], lambda: os.listdir(dumps))
