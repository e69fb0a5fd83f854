"""debugar.cgi -d, which writes one archive to standard output, and the help."""

import os
import resource
import signal
import subprocess

import pytest

from support.answers import HELP
from support.archives import archive_number, assert_compressed_whole, assert_whole
from support.daemon import OFF, ON, temporary_leftovers
from support.under_test import DAEMON, without_leak_check
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

REFUSAL = "failure requested by HOLLISK_FAIL_COUNT"

pytestmark = pytest.mark.usefixtures("clean_sandbox")


def run(*words, **how):
    return subprocess.run([DAEMON, *words], stdin=subprocess.DEVNULL, timeout=4 * PATIENCE, **how)


def watchdog_lines(stderr):
    return [line for line in stderr.decode().splitlines(keepends=True) if "service watchdogs state" in line]


def test_archive_on_a_pipe_is_compressed_and_complete():
    done = run("-d", capture_output=True)
    assert done.returncode == 0
    assert archive_number(assert_compressed_whole(done.stdout)) == 0
    assert watchdog_lines(done.stderr) == [OFF, ON]


def test_archive_with_t_is_plain_and_complete():
    done = run("-d", "-t", capture_output=True)
    assert done.returncode == 0
    assert archive_number(assert_whole(done.stdout)) == 0
    assert watchdog_lines(done.stderr) == [OFF, ON]


@pytest.mark.parametrize("words, check", [(["-d"], assert_compressed_whole), (["-dt"], assert_whole)])
def test_archive_in_a_file_is_complete(tmp_path, words, check):
    path = tmp_path / "archive"
    with open(path, "wb") as file:
        done = run(*words, stdout=file, stderr=subprocess.PIPE)
    assert done.returncode == 0
    check(path.read_bytes())
    assert watchdog_lines(done.stderr) == [OFF, ON]


def test_pids_after_the_options_are_ignored():
    done = run("-d", "-t", "1", "none", capture_output=True)
    assert done.returncode == 0
    assert_whole(done.stdout)


def incomplete(why):
    return f"debugar.cgi: the archive is not complete: {why}\n"


def test_archive_ends_with_the_watchdogs_on_when_its_reader_is_gone():
    for words in (["-d"], ["-d", "-t"]):
        process = subprocess.Popen([DAEMON, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert process.stdout.read(100) != b""
        process.stdout.close()
        assert process.wait(4 * PATIENCE) == 1
        with process.stderr:
            said = process.stderr.read()
        assert watchdog_lines(said) == [OFF, ON]
        assert said.decode().endswith(incomplete("Broken pipe"))
    wait_for(lambda: temporary_leftovers() == [], temporary_leftovers)


@pytest.mark.parametrize("words", [["-d"], ["-d", "-t"]])
def test_full_disk_is_an_error(words):
    with open("/dev/full", "wb") as full:
        done = run(*words, stdout=full, stderr=subprocess.PIPE)
    assert done.returncode == 1
    assert watchdog_lines(done.stderr) == [OFF, ON]
    assert done.stderr.decode().endswith(incomplete("No space left on device"))


@pytest.mark.parametrize("words", [["-d"], ["-d", "-t"]])
def test_archive_on_a_disk_that_fills_up_is_recognisably_broken(words, tmp_path):
    path = tmp_path / "archive"
    size = 20000

    def limit_files():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    with open(path, "wb") as file:
        done = run(*words, stdout=file, stderr=subprocess.PIPE, preexec_fn=limit_files)
    assert done.returncode == 1
    assert done.stderr.decode().endswith(incomplete("File too large"))
    assert path.stat().st_size == size
    if "-t" not in words:
        assert subprocess.run(["gzip", "-t", path], capture_output=True).returncode == 1


@pytest.mark.parametrize("words", [["-d"], ["-d", "-t"]])
def test_closed_standard_output_is_an_error(words, tmp_path):
    errors = tmp_path / "errors"
    with open(errors, "wb") as err:
        done = run(*words, stderr=err, preexec_fn=lambda: os.close(1))
    assert done.returncode == 1
    assert errors.read_text() == incomplete("Bad file descriptor")


@pytest.mark.parametrize("descriptors", [4, 5])
def test_missing_descriptors_are_an_error(descriptors, tmp_path):
    path = tmp_path / "archive"

    def limit_descriptors():
        resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))

    with open(path, "wb") as file:
        done = run("-d", stdout=file, stderr=subprocess.PIPE, preexec_fn=limit_descriptors, env=without_leak_check())
    assert done.returncode == 1
    assert done.stderr.decode().endswith(incomplete("Too many open files"))
    assert path.read_bytes() == b""


def test_failed_switch_off_is_reported_and_switch_on_is_repeated():
    done = run("-d", "-t", capture_output=True, env=dict(os.environ, HOLLISK_FAIL_COUNT="3"))
    assert done.returncode == 0
    assert_whole(done.stdout)
    failed = "Error setting service watchdogs state '%s': " + REFUSAL + "\n"
    assert watchdog_lines(done.stderr) == [OFF, failed % "no", ON, failed % "yes", ON, failed % "yes", ON]


@pytest.mark.parametrize("words", [["-h"], ["-x"], ["-c"], ["-d", "-h"]])
def test_help_and_wrong_options_print_the_help_and_fail(words):
    done = run(*words, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert (done.returncode, done.stdout.decode()) == (1, HELP)
