"""cmd=ps: the output of the machine's ps."""

import pytest

from support.answers import PS_HEAD, body_of

NEEDS_SANDBOX = True


def assert_process_list(answer):
    lines = body_of(answer, PS_HEAD).decode().splitlines()
    assert lines[0].split() == ["PID", "TTY", "TIME", "CMD"]
    rows = [line.split() for line in lines[1:]]
    assert all(row[0].isdigit() for row in rows), rows
    assert any(row[3] == "ps" for row in rows), rows


def test_answer_is_a_text_download_with_the_list_of_ps(daemon):
    assert_process_list(daemon.answer(b"/x", b"cmd=ps"))


@pytest.mark.parametrize("query", [b"cmd=psx", b"cmd=ps%20-ef", b"a=1&cmd=ps&b=2", b"c%6dd=p%73"])
def test_longer_values_and_other_spellings_are_accepted(daemon, query):
    assert_process_list(daemon.answer(b"/x", query))


def test_20_lists_can_be_made_at_once(daemon):
    idle = daemon.idle_state()
    browsers = [daemon.ask(b"/x", b"cmd=ps") for _ in range(20)]
    for browser in browsers:
        assert_process_list(browser.read_all())
    daemon.wait_until_idle(idle)


def test_path_is_ignored(daemon):
    assert_process_list(daemon.answer(b"", b"cmd=ps"))
