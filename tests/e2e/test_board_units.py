"""The unit tests on the target's processor: every program of the target build whose name begins with unit_.

Each case of GoogleTest is a case here. They run while the cases are collected, all on one board, because
only then is it known which there are.
"""

import dataclasses
import functools
import pathlib
import sys
import xml.etree.ElementTree

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "board"))

import board as emulated  # noqa: E402

BUILD = ROOT / "build/mipsel"
PROGRAM_LIMIT = 600  # seconds
DESCRIPTORS = 10000  # some tests open thousands
SHOWN = 4000  # bytes of a program's output that are shown when it ended before its report was written


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
    report = f"/tmp/{program}.xml"
    command = f"ulimit -n {DESCRIPTORS}; cd /tmp && {program} --gtest_output=xml:{report} 2>&1"
    try:
        done = board.run(command, PROGRAM_LIMIT)
        succeeded, ended, output = done.status == 0, f"ended with status {done.status}", done.out
    except emulated.OutOfTime as late:
        succeeded, ended, output = False, f"was killed after {PROGRAM_LIMIT} s", late.out
    if board.run(f"test -s {report}").status != 0:
        shown = output[-SHOWN:].decode(errors="replace")
        return [Case(program, failure=f"{program} {ended} without a report. Its last words:\n{shown}")]
    elements = xml.etree.ElementTree.fromstring(board.get(report)).iter("testcase")
    cases = [case_of(program, element) for element in elements]
    if not cases or succeeded == any(case.failure for case in cases):
        cases.append(Case(program, failure=f"{program} {ended}, which its {len(cases)} cases do not explain"))
    return cases


@functools.cache
def all_cases():
    if reason := why_nothing_runs():
        return [Case("board", skipped=reason)]
    programs = sorted(path.name for path in BUILD.glob("bin/unit_*"))
    try:
        with emulated.Board(BUILD) as board:
            return [case for program in programs for case in cases_of(board, program)]
    except emulated.BoardError as error:
        return [Case("board", failure=str(error))]


def pytest_generate_tests(metafunc):
    metafunc.parametrize("case", all_cases(), ids=lambda case: case.name)


def test_on_the_board(case):
    if case.skipped is not None:
        pytest.skip(case.skipped)
    if case.failure is not None:
        pytest.fail(case.failure, pytrace=False)
