#!/usr/bin/python3 -B
"""Runs one file of end-to-end tests and writes a JUnit report.

A file with the line `NEEDS_SANDBOX = True` runs inside tools/sandbox with a network of its own, so that no
capture records what other tests send. It does not if ZARVO_URL names a machine to test over HTTP. Exit
status: 0 if all tests passed, 77 if all were skipped, otherwise another one.
"""

import argparse
import ctypes
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SANDBOX = ROOT / "tools" / "sandbox"
SKIPPED = 77
PR_SET_PDEATHSIG = 1
CASE_LIMIT = 600  # seconds for one test with its fixtures; the slowest waits 165 s for a browser


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def parse():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file", help="a test file of this folder")
    parser.add_argument("--report", type=pathlib.Path, help="file for the JUnit report")
    parser.add_argument("-k", dest="only", help="run only the tests whose names match, as in pytest")
    parser.add_argument("--part", default="1/1", metavar="N/M", help="run every Mth test, beginning with the Nth")
    return parser.parse_args()


def sandbox_words(test_file):
    """The words before the command: the sandbox, if the file needs it."""
    needs = re.search(r"^NEEDS_SANDBOX = True$", test_file.read_text(), re.MULTILINE)
    if not needs or os.environ.get("ZARVO_URL"):
        return []
    if os.geteuid() != 0:
        skip("needs root, to make the sandbox")
    return [str(SANDBOX), "--net"]


def sanitizer_environment(folder):
    """The reports of all processes are written to `folder`, where conftest.py finds them."""
    log = f"log_path={folder}/report"
    return {
        "ASAN_OPTIONS": f"{log}:exitcode=99:detect_leaks=1:quarantine_size_mb=4",
        "UBSAN_OPTIONS": f"{log}:print_stacktrace=1:halt_on_error=1:exitcode=99",
        "TSAN_OPTIONS": f"{log}:exitcode=99:second_deadlock_stack=1:atexit_sleep_ms=0",
    }


def end_with_parent():
    """Makes a child end with this process, which is killed if the file takes too long."""
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGTERM)


def run(test_file, report, only, part, folder):
    sandbox = sandbox_words(test_file)
    scratch = "/run" if sandbox else folder
    reports = f"{scratch}/sanitizer"
    environment = dict(os.environ, PYTHONDONTWRITEBYTECODE="1", PYTHONUNBUFFERED="1",
                       ZARVO_SANITIZER_REPORTS=reports, ZARVO_PART=part)
    if os.environ.get("ZARVO_SANITIZE"):
        environment |= sanitizer_environment(reports)
    # -v: each test is named before it begins, so the log of a killed run shows how far it came.
    words = ["-v", "-rs", f"--timeout={CASE_LIMIT}", "-p", "no:cacheprovider"]
    words += [f"--rootdir={HERE}", f"--basetemp={scratch}/pytest"]
    words += ["-o", "junit_family=xunit1", f"--junitxml={report}", str(test_file)]
    words += ["-k", only] if only else []
    command = [*sandbox, "/usr/bin/python3", "-m", "pytest", *words]
    return subprocess.run(command, cwd=ROOT, env=environment, preexec_fn=end_with_parent).returncode


def all_skipped(report):
    cases = list(xml.etree.ElementTree.parse(report).iter("testcase"))
    return bool(cases) and all(case.find("skipped") is not None for case in cases)


def main():
    options = parse()
    try:
        import pytest  # noqa: F401
        import pytest_timeout  # noqa: F401
    except ImportError as missing:
        skip(f"needs python3-pytest and python3-pytest-timeout ({missing})")
    test_file = HERE / options.file
    if not test_file.exists():
        sys.exit(f"run.py: no such test file: {test_file}")
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit(128 + number))
    # A shell starts background jobs with SIGINT and SIGQUIT ignored, which all programs here would inherit.
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    folder = tempfile.mkdtemp(prefix="zarvo-e2e-")
    try:
        # A file written in the sandbox may be invisible outside, unless it is below /tmp.
        report = pathlib.Path(folder, "report.xml")
        status = run(test_file, report, options.only, options.part, folder)
        if status == 0 and all_skipped(report):
            status = SKIPPED
        if options.report and report.exists():
            options.report.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(report, options.report)
        sys.exit(status)
    finally:
        shutil.rmtree(folder, ignore_errors=True)


main()
