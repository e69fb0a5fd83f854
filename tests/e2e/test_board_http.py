"""The tests that speak only HTTP, against a daemon on the board."""

import pathlib
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "board"))

import board as emulated  # noqa: E402
from board_daemon import put_device_files, start_daemon, start_front  # noqa: E402
from test_archive_http import *  # noqa: E402,F403

BUILD = ROOT / "build/mipsel"


@pytest.fixture(scope="module")
def served():
    """The address of the web front."""
    if reason := emulated.missing(BUILD):
        pytest.skip(reason)
    with emulated.Board(BUILD, http=True) as board:
        put_device_files(board)
        start_daemon(board)
        yield start_front(board)


@pytest.fixture
def base_url(served):
    return served
