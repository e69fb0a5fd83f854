"""The archive of a board whose clock is beyond 2038, the end of 31 bits of seconds, and beyond 2106, the end
of 32."""

import gzip
import subprocess
import time
import types

import pytest

from support.answers import COMPRESSED_HEAD, PLAIN_HEAD, body_of
from support.archives import TIMESTAMPED, TOP, archive_number, assert_compressed_whole, assert_whole
from support.web import http_get

END_OF_31_BITS = 2**31 - 1  # 2038-01-19 03:14:07
TIMES = {"2038": END_OF_31_BITS - 1, "2040": 2208988800, "2106": 2**32 + 1, "2200": 7258118400}


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


def timestamp(seconds):
    """The time in the format of member names. The board's local time is UTC."""
    return time.strftime("%Y%m%d-%H%M%S", time.gmtime(seconds))


def test_top_directory_names_the_time(taken, members):
    assert timestamp(taken.before) <= TOP.match(members[0].path)[1] <= timestamp(taken.after)


def test_snapshots_name_the_time(taken, members):
    timestamps = {found[1] for member in members if (found := TIMESTAMPED.fullmatch(member.name))}
    assert 1 <= len(timestamps) <= 2
    assert timestamp(taken.before) <= min(timestamps) <= max(timestamps) <= timestamp(taken.after)


def test_headers_have_the_time(taken, members):
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


def test_compressed_archive_is_complete_as_well(taken, members, served):
    body = body_of(http_get(served.url, "/debug.tgz"), COMPRESSED_HEAD)
    later = assert_compressed_whole(body)
    assert archive_number(later) == archive_number(members) + 1
    assert later[0].mtime >= members[-1].mtime
    assert int.from_bytes(body[-4:], "little") == len(gzip.decompress(body))
