"""Children of the daemon inherit only the descriptors that they need."""

import os
import pathlib
import threading

import pytest

from support.answers import BUSY_PAGE, COMPRESSED_HEAD, CORE_HEAD, PLAIN_HEAD, PS_HEAD, body_of
from support.archives import assert_compressed_whole, assert_whole
from support.connections import SMALL_BUFFER
from support.processes import children_of, descriptors_of, program_of
from support.waiting import wait_for

NEEDS_SANDBOX = True

REPORT = pathlib.Path("/usr/sbin/gen_serverreport.sh")


@pytest.fixture
def slow_report(clean_sandbox, tmp_path):
    """Replaces the server report's program by one that waits until a line is written to the returned FIFO."""
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
    """A compressed archive whose browser has read only the head."""
    browser = daemon.ask(b"/x/debug.tgz", buffer_size=SMALL_BUFFER)
    assert browser.read(len(COMPRESSED_HEAD)) == COMPRESSED_HEAD
    assert daemon.answer(b"/x/debug.tgz") == BUSY_PAGE
    return browser


def finish(browser):
    assert_compressed_whole(browser.read_all())


def test_compressor_has_only_its_pipe_its_browser_and_standard_error(daemon):
    archive = stalled_archive(daemon)
    compressor = only_child(daemon)
    wait_for(lambda: set(descriptors_of(compressor)) == {0, 1, 2}, lambda: descriptors_of(compressor))
    links = descriptors_of(compressor)
    assert links[0].startswith("pipe:") and links[1].startswith("socket:") and links[2] == str(daemon.stderr)
    finish(archive)


def test_download_that_began_before_the_archive_ends_while_the_compressor_runs(daemon):
    waiting = daemon.waiting_browser()
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


def test_waiting_browser_does_not_keep_an_archive_open(daemon):
    archive = stalled_archive(daemon)
    waiting = daemon.waiting_browser()  # it must not keep the archive's connection open either
    finish(archive)
    waiting.close()


def test_report_program_has_only_its_standard_streams(daemon, slow_report):
    waiting = daemon.waiting_browser()
    archive = daemon.ask(b"/x/debug.tar")
    answers = []
    reader = threading.Thread(target=lambda: answers.append(archive.read_all()))
    reader.start()
    reporter = wait_for(lambda: shell_of(daemon), "the report's program")
    wait_for(lambda: set(inherited_by(reporter)) == {0, 1, 2}, lambda: inherited_by(reporter))
    links = inherited_by(reporter)
    assert links[0] == "/dev/null"
    assert links[1] == links[2] and links[1].startswith("/tmp/.sreport") and links[1].endswith(" (deleted)")
    daemon.push(b"core")
    assert waiting.read_all() == CORE_HEAD + b"core"
    assert body_of(daemon.answer(b"/x", b"cmd=ps"), PS_HEAD) != b""
    assert program_of(reporter) != ""
    slow_report.write_text("continue\n")
    reader.join()
    members = assert_whole(body_of(answers[0], PLAIN_HEAD))
    assert [member.data for member in members if member.name == "serverreport.txt"] == [b"reported\n"]


def inherited_by(shell):
    """The open descriptors of a shell, without the script that it has opened itself."""
    return {fd: link for fd, link in descriptors_of(shell).items() if link != str(REPORT)}


def shell_of(daemon):
    """The pid of the child that runs a shell, or None before its exec."""
    for pid, _ in children_of(daemon.pid):
        if os.path.basename(program_of(pid)) in ("sh", "dash", "bash"):
            return pid
    return None


def test_programs_get_an_empty_environment(start, slow_report):
    daemon = start(environment={"SECRET": "of the daemon"})
    archive = daemon.ask(b"/x/debug.tar")
    answers = []
    reader = threading.Thread(target=lambda: answers.append(archive.read_all()))
    reader.start()
    reporter = wait_for(lambda: shell_of(daemon), "the report's program")
    assert pathlib.Path(f"/proc/{reporter}/environ").read_bytes() == b""
    slow_report.write_text("continue\n")
    reader.join()
    assert_whole(body_of(answers[0], PLAIN_HEAD))
