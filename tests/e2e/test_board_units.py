"""The unit tests on the target's processor: every program of the target build whose name begins with unit_.

Each case of GoogleTest is a case here. The programs run while pytest collects the cases, since their reports name the
cases. They share one board. Several run at a time: while the cases of one wait, another has the board's only
processor.
"""

import contextlib
import dataclasses
import functools
import os
import xml.etree.ElementTree

import pytest

import board as emulated
from support.under_test import ROOT

BUILD = ROOT / "build/mipsel"
PROGRAM_LIMIT = 1200  # seconds until a program is killed
ALL_LIMIT = 2400
AT_ONCE = 2
LONGEST_FIRST = ("unit_archive", "unit_monitor")  # so that none of them runs alone at the end
DESCRIPTORS = 10000  # some tests open thousands
RUN_ONE = f"""#!/bin/sh
ulimit -n {DESCRIPTORS}
cd /tmp
timeout -s KILL {PROGRAM_LIMIT} "$1" --gtest_output=xml:"/tmp/$1.xml" > "/tmp/$1.out" 2>&1
echo $? > "/tmp/$1.status"
"""
NICENESS = -10  # of the emulator: some tests have limits of a second, which other tests must not use up
SHOWN = 4000  # bytes of the output of a program that ended without a report


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    failure: str | None = None
    skipped: str | None = None


def why_nothing_runs():
    return emulated.missing(BUILD, "unit_common")


def case_of(program, element):
    """One testcase element of GoogleTest's report."""
    name = f"{program}-{element.get('classname')}.{element.get('name')}"
    failures = [failure.text or failure.get("message") for failure in element.iter("failure")]
    if failures:
        return Case(name, failure="\n".join(failures))
    if element.get("status") == "notrun":
        return Case(name, skipped="disabled")
    if element.get("result") == "skipped":
        skip = element.find("skipped")
        text = (skip.get("message") or skip.text or "") if skip is not None else ""
        lines = [line for line in text.splitlines() if line.strip()]
        return Case(name, skipped=lines[-1].strip() if lines else "no reason given")
    return Case(name)


def cases_of(board, program):
    """The cases of a program that has run, and one more if it failed without a failed case."""
    ending = board.run(f"cat /tmp/{program}.status").out.decode().strip()
    ended = f"ended with status {ending} (137: killed, perhaps at its limit)" if ending else "did not end"
    if board.run(f"test -s /tmp/{program}.xml").status != 0:
        shown = board.run(f"tail -c {SHOWN} /tmp/{program}.out").out.decode(errors="replace")
        return [Case(program, failure=f"{program} {ended} without a report. The end of its output:\n{shown}")]
    elements = xml.etree.ElementTree.fromstring(board.get(f"/tmp/{program}.xml")).iter("testcase")
    cases = [case_of(program, element) for element in elements]
    if not cases or (ending == "0") == any(case.failure for case in cases):
        cases.append(Case(program, failure=f"{program} {ended}, but its {len(cases)} cases say otherwise"))
    return cases


def run_all(board, programs):
    """Each program leaves its report, its output and its exit status in /tmp of the board."""
    board.put(RUN_ONE.encode(), "/tmp/run_one", 0o755)
    in_order = sorted(programs, key=lambda program: program not in LONGEST_FIRST)
    names = " ".join(in_order)
    try:
        board.check(f"printf '%s\\n' {names} | xargs -P {AT_ONCE} -n 1 /tmp/run_one", ALL_LIMIT)
    except emulated.OutOfTime:
        pass  # a program without a report becomes a failed case


@functools.cache
def all_cases():
    if reason := why_nothing_runs():
        return [Case("board", skipped=reason)]
    programs = sorted(path.name for path in BUILD.glob("bin/unit_*"))
    with contextlib.suppress(PermissionError):
        os.nice(NICENESS)
    try:
        with emulated.Board(BUILD) as board:
            run_all(board, programs)
            return [case for program in programs for case in cases_of(board, program)]
    except emulated.BoardError as error:
        return [Case("board", failure=str(error))]


def pytest_generate_tests(metafunc):
    metafunc.parametrize("case", all_cases(), ids=lambda case: case.name)


def test_case_passes_on_the_board(case):
    if case.skipped is not None:
        pytest.skip(case.skipped)
    if case.failure is not None:
        pytest.fail(case.failure, pytrace=False)
