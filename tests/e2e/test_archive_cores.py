"""The archive with dcore as its dumper: gdb must be able to read the core of every process."""

import subprocess

import pytest

from support.answers import PLAIN_HEAD, body_of
from support.archives import assert_whole, split_tar
from support.under_test import BIN
from support.waiting import PATIENCE

NEEDS_SANDBOX = True


@pytest.fixture
def members(start, service):
    """The members of an archive, and the pids of three processes that it dumped."""
    daemon = start("-p", str(BIN / "dcore"))
    pids = [service("sleep", "1000").pid for _ in range(3)]
    browser = daemon.ask(b"/x/debug.tar")
    browser.near.settimeout(4 * PATIENCE)
    stream = body_of(browser.read_all(), PLAIN_HEAD)
    assert_whole(stream)
    return {member.name: member.data for member in split_tar(stream)}, pids


def test_each_process_has_its_core_and_descriptors(members, tmp_path):
    stored, pids = members
    for pid in pids:
        core = stored[f"sleep.{pid}/core"]
        assert core.startswith(b"\x7fELF")
        assert b" 0 -> " in stored[f"sleep.{pid}/fdmap"]
        (tmp_path / "core").write_bytes(core)
        words = ["gdb", "-batch", "-nx", "-ex", "bt", "sleep", str(tmp_path / "core")]
        words[-2] = subprocess.run(["which", "sleep"], capture_output=True, text=True, check=True).stdout.strip()
        seen = subprocess.run(words, capture_output=True, text=True, timeout=PATIENCE).stdout
        assert "clock_nanosleep" in seen and f"[New LWP {pid}]\n" in seen, seen
