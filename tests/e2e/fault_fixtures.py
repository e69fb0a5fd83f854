"""Fixtures that make calls of a program fail."""

import mmap
import pathlib
import struct
import subprocess

import pytest

from support.under_test import SANITIZE

SOURCE = pathlib.Path(__file__).resolve().parent / "programs" / "preload_faults.cpp"
NUMBERS = ("countdown", "lasting", "poll_error", "polls")  # as in the source


class Faults:
    """The numbers in the file that the library shares with the test. The source explains them."""

    def __init__(self, path):
        path.write_bytes(bytes(8 * len(NUMBERS)))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 0)

    def __getitem__(self, name):
        return struct.unpack_from("=q", self.memory, 8 * NUMBERS.index(name))[0]

    def __setitem__(self, name, value):
        struct.pack_into("=q", self.memory, 8 * NUMBERS.index(name), value)


@pytest.fixture(scope="module")
def library(tmp_path_factory):
    if SANITIZE:
        pytest.skip("needs a preloaded library, which the sanitizer does not allow")
    path = tmp_path_factory.mktemp("faults") / "faults.so"
    subprocess.run(["g++", "-O1", "-shared", "-fPIC", "-o", path, SOURCE], check=True)
    return path


@pytest.fixture
def faults(library, tmp_path, monkeypatch):
    """Every program that the test starts from now on has the library preloaded."""
    monkeypatch.setenv("LD_PRELOAD", str(library))
    monkeypatch.setenv("FAULTS", str(tmp_path / "numbers"))
    return Faults(tmp_path / "numbers")
