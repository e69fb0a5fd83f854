"""No descriptor reaches a child that has no business with it."""

import os
import pathlib
import threading

import pytest

from zarvo_e2e import (
    BUSY_PAGE, COMPRESSED_HEAD, CORE_HEAD, PLAIN_HEAD, PS_HEAD, assert_compressed_whole, assert_whole,
    body_of, children_of, descriptors_of, program_of, wait_for,
)  # fmt: skip

NEEDS_SANDBOX = True

ROOM = 4096
REPORT = pathlib.Path("/usr/sbin/gen_serverreport.sh")


@pytest.fixture
def slow_report(here, tmp_path):
    """The server report's program replaced by one that waits: opening the returned FIFO lets it go on."""
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    original = REPORT.read_bytes()
    replacement = REPORT.with_suffix(".new")
    replacement.write_text(f"#!/bin/sh\nread line < {fifo}\necho reported\n")
    replacement.chmod(0o755)
    replacement.rename(REPORT)
    yield fifo
    replacement.write_bytes(original)
    replacement.chmod(0o755)
    replacement.rename(REPORT)


def only_child(daemon):
    ((pid, _),) = wait_for(lambda: len(found := children_of(daemon.pid)) == 1 and found, "one child")
    return pid


def stalled_archive(daemon):
    """A compressed archive whose browser has read the head and no more."""
    browser = daemon.ask(b"/x/debug.tgz", room=ROOM)
    assert browser.read(len(COMPRESSED_HEAD)) == COMPRESSED_HEAD
    assert daemon.answer(b"/x/debug.tgz") == BUSY_PAGE
    return browser


def finish(browser):
    assert_compressed_whole(browser.read_all())


def test_compressor_holds_only_its_pipe_its_browser_and_standard_error(daemon):
    archive = stalled_archive(daemon)
    compressor = only_child(daemon)
    wait_for(lambda: set(descriptors_of(compressor)) == {0, 1, 2}, lambda: descriptors_of(compressor))
    links = descriptors_of(compressor)
    assert links[0].startswith("pipe:") and links[1].startswith("socket:") and links[2] == str(daemon.stderr)
    finish(archive)


def test_download_that_began_before_the_archive_ends_while_the_compressor_runs(daemon):
    waiting = daemon.wait_as()
    archive = stalled_archive(daemon)
    compressor = only_child(daemon)
    daemon.push(b"core")
    assert waiting.read_all() == CORE_HEAD + b"core"
    assert program_of(compressor) != "" and archive.near.fileno() >= 0
    assert daemon.answer(b"/x/debug.tgz") == BUSY_PAGE
    finish(archive)


def test_download_that_began_during_the_archive_ends_while_the_compressor_runs(daemon):
    archive = stalled_archive(daemon)
    compressor = only_child(daemon)
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert program_of(compressor) != ""
    assert daemon.answer(b"/x/debug.tgz") == BUSY_PAGE
    finish(archive)


def test_archive_itself_ends_for_its_browser_only_when_it_is_whole(daemon):
    archive = stalled_archive(daemon)
    waiting = daemon.wait_as()  # would keep nothing of the archive's open either
    finish(archive)
    waiting.close()


def test_report_program_holds_only_its_standard_streams(daemon, slow_report):
    waiting = daemon.wait_as()
    archive = daemon.ask(b"/x/debug.tar")
    answers = []
    reader = threading.Thread(target=lambda: answers.append(archive.read_all()))
    reader.start()
    reporter = wait_for(lambda: find_program(daemon, "sh"), "the report's program")
    wait_for(lambda: set(inherited_by(reporter)) == {0, 1, 2}, lambda: inherited_by(reporter))
    links = inherited_by(reporter)
    assert links[0] == "/dev/null"
    assert links[1] == links[2] and links[1].startswith("/tmp/.sreport") and links[1].endswith(" (deleted)")
    daemon.push(b"core")
    assert waiting.read_all() == CORE_HEAD + b"core"
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert program_of(reporter) != ""
    slow_report.write_text("go on\n")
    reader.join()
    members = assert_whole(body_of(answers[0], PLAIN_HEAD))
    assert [member.data for member in members if member.name == "serverreport.txt"] == [b"reported\n"]


def inherited_by(shell):
    """What a shell has open, without the script that it opened itself."""
    return {fd: link for fd, link in descriptors_of(shell).items() if link != str(REPORT)}


def find_program(daemon, name):
    """The child that runs the shell, found once it has replaced the daemon's image."""
    for pid, _ in children_of(daemon.pid):
        if os.path.basename(program_of(pid)) in (name, "dash", "bash"):
            return pid
    return None


def test_programs_get_an_empty_environment(start, slow_report):
    daemon = start(environment={"SECRET": "of the daemon"})
    archive = daemon.ask(b"/x/debug.tar")
    answers = []
    reader = threading.Thread(target=lambda: answers.append(archive.read_all()))
    reader.start()
    reporter = wait_for(lambda: find_program(daemon, "sh"), "the report's program")
    assert pathlib.Path(f"/proc/{reporter}/environ").read_bytes() == b""
    slow_report.write_text("go on\n")
    reader.join()
    assert_whole(body_of(answers[0], PLAIN_HEAD))
