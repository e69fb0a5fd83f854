"""Archives as a browser gets them. Uses only HTTP, and so can test another machine, too."""

import re

import pytest

from support.answers import BAD_REQUEST, BUSY_PAGE, COMPRESSED_HEAD, PLAIN_HEAD, PS_HEAD, body_and_file_name, body_of
from support.archives import (
    PROCESS_FILE, archive_number, assert_compressed_whole, assert_full_whole, assert_whole, unpacked,
)  # fmt: skip
from support.connections import SMALL_BUFFER, receive_all
from support.daemon import when_free
from support.web import http_get, http_open

NEEDS_SANDBOX = True


def stalled_archive(base_url, target):
    """A browser that has read only the head of an archive."""
    head = PLAIN_HEAD if target.endswith(".tar") else COMPRESSED_HEAD
    client = http_open(base_url, target, buffer_size=SMALL_BUFFER)
    got = b""
    while len(got) < len(head):
        got += client.recv(len(head) - len(got))
    assert got == head
    return client


def test_compressed_archive_is_complete(base_url):
    assert_compressed_whole(body_of(http_get(base_url, "/debug.tgz"), COMPRESSED_HEAD))


def test_plain_archive_is_complete(base_url):
    assert_whole(body_of(http_get(base_url, "/debug.tar"), PLAIN_HEAD))


def test_compressed_full_archive_is_complete(base_url):
    body, name = body_and_file_name(http_get(base_url, "/debug.tgz?full"))
    members, manifest = assert_full_whole(unpacked(body))
    assert re.fullmatch(r"debug-[\w.-]+-\d{8}-\d{6}\.tgz", name)
    assert manifest.seconds["strace.log"] > 4
    pids = {found["pid"] for member in members if (found := PROCESS_FILE.fullmatch(member.name))}
    table = next(member.data for member in members if member.name == "processes.txt").decode()
    assert {line.split()[0] for line in table.splitlines()[1:]} >= pids - gone_from(manifest)


def gone_from(manifest):
    """The pids of the processes that vanished during a look."""
    return {name.rpartition("/")[2] for name in manifest.errors if re.fullmatch(r"processes\.[\d-]+/\d+", name)}


def test_plain_full_archive_is_complete(base_url):
    body, name = body_and_file_name(http_get(base_url, "/debug.tar?full=1"))
    assert_full_whole(body)
    assert name.endswith(".tar")


@pytest.mark.parametrize("target", ["/cgi-bin/coredumps.tgz", "/debug.tgz.old"])
def test_names_that_begin_like_a_compressed_archive_give_debug_tgz(base_url, target):
    assert_compressed_whole(body_of(http_get(base_url, target), COMPRESSED_HEAD))


@pytest.mark.parametrize("target", ["/x/anything", "/x/Debug.tgz"])
def test_any_other_name_gives_debug_tar(base_url, target):
    assert_whole(body_of(http_get(base_url, target), PLAIN_HEAD))


def test_counter_goes_up_by_one_with_each_archive(base_url):
    first = number_of_next(base_url)
    assert number_of_next(base_url) == first + 1


def number_of_next(base_url):
    return archive_number(assert_whole(body_of(http_get(base_url, "/x/count"), PLAIN_HEAD)))


@pytest.mark.parametrize("target", ["/debug.tgz", "/debug.tar"])
def test_second_archive_is_refused_with_the_busy_page(base_url, target):
    with stalled_archive(base_url, target):
        assert http_get(base_url, "/debug.tgz") == BUSY_PAGE
        assert http_get(base_url, "/debug.tar") == BUSY_PAGE
        assert body_of(http_get(base_url, "/x?cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(when_free(lambda: http_get(base_url, "/debug.tar")), PLAIN_HEAD))


def test_archive_that_waited_for_its_browser_is_complete(base_url):
    with stalled_archive(base_url, "/debug.tgz") as client:
        assert http_get(base_url, "/debug.tgz") == BUSY_PAGE
        assert_compressed_whole(receive_all(client))


def test_next_archive_may_begin_at_the_end_of_a_download(base_url):
    for _ in range(3):
        answer = http_get(base_url, "/debug.tgz")
        assert answer.startswith(COMPRESSED_HEAD)


def test_process_list_has_its_head_and_a_table(base_url):
    body = body_of(http_get(base_url, "/x?cmd=ps"), PS_HEAD)
    assert b"PID" in body.splitlines()[0]


@pytest.mark.parametrize(
    "target",
    ["/x?cmd=unknown", "/x?cmd=", "/x?cmd", "/x?cmd=%zz", "/x?cmd=p%00s", "/x?cmd=strace&pid=2147483647",
     "/x?cmd=coredump&pid=2147483647", "/x?cmd=coredump&pid=no%20such%20name"],
)  # fmt: skip
def test_invalid_requests_get_400(base_url, target):
    assert http_get(base_url, target) == BAD_REQUEST
