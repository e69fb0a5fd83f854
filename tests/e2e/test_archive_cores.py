"""The archive with the dumper that development machines have: every process, whole, as gdb sees it."""

import subprocess

import pytest

from zarvo_e2e import BIN, PATIENCE, PLAIN_HEAD, assert_whole, body_of, split_tar

NEEDS_SANDBOX = True


@pytest.fixture
def members(start):
    daemon = start("-p", str(BIN / "dcore"))
    sleepers = [subprocess.Popen(["sleep", "1000"]) for _ in range(3)]
    try:
        browser = daemon.ask(b"/x/debug.tar")
        browser.near.settimeout(4 * PATIENCE)
        stream = body_of(browser.read_all(), PLAIN_HEAD)
    finally:
        for sleeper in sleepers:
            sleeper.kill()
            sleeper.wait()
    assert_whole(stream)
    return {member.name: member.data for member in split_tar(stream)}, [sleeper.pid for sleeper in sleepers]


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
