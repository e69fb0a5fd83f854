"""Cores of live processes in the archive, from dumpers of every kind."""

import gzip
import subprocess
import types

import pytest

from support.answers import COMPRESSED_HEAD, PLAIN_HEAD, body_of
from support.archives import assert_whole, split_tar
from support.connections import SMALL_BUFFER
from support.daemon import OFF, ON, Daemon, when_free
from support.processes import children_of
from support.victims import GOOD, MEBI, NONE, Victims, control_line, cores_in, to_stderr, to_stdout, zeros
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True
pytest_plugins = ["victim_fixtures"]


def archive_of(daemon, path=b"/x/debug.tar"):
    """The stream, and what the daemon wrote to standard error meanwhile."""
    before = len(daemon.said())
    answer = daemon.answer(path)
    compressed = path.endswith(b"tgz")
    stream = body_of(answer, COMPRESSED_HEAD if compressed else PLAIN_HEAD)
    wait_for(lambda: daemon.switches().endswith(ON), daemon.switches)
    return (gzip.decompress(stream) if compressed else stream), daemon.said()[before:]


# What the dumper does, the core that is stored (None: none), whether a map of descriptors follows it, and
# what the daemon writes to standard error. PID stands for the pid.
FAILED = "dump_one: failed dumping pid=PID\n"
ERROR = "dump error for pid PID"
TOO_LONG = (
    "dump_read_ctl_line: Failed to read ctl line. Read length: 512."
    "Buffer is too small, current buffer size: 512\n"
)
THOUSAND_PIDS = " ".join(str(pid) for pid in range(100000, 101000))
CASES = {
    "good": (GOOD, b"core", True, ""),
    "empty-line": (to_stderr("\n") + to_stdout("core"), None, False, FAILED),
    "no-number": (to_stderr(control_line("none")) + to_stdout("core"), None, False, FAILED),
    "twenty-digits": (to_stderr(control_line("12345678901234567890")) + to_stdout("core"), None, False, FAILED),
    "negative": (to_stderr(control_line("-4")) + to_stdout("core"), None, False, FAILED),
    "nothing": (NONE, None, False, FAILED),
    "line-of-511": (to_stderr(control_line(4, size=511)) + to_stdout("core"), b"core", True, ""),
    "line-of-512": (to_stderr(control_line(4, size=512)) + to_stdout("core"), None, False, FAILED),
    "line-of-513": (to_stderr(control_line(4, size=513)) + to_stdout("core"), None, False, TOO_LONG + FAILED),
    "thousand-pids": (to_stderr(control_line(4, THOUSAND_PIDS)) + to_stdout("core"), None, False, TOO_LONG + FAILED),
    "fails-at-once": (to_stderr("no way\n") + "exit 3", None, False, FAILED + ERROR),
    "fails-at-the-end": (GOOD + "exit 3", b"core", False, ERROR),
    "killed-at-the-end": (GOOD + "kill -9 $$", b"core", False, ERROR),
    "talkative": (
        to_stderr(control_line(200000)) + zeros(100000) + zeros(MEBI, ">&2") + zeros(100000) + zeros(MEBI, ">&2"),
        bytes(200000), True, "",
    ),
    "talks-on-in-the-same-write": (to_stderr(control_line(4) + "m" * 900) + to_stdout("core"), b"core", True, ""),
    "large": (to_stderr(control_line(5 * MEBI)) + zeros(5 * MEBI), bytes(5 * MEBI), True, ""),
}  # fmt: skip


