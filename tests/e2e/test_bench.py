"""bench/run on a machine that has nothing installed: it asks for what it needs before it needs it."""

import os
import subprocess

import pytest

from zarvo_e2e import PATIENCE, ROOT

PEERS = {"strace", "lsof", "gdb", "tcpdump", "busybox", "gzip", "tar", "iproute2"}
FROM_THE_TESTS = {"python3-pytest"}
TO_BUILD = {"g++", "cmake", "ninja-build"}


@pytest.fixture
def bare_machine(tmp_path):
    """An environment in which no package is installed and none can be had; what was asked for is in a file."""
    asked = tmp_path / "asked"
    programs = {
        "dpkg-query": "exit 1",
        "apt-get": f'[ "$1" != install ] || echo "$@" > {asked}; [ "$1" = update ]',
    }
    for name, text in programs.items():
        (tmp_path / name).write_text(f"#!/bin/sh\n{text}\n")
        (tmp_path / name).chmod(0o755)
    return dict(os.environ, PATH=f"{tmp_path}:{os.environ['PATH']}"), asked


def bench_run(environment, *words):
    return subprocess.run(
        [ROOT / "bench" / "run", *words], env=environment, capture_output=True, text=True, timeout=PATIENCE
    )


def test_packages_are_asked_for_first(bare_machine):
    environment, asked = bare_machine
    done = bench_run(environment, "archive/memory")
    assert done.returncode == 1
    assert done.stderr.endswith("run: a package could not be installed (apt-get, above)\n")
    assert "Traceback" not in done.stderr and done.stdout == ""
    assert PEERS | FROM_THE_TESTS | TO_BUILD <= set(asked.read_text().split())


def test_unknown_benchmark_is_named_and_nothing_is_installed(bare_machine):
    environment, asked = bare_machine
    done = bench_run(environment, "nowhere")
    assert done.returncode == 1 and done.stderr.startswith("bench/run: there is no nowhere; there are: archive/")
    assert not asked.exists()
