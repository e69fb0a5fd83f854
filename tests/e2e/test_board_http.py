"""The tests that use only HTTP, with a daemon on the board."""

import pytest

from test_archive_http import *  # noqa: F403


@pytest.fixture
def base_url(served):
    return served.url
