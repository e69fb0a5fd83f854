"""Archives as a browser gets them. Speaks only HTTP, so that it can test another machine as well."""

import pytest

from zarvo_e2e import (
    BAD_REQUEST, BUSY_PAGE, COMPRESSED_HEAD, PLAIN_HEAD, PS_HEAD, archive_number,
    assert_compressed_whole, assert_whole, body_of, http_get, http_open, when_free,
)  # fmt: skip

NEEDS_SANDBOX = True

SMALL_ROOM = 4096


def stalled_archive(base_url, target):
    """A browser that has read the head of an archive and stops there."""
    head = PLAIN_HEAD if target.endswith(".tar") else COMPRESSED_HEAD
    client = http_open(base_url, target, room=SMALL_ROOM)
    got = b""
    while len(got) < len(head):
        got += client.recv(len(head) - len(got))
    assert got == head
    return client


def test_compressed_archive_is_whole(base_url):
    assert_compressed_whole(body_of(http_get(base_url, "/debug.tgz"), COMPRESSED_HEAD))


def test_plain_archive_is_whole(base_url):
    assert_whole(body_of(http_get(base_url, "/debug.tar"), PLAIN_HEAD))


@pytest.mark.parametrize("target", ["/cgi-bin/coredumps.tgz", "/debug.tgz.old"])
def test_names_that_begin_with_those_of_compressed_archives_give_debug_tgz(base_url, target):
    assert_compressed_whole(body_of(http_get(base_url, target), COMPRESSED_HEAD))


@pytest.mark.parametrize("target", ["/x/anything", "/x/Debug.tgz"])
def test_any_other_name_gives_debug_tar(base_url, target):
    assert_whole(body_of(http_get(base_url, target), PLAIN_HEAD))


def test_counter_goes_up_by_one_with_each_archive(base_url):
    first = split_number(base_url)
    assert split_number(base_url) == first + 1


def split_number(base_url):
    return archive_number(assert_whole(body_of(http_get(base_url, "/x/count"), PLAIN_HEAD)))


@pytest.mark.parametrize("target", ["/debug.tgz", "/debug.tar"])
def test_second_archive_gets_the_busy_page_while_one_runs(base_url, target):
    with stalled_archive(base_url, target):
        assert http_get(base_url, "/debug.tgz") == BUSY_PAGE
        assert http_get(base_url, "/debug.tar") == BUSY_PAGE
        assert body_of(http_get(base_url, "/x?cmd=ps"), PS_HEAD) != b""
    assert_whole(body_of(when_free(lambda: http_get(base_url, "/debug.tar")), PLAIN_HEAD))


def test_archive_that_waited_for_its_browser_is_whole(base_url):
    with stalled_archive(base_url, "/debug.tgz") as client:
        assert http_get(base_url, "/debug.tgz") == BUSY_PAGE
        pieces = []
        while piece := client.recv(1 << 16):
            pieces.append(piece)
    assert_compressed_whole(b"".join(pieces))


def test_end_of_a_download_means_that_the_next_may_begin(base_url):
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
def test_requests_that_make_no_sense_get_400(base_url, target):
    assert http_get(base_url, target) == BAD_REQUEST