@pytest.fixture(scope="module")
def taken(sandbox, tmp_path_factory):
    """An archive with a victim for each case, and some victims that other dumps cover."""
    folder = tmp_path_factory.mktemp("cases")
    victims = Victims(folder)
    for name, (script, *_) in CASES.items():
        victims.add(name, script)
    for name in ("later-1", "later-2", "later-3"):
        victims.add(name, GOOD)
    # Processes are dumped in the order of their pids, so these come after the one that covers them.
    covered = "{} x{},{}".format(*(victims.pid(f"later-{number}") for number in (1, 2, 3)))
    victims.also_dumps(victims.pid("good"), to_stderr(control_line(4, covered)) + to_stdout("core"))
    daemon = Daemon(folder / "daemon", "-p", victims.dumper)
    try:
        idle = daemon.idle_state()
        stream, said = archive_of(daemon)
        daemon.wait_until_idle(idle)
        compressed, _ = archive_of(daemon, b"/x/debug.tgz")
        daemon.wait_until_idle(idle)
        victims.wait_asleep()
        states = victims.states()
    finally:
        daemon.stop()
        victims.end()
    yield types.SimpleNamespace(
        victims=victims, stream=stream, said=said, compressed=compressed, states=states,
        members=split_tar(stream),
    )  # fmt: skip


def test_archive_with_cores_is_complete(taken):
    assert_whole(taken.stream)
    assert_whole(taken.compressed)


def test_compressed_archive_has_the_same_cores(taken):
    plain, compressed = cores_in(taken.members), cores_in(split_tar(taken.compressed))
    assert {name: data for name, data in compressed.items() if name.endswith("/core")} == {
        name: data for name, data in plain.items() if name.endswith("/core")
    }
    assert compressed.keys() == plain.keys()


@pytest.mark.parametrize("name", CASES)
def test_core_is_stored_as_the_dumper_writes_it(taken, name):
    _, core, with_map, said = CASES[name]
    stored = cores_in(taken.members)
    assert stored.get(taken.victims.core(name)) == core
    assert (taken.victims.fdmap(name) in stored) == with_map
    assert said.replace("PID", str(taken.victims.pid(name))) in taken.said


def test_daemon_writes_nothing_else_about_the_dumps(taken):
    expected = "".join(
        said.replace("PID", str(taken.victims.pid(name))) for name, (*_, said) in CASES.items()
    )
    dumps = [text for text in taken.said.splitlines() if "dump" in text]
    assert dumps == [text for text in expected.splitlines() if "dump" in text]


def test_covered_processes_are_not_dumped_again(taken):
    names = {member.name.partition(".")[0] for member in taken.members if member.name.endswith("/core")}
    # "x" is skipped. Only as many numbers are read as there are blanks, so "B,C" counts as one.
    assert "later-1" not in names and "later-2" not in names
    assert "later-3" in names


def test_map_lists_the_descriptors_of_the_process(taken):
    text = cores_in(taken.members)[taken.victims.fdmap("good")].decode()
    assert text.startswith("total 0\n")
    assert all(f" {number} -> " in text for number in (0, 1, 2))


def test_map_follows_its_core(taken):
    names = [member.name for member in taken.members if member.name.endswith(("/core", "/fdmap"))]
    for name in names:
        if name.endswith("/fdmap"):
            assert names[names.index(name) - 1] == name.replace("/fdmap", "/core")


def test_dumped_processes_are_asleep_again(taken):
    assert taken.states == {"S"}


def test_archive_without_a_dumper_is_complete_and_has_no_cores(start, victims):
    daemon = start("-p", "/nonexistent/dumper")
    pid = victims.add("victim", "")
    stream, said = archive_of(daemon)
    assert cores_in(assert_whole(stream)) == {}
    assert f"dump_one: failed dumping pid={pid}\n" in said
    assert f"dump error for pid {pid}" in said


def core_and_rest(stream, victims, name):
    """The core of one victim in a complete archive, and the names of the members after it."""
    members = assert_whole(stream)
    at = [member.name for member in members].index(victims.core(name))
    return members[at].data, [member.name for member in members[at + 1 :]]


def test_short_core_is_padded_with_zeros(dumping, victims):
    pid = victims.add("short", to_stderr(control_line(1000)) + zeros(600, "| tr '\\0' c") + to_stderr("sorry"))
    stream, said = archive_of(dumping)
    assert said.endswith(f"WARNING: err=600 clen=1000 pid={pid}\nsorry")
    core, after = core_and_rest(stream, victims, "short")
    assert core == b"c" * 600 + bytes(400)
    assert after == [victims.fdmap("short")]


