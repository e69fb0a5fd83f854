"""Fixtures of the core handler's tests."""

import os
import pathlib

import pytest

from support.core_handler import BIG, CONFIG
from support.daemon import SEGFAULT_SOCKET


@pytest.fixture(autouse=True)
def clean(clean_sandbox):
    """Removes the configuration and the socket of another test."""
    CONFIG.unlink(missing_ok=True)
    pathlib.Path(SEGFAULT_SOCKET).unlink(missing_ok=True)


@pytest.fixture
def big_core(tmp_path):
    """A sparse file of more than 2 GB."""
    path = tmp_path / "big"
    with open(path, "wb") as file:
        file.truncate(BIG)
    with open(path, "rb") as file:
        yield file


@pytest.fixture
def no_libcurl(tmp_path):
    """An environment in which the loader finds no usable libcurl."""
    folder = tmp_path / "libraries"
    folder.mkdir()
    (folder / "libcurl.so.4").write_bytes(b"")
    return dict(os.environ, LD_LIBRARY_PATH=str(folder))
