"""Fixtures of the tests that dump processes."""

import pytest

from support.victims import Victims


@pytest.fixture
def victims(clean_sandbox, tmp_path):
    made = Victims(tmp_path)
    yield made
    made.end()


@pytest.fixture
def dumping(victims, start):
    """A daemon with the victims' dumper. It must be idle at the end."""
    daemon = start("-p", victims.dumper)
    idle = daemon.idle_state()
    yield daemon
    daemon.wait_until_idle(idle)
    victims.wait_asleep()