def test_long_core_is_truncated(dumping, victims):
    pid = victims.add("long", to_stderr(control_line(4)) + to_stdout("corerest"))
    stream, said = archive_of(dumping)
    assert said.endswith(f"WARNING: err=8 clen=4 pid={pid}\n")
    assert core_and_rest(stream, victims, "long") == (b"core", [victims.fdmap("long")])


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_dumper_that_dies_within_its_core_affects_no_other_member(dumping, victims, tool, tmp_path):
    content = zeros(50001, "| tr '\\0' c")
    pid = victims.add("dying", to_stderr(control_line(143360)) + content + to_stderr("help\n") + "kill -9 $$")
    victims.add("later", GOOD)
    stream, said = archive_of(dumping)
    assert f"WARNING: err=50001 clen=143360 pid={pid}\nhelp\ndump error for pid {pid}" in said
    core, after = core_and_rest(stream, victims, "dying")
    assert core == b"c" * 50001 + bytes(143360 - 50001)
    assert after == [victims.core("later"), victims.fdmap("later")]
    (tmp_path / "archive.tar").write_bytes(stream)
    listed = subprocess.run([tool, "-tf", tmp_path / "archive.tar"], capture_output=True, text=True, check=True)
    assert listed.stdout.endswith(victims.fdmap("later") + "\n")


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_programs_with_long_names_affect_no_other_member(dumping, victims, tool, tmp_path):
    # A member name over 100 bytes would be cut within the pid, before the last part of the name, or within it.
    names = ["n" * length for length in (60, 64, 65, 66, 67, 68, 70, 79)]
    for name in names:
        victims.add(name, GOOD)
    stream, _ = archive_of(dumping)
    members = assert_whole(stream)
    stored = [member.name for member in members if member.name.endswith(("/core", "/fdmap"))]
    expected = []
    for name in names:
        folders = {member.rsplit("/", 1)[0] for member in stored if f".{victims.pid(name)}/" in member}
        assert len(folders) == 1, name
        assert name.startswith(next(iter(folders)).split(".")[0])
        expected += [f"{next(iter(folders))}/core", f"{next(iter(folders))}/fdmap"]
    assert stored == expected
    (tmp_path / "archive.tar").write_bytes(stream)
    listed = subprocess.run([tool, "-tf", tmp_path / "archive.tar"], capture_output=True, text=True, check=True)
    shown = [path.split("/", 1)[1] for path in listed.stdout.splitlines()]
    assert [name for name in shown if name.endswith(("/core", "/fdmap"))] == expected


@pytest.mark.parametrize("path", [b"/x/debug.tar", b"/x/debug.tgz"])
def test_archive_ends_when_its_browser_leaves_within_a_core(dumping, victims, path):
    noise = "head -c 30000000 /dev/urandom\n"
    first = victims.add("first", to_stderr(control_line(30000000)) + to_stderr("why\n") + noise)
    second = victims.add("second", GOOD)
    head = COMPRESSED_HEAD if path.endswith(b"tgz") else PLAIN_HEAD
    browser = dumping.ask(path, buffer_size=SMALL_BUFFER)
    assert browser.read(len(head)) == head
    # All members before the cores are far smaller than this.
    browser.read(12 * MEBI)
    browser.close()
    wait_for(lambda: dumping.switches() == OFF + ON, dumping.switches, 4 * PATIENCE)
    said = dumping.said()
    assert said.count("ABORT!\n") == 1 and "WARNING" not in said
    assert "ABORT!\nwhy\n" in said
    assert not [text for text in said.splitlines() if str(second) in text]
    assert children_of(dumping.pid) == []
    victims.also_dumps(first, GOOD)
    stream = body_of(when_free(lambda: dumping.answer(b"/x/debug.tar")), PLAIN_HEAD)
    assert victims.core("second") in cores_in(assert_whole(stream))
