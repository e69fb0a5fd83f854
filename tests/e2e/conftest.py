"""Fixtures of the end-to-end tests, and the rule that no process leaves a sanitizer's report behind."""

import os
import pathlib

import pytest

from zarvo_e2e import OTHER_MACHINE, Daemon, Front, require_sandbox, running_copies, wait_for

REPORTS = pathlib.Path(os.environ.get("ZARVO_SANITIZER_REPORTS", "/nonexistent"))

if os.environ.get("ZARVO_SANITIZE"):
    REPORTS.mkdir(parents=True, exist_ok=True)


@pytest.fixture(autouse=True)
def no_sanitizer_report():
    """Set up first and so torn down last, when the processes of the test have ended."""
    yield
    reports = sorted(REPORTS.glob("report.*"))
    texts = [report.read_text(errors="replace") for report in reports]
    for report in reports:
        report.unlink()
    assert not texts, "\n".join(texts)


@pytest.fixture
def here():
    """For tests that look at processes, sockets or the system log of the machine they run on."""
    require_sandbox()
    yield
    wait_for(lambda: running_copies() == [], "no process left")


@pytest.fixture
def start(here, tmp_path):
    """Starts daemons that are stopped at the end of the test; arguments as for Daemon."""
    started = []

    def start_one(*options, **how):
        started.append(Daemon(tmp_path / f"daemon{len(started)}", *options, **how))
        return started[-1]

    yield start_one
    stop_all(started)


def stop_all(started):
    """Every one, also when one of them has to be complained about."""
    if started:
        try:
            started[-1].stop()
        finally:
            stop_all(started[:-1])


@pytest.fixture
def daemon(start):
    """A daemon in the foreground at the usual sockets."""
    return start()


@pytest.fixture
def base_url(request):
    """Where the daemon answers over HTTP: on another machine when there is one, else behind a web front."""
    if OTHER_MACHINE:
        yield OTHER_MACHINE
        return
    request.getfixturevalue("daemon")
    front = Front()
    yield front.url
    front.stop()
