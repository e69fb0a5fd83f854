"""bench/run on a machine without any packages: it installs what it needs first."""

import os
import subprocess

import pytest

from support.under_test import ROOT
from support.waiting import PATIENCE

PEERS = {"strace", "lsof", "gdb", "tcpdump", "busybox", "gzip", "tar", "iproute2"}
TO_BUILD = {"g++", "cmake", "ninja-build"}


@pytest.fixture
def bare_machine(tmp_path):
    """An environment without packages, where none can be installed, and the file with the requests."""
    requested = tmp_path / "requested"
    programs = {
        "dpkg-query": "exit 1",
        "apt-get": f'[ "$1" != install ] || echo "$@" > {requested}; [ "$1" = update ]',
    }
    for name, text in programs.items():
        (tmp_path / name).write_text(f"#!/bin/sh\n{text}\n")
        (tmp_path / name).chmod(0o755)
    return dict(os.environ, PATH=f"{tmp_path}:{os.environ['PATH']}"), requested


def bench_run(environment, *words):
    return subprocess.run(
        [ROOT / "bench" / "run", *words], env=environment, capture_output=True, text=True, timeout=PATIENCE
    )


def test_packages_are_installed_first(bare_machine):
    environment, requested = bare_machine
    done = bench_run(environment, "archive/memory")
    assert done.returncode == 1
    assert done.stderr.endswith("run: a package could not be installed (apt-get, above)\n")
    assert "Traceback" not in done.stderr and done.stdout == ""
    assert PEERS | TO_BUILD <= set(requested.read_text().split())


def test_unknown_benchmark_is_named_and_nothing_is_installed(bare_machine):
    environment, requested = bare_machine
    done = bench_run(environment, "nowhere")
    assert done.returncode == 1 and done.stderr.startswith("bench/run: unknown benchmark 'nowhere'; known: archive/")
    assert not requested.exists()
