"""The archive of a board whose clock has passed 2038, where 31 bits end, and 2106, where 32 bits do."""

import gzip
import pathlib
import subprocess
import sys
import time
import types

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "board"))

import board as emulated  # noqa: E402
from board_daemon import put_device_files, start_daemon, start_front  # noqa: E402
from zarvo_e2e import (  # noqa: E402
    COMPRESSED_HEAD, PLAIN_HEAD, STAMPED, TOP, archive_number, assert_compressed_whole, assert_whole, body_of,
    http_get,
)  # fmt: skip

BUILD = ROOT / "build/mipsel"
END_OF_31_BITS = 2**31 - 1  # 2038-01-19 03:14:07
TIMES = {"2038": END_OF_31_BITS - 1, "2040": 2208988800, "2106": 2**32 + 1, "2200": 7258118400}


@pytest.fixture(scope="module")
def served():
    if reason := emulated.missing(BUILD):
        pytest.skip(reason)
    with emulated.Board(BUILD, http=True) as board:
        put_device_files(board)
        start_daemon(board)
        yield types.SimpleNamespace(board=board, url=start_front(board))


@pytest.fixture(scope="module", params=TIMES.values(), ids=TIMES.keys())
def taken(request, served):
    """A plain archive and the board's time before and after it."""
    served.board.set_clock(request.param)
    before = served.board.clock()
    archive = body_of(http_get(served.url, "/debug.tar"), PLAIN_HEAD)
    after = served.board.clock()
    assert request.param <= before <= after < request.param + 600
    return types.SimpleNamespace(archive=archive, before=before, after=after)


@pytest.fixture(scope="module")
def members(taken):
    return assert_whole(taken.archive)


def stamp(seconds):
    """As names have it; the board's local time is UTC."""
    return time.strftime("%Y%m%d-%H%M%S", time.gmtime(seconds))


def test_top_directory_names_the_time(taken, members):
    assert stamp(taken.before) <= TOP.match(members[0].path)[1] <= stamp(taken.after)


def test_snapshots_name_the_time(taken, members):
    stamps = {found[1] for member in members if (found := STAMPED.fullmatch(member.name))}
    assert 1 <= len(stamps) <= 2
    assert stamp(taken.before) <= min(stamps) <= max(stamps) <= stamp(taken.after)


def test_headers_hold_the_time(taken, members):
    times = [member.mtime for member in members]
    assert times == sorted(times)
    assert taken.before <= times[0] and times[-1] <= taken.after
    assert times[-1] > END_OF_31_BITS


def test_gnu_tar_reads_the_times(taken, members):
    words = ["tar", "--full-time", "--utc", "-tvf", "-"]
    done = subprocess.run(words, input=taken.archive, capture_output=True, check=True)
    assert done.stderr == b""
    read = [line.split()[3:6] for line in done.stdout.decode().splitlines()]
    form = "%Y-%m-%d %H:%M:%S"
    assert read == [[*time.strftime(form, time.gmtime(m.mtime)).split(), m.path] for m in members]


def test_compressed_archive_is_whole_then_as_well(taken, members, served):
    body = body_of(http_get(served.url, "/debug.tgz"), COMPRESSED_HEAD)
    later = assert_compressed_whole(body)
    assert archive_number(later) == archive_number(members) + 1
    assert later[0].mtime >= members[-1].mtime
    assert int.from_bytes(body[-4:], "little") == len(gzip.decompress(body))
