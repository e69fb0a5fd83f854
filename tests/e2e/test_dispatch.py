"""How the program chooses an applet: by its own name, or by its first argument."""

import os
import signal
import subprocess

import pytest

from support.processes import status_field
from support.under_test import BIN
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

ZARVO = str(BIN / "zarvo")

# A harmless call of each applet, the beginning of its output, and its exit status (None: any).
CALLS = {
    "tstrace": (["-?"], "USAGE: tstrace [", None),
    "stopper": (["-?"], "USAGE: stopper [", None),
    "pcapdump": ([], "USAGE: pcapdump ", None),
    "coredump-handler": (["core", "12"], "", 1),
    "debugar.cgi": (["-h"], "dbg-cgi 0.1\n", 1),
    "ctest": ([], "call exit\n", 0),
    "oopslog": (["/nonexistent"], "", None),
}


# Without it, a sanitizer would report the crash and exit.
CRASHING = {
    name: f"{os.environ.get(name, '')}:handle_segv=0" for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS")
}


def run(*words, executable=ZARVO, **environment):
    done = subprocess.run(words, executable=executable, capture_output=True, timeout=PATIENCE, stdin=subprocess.DEVNULL,
                          env={**os.environ, **environment})
    return done.returncode, (done.stdout + done.stderr).decode()


@pytest.mark.parametrize("name", CALLS)
def test_applet_runs_by_its_link_and_by_the_first_argument(name):
    words, said, status = CALLS[name]
    by_link = run(name, *words, executable=str(BIN / name))
    assert by_link[1].startswith(said) and status in (None, by_link[0]), by_link
    assert "unknown zarvo applet" not in by_link[1]
    assert run(f"/some/dir/{name}", *words)[0] == by_link[0]
    assert run("zarvo", name, *words) == by_link
    assert run("/usr/bin/zarvo", name, *words) == by_link


def test_there_is_a_link_for_every_applet():
    zarvo = os.path.realpath(ZARVO)
    links = [path.name for path in BIN.iterdir() if path.is_symlink() and os.path.realpath(path) == zarvo]
    assert set(CALLS) | {"mon", "forkbomb", "fdleak", "segfault"} == set(links)


@pytest.mark.parametrize("words", [["segfault"], ["zarvo", "segfault"], ["/bin/zarvo", "/x/segfault"]])
def test_segfault_dies_by_sigsegv(words):
    assert run(*words, **CRASHING)[0] == -signal.SIGSEGV


@pytest.mark.parametrize("words, name", [
    (["zarvo", "zarvo"], "zarvo"), (["zarvo", "zarvo", "ctest"], "zarvo"), (["dbg-cgi"], "dbg-cgi"),
    (["zarvo", "/x/dbg-cgi"], "dbg-cgi"), (["Ctest"], "Ctest"), (["ctest2"], "ctest2"), (["ctes"], "ctes"),
    (["zarvo", "ctest/"], ""), (["zarvo", ""], ""), (["zarvo2", "ctest"], "zarvo2"), ([""], ""),
])  # fmt: skip
def test_unknown_name_is_reported_and_fails(words, name):
    assert run(*words) == (1, f"{name}: unknown zarvo applet\n")


@pytest.mark.parametrize("word", ["zarvo", "/usr/bin/zarvo"])
def test_missing_name_fails_silently(word):
    assert run(word) == (1, "")


@pytest.mark.parametrize("words", [["/a/b/debugar.cgi"], ["zarvo", "/a/b/debugar.cgi"]])
def test_first_argument_of_an_applet_is_the_word_that_named_it(words):
    assert "/a/b/debugar.cgi: invalid option -- 'x'\n" in run(*words, "-x")[1]


def signals(pid, key):
    """The signals in a mask of /proc/PID/status."""
    mask = int(status_field(pid, key), 16)
    return {number for number in range(1, 65) if mask >> (number - 1) & 1}


def test_applets_ignore_sigpipe_and_not_sigchld_whatever_they_inherit():
    def reverse_both():
        signal.signal(signal.SIGPIPE, signal.SIG_DFL)
        signal.signal(signal.SIGCHLD, signal.SIG_IGN)

    with subprocess.Popen([ZARVO, "fdleak", "10000000"], preexec_fn=reverse_both) as process:
        try:
            wait_for(lambda: signal.SIGPIPE in signals(process.pid, "SigIgn"), "SIGPIPE ignored")
            wait_for(lambda: signal.SIGCHLD not in signals(process.pid, "SigIgn"), "SIGCHLD not ignored")
        finally:
            process.kill()
