"""Fixtures of the end-to-end tests, and the rule that no process leaves a sanitizer's report behind."""

import os
import pathlib
import sys

import pytest

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path += [str(TESTS), str(TESTS.parent / "board")]

from support.daemon import Daemon  # noqa: E402
from support.processes import running_copies, started  # noqa: E402
from support.system_log import SYSLOG  # noqa: E402
from support.under_test import DAEMON, REMOTE_URL, ROOT  # noqa: E402
from support.waiting import wait_for  # noqa: E402
from support.web import Front  # noqa: E402

REPORTS = pathlib.Path(os.environ.get("ZARVO_SANITIZER_REPORTS", "/nonexistent"))

if os.environ.get("ZARVO_SANITIZE"):
    REPORTS.mkdir(parents=True, exist_ok=True)


def pytest_collection_modifyitems(config, items):
    """ZARVO_PART=N/M: keeps every Mth test, beginning with the Nth, so that M processes share the tests of a file."""
    number, parts = map(int, os.environ.get("ZARVO_PART", "1/1").split("/"))
    others = [item for index, item in enumerate(items) if index % parts != number - 1]
    items[:] = items[number - 1 :: parts]
    config.hook.pytest_deselected(items=others)


@pytest.fixture(autouse=True)
def no_sanitizer_report():
    """Set up first and so torn down last, when the processes of the test have ended."""
    yield
    reports = sorted(REPORTS.glob("report.*"))
    texts = [report.read_text(errors="replace") for report in reports]
    for report in reports:
        report.unlink()
    assert not texts, "\n".join(texts)


@pytest.fixture(scope="module")
def sandbox():
    """For tests that examine processes, sockets or the system log. Skips them where that is not possible."""
    if REMOTE_URL:
        pytest.skip("examines processes, which another machine does not show over HTTP")
    if not SYSLOG.exists():
        pytest.skip("needs the sandbox: tests/e2e/run.py FILE")
    assert os.path.exists(DAEMON), f"{DAEMON} is not built"


@pytest.fixture
def clean_sandbox(sandbox):
    """The sandbox, without processes of other tests."""
    assert running_copies() == [], "left from an earlier test"
    yield
    wait_for(lambda: running_copies() == [], "no process left")


@pytest.fixture
def service():
    """Starts programs that run until the end of the test."""
    with started() as start:
        yield start


@pytest.fixture
def start(clean_sandbox, tmp_path):
    """Starts daemons that are stopped at the end of the test; arguments as for Daemon."""
    daemons = []

    def start_one(*options, **how):
        daemons.append(Daemon(tmp_path / f"daemon{len(daemons)}", *options, **how))
        return daemons[-1]

    yield start_one
    stop_all(daemons)


def stop_all(daemons):
    """Stops the last one first, and all of them even if one fails."""
    if daemons:
        try:
            daemons[-1].stop()
        finally:
            stop_all(daemons[:-1])


@pytest.fixture
def daemon(start):
    """A daemon in the foreground at the usual sockets."""
    return start()


@pytest.fixture
def idle(daemon):
    """The state of the idle daemon, to which it must return."""
    before = daemon.idle_state()
    yield before
    daemon.sync()
    daemon.wait_until_idle(before)


@pytest.fixture
def base_url(request):
    """Where the daemon answers over HTTP: on another machine, or here through a web front."""
    if REMOTE_URL:
        yield REMOTE_URL
        return
    request.getfixturevalue("daemon")
    front = Front()
    yield front.url
    front.stop()


@pytest.fixture(scope="module")
def board_build():
    """The build that is installed on the board. Skips the tests if no board can be booted with it."""
    import board

    build = ROOT / "build" / "mipsel"
    if reason := board.missing(build):
        pytest.skip(reason)
    return build


@pytest.fixture(scope="module")
def served(board_build):
    """A board with the device's files, a daemon and a web front."""
    from support.board_daemon import served_board

    with served_board(board_build) as board:
        yield board
