"""Fixtures of the capture's tests: wires in a network of their own."""

import pytest

from support.network import add_quiet_wire, capturing_sockets, ip, private_network
from support.under_test import REMOTE_URL
from support.waiting import wait_for


@pytest.fixture(scope="module", autouse=True)
def network():
    """All tests of the file run in a network of their own, with a loopback and two wires."""
    if REMOTE_URL:
        yield
        return
    with private_network():
        ip("link", "set", "lo", "up")
        add_quiet_wire("near0", "far0")
        add_quiet_wire("near1", "far1")
        yield


@pytest.fixture
def wires(clean_sandbox):
    """For tests that send frames over the wires."""
    wait_for(lambda: capturing_sockets() == 0, "no capture left")
