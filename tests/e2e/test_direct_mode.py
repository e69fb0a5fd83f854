"""debugar.cgi -d: one archive onto standard output; and what its command line answers."""

import os
import resource
import signal
import subprocess

import pytest

from zarvo_e2e import (
    DAEMON, OFF, ON, PATIENCE, archive_number, assert_compressed_whole, assert_whole, require_sandbox,
    temporary_leftovers, wait_for, without_leak_check,
)  # fmt: skip

NEEDS_SANDBOX = True

HELP = (
    "dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
    "-d\tdump tar archive with core-files for pids to stdout.\n"
    "-t\tonly tar the archive.\n"
    "-i\tignore pid\n"
    "-p\tprogram to create coredumps [/usr/bin/dcore]\n"
    "-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
    "-h\thelp\n"
)
REFUSAL = "service supervision refuses on request of HOLLISK_FAIL_COUNT"

pytestmark = pytest.mark.usefixtures("sandbox")


@pytest.fixture
def sandbox():
    require_sandbox()


def run(*words, **how):
    return subprocess.run([DAEMON, *words], stdin=subprocess.DEVNULL, timeout=4 * PATIENCE, **how)


def state_lines(stderr):
    return [line for line in stderr.decode().splitlines(keepends=True) if "service watchdogs state" in line]


def test_archive_on_a_pipe_is_compressed_and_whole():
    done = run("-d", capture_output=True)
    assert done.returncode == 0
    assert archive_number(assert_compressed_whole(done.stdout)) == 0
    assert state_lines(done.stderr) == [OFF, ON]


def test_archive_with_t_is_plain_and_whole():
    done = run("-d", "-t", capture_output=True)
    assert done.returncode == 0
    assert archive_number(assert_whole(done.stdout)) == 0
    assert state_lines(done.stderr) == [OFF, ON]


@pytest.mark.parametrize("words, check", [(["-d"], assert_compressed_whole), (["-dt"], assert_whole)])
def test_archive_in_a_file_is_whole(tmp_path, words, check):
    path = tmp_path / "archive"
    with open(path, "wb") as file:
        done = run(*words, stdout=file, stderr=subprocess.PIPE)
    assert done.returncode == 0
    check(path.read_bytes())
    assert state_lines(done.stderr) == [OFF, ON]


def test_pids_behind_the_options_are_not_read():
    done = run("-d", "-t", "1", "none", capture_output=True)
    assert done.returncode == 0
    assert_whole(done.stdout)


def incomplete(why):
    return f"debugar.cgi: the archive is not complete: {why}\n"


def test_readers_early_end_ends_the_archive_with_the_watchdogs_on():
    for words in (["-d"], ["-d", "-t"]):
        process = subprocess.Popen([DAEMON, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert process.stdout.read(100) != b""
        process.stdout.close()
        assert process.wait(4 * PATIENCE) == 1
        with process.stderr:
            said = process.stderr.read()
        assert state_lines(said) == [OFF, ON]
        assert said.decode().endswith(incomplete("Broken pipe"))
    wait_for(lambda: temporary_leftovers() == [], temporary_leftovers)


@pytest.mark.parametrize("words", [["-d"], ["-d", "-t"]])
def test_full_disk_does_not_hold_it_up_and_is_an_error(words):
    with open("/dev/full", "wb") as full:
        done = run(*words, stdout=full, stderr=subprocess.PIPE)
    assert done.returncode == 1
    assert state_lines(done.stderr) == [OFF, ON]
    assert done.stderr.decode().endswith(incomplete("No space left on device"))


@pytest.mark.parametrize("words", [["-d"], ["-d", "-t"]])
def test_disk_that_is_full_later_leaves_what_is_seen_to_be_broken(words, tmp_path):
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


def test_refused_switch_off_is_reported_and_switch_on_is_repeated():
    done = run("-d", "-t", capture_output=True, env=dict(os.environ, HOLLISK_FAIL_COUNT="3"))
    assert done.returncode == 0
    assert_whole(done.stdout)
    failed = "Error setting service watchdogs state '%s': " + REFUSAL + "\n"
    assert state_lines(done.stderr) == [OFF, failed % "no", ON, failed % "yes", ON, failed % "yes", ON]


@pytest.mark.parametrize("words", [["-h"], ["-x"], ["-c"], ["-d", "-h"]])
def test_help_and_wrong_options_print_the_help_and_fail(words):
    done = run(*words, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert (done.returncode, done.stdout.decode()) == (1, HELP)
