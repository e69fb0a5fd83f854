"""Cores of live processes, in the archive and alone, from dumpers of every kind."""

import contextlib
import gzip
import pathlib
import subprocess
import types

import pytest

from support.answers import BAD_REQUEST, BUSY_PAGE, COMPRESSED_HEAD, CORE_HEAD, PLAIN_HEAD, body_of
from support.archives import assert_whole, split_tar
from support.daemon import OFF, ON, Daemon, when_free
from support.processes import children_of, process_stat
from support.processes import has_command_line
from support.system_log import Log, log_error
from support.waiting import PATIENCE, wait_for

NEEDS_SANDBOX = True

MEBI = 1 << 20


def line(length, pids="", size=None):
    """A control line. `size`: its length with the newline."""
    text = f"Core of:{length} bytes; and covered: {pids}"
    return text + "x" * (size - 1 - len(text) if size else 0) + "\n"


def say(text):
    """A shell command that writes to standard error."""
    return f"printf '%s' '{text}' >&2\n"


def write(text):
    """A shell command that writes to standard output."""
    return f"printf '%s' '{text}'\n"


def fill(size, redirection=""):
    """A shell command that writes zero bytes."""
    return f"head -c {size} /dev/zero {redirection}\n"


GOOD = say(line(4)) + write("core")
NONE = say(line(0) + "nothing to dump")


class Victims:
    """Sleeping processes, and a dumper that runs a script for each of them."""

    def __init__(self, folder):
        self.folder = folder / "victims"
        self.folder.mkdir()
        self.dumper = folder / "dumper"
        self.dumper.write_text(f'#!/bin/sh\nexec /bin/sh "{self.folder}/$3" "$@"\n')
        self.dumper.chmod(0o755)
        self.sleepers = {}

    def add(self, name, script):
        """Starts a process called `name`, for which the dumper runs `script`. Returns its pid."""
        sleeper = subprocess.Popen([f"/zarvo-test/{name}", "1000"], executable="/bin/sleep")
        wait_for(lambda: has_command_line(sleeper.pid), "command line")
        self.sleepers[name] = sleeper
        self.also_dumps(sleeper.pid, script)
        return sleeper.pid

    def also_dumps(self, pid, script):
        (self.folder / str(pid)).write_text(script)

    def pid(self, name):
        return self.sleepers[name].pid

    def core(self, name):
        return f"{name}.{self.pid(name)}/core"

    def fdmap(self, name):
        return f"{name}.{self.pid(name)}/fdmap"

    def states(self):
        return {process_stat(sleeper.pid)[0] for sleeper in self.sleepers.values()}

    def wait_asleep(self):
        """A process that has just been detached may not be asleep again yet."""
        wait_for(lambda: self.states() <= {"S"}, self.states)

    def end(self):
        for sleeper in self.sleepers.values():
            sleeper.kill()
            sleeper.wait()


@pytest.fixture
def victims(clean_sandbox, tmp_path):
    made = Victims(tmp_path)
    yield made
    made.end()


@pytest.fixture
def dumping(victims, start):
    """A daemon with the victims' dumper. It must be idle at the end."""
    daemon = start("-p", victims.dumper)
    idle = daemon.idle_state()
    yield daemon
    daemon.wait_until_idle(idle)
    victims.wait_asleep()


def archive_of(daemon, path=b"/x/debug.tar"):
    """The stream, and what the daemon wrote to standard error meanwhile."""
    before = len(daemon.said())
    answer = daemon.answer(path)
    compressed = path.endswith(b"tgz")
    stream = body_of(answer, COMPRESSED_HEAD if compressed else PLAIN_HEAD)
    wait_for(lambda: daemon.switches().endswith(ON), daemon.switches)
    return (gzip.decompress(stream) if compressed else stream), daemon.said()[before:]


def cores_in(members):
    """{name: data} of the members that the dumps have made."""
    return {member.name: member.data for member in members if member.name.endswith(("/core", "/fdmap"))}


def core_request(pid):
    return b"cmd=coredump&pid=" + str(pid).encode()


# What the dumper does, the core that is stored (None: none), whether a map of descriptors follows it, and what the
# daemon writes to standard error. PID stands for the pid.
FAILED = "dump_one: failed dumping pid=PID\n"
ERROR = "dump error for pid PID"
TOO_LONG = (
    "dump_read_ctl_line: Failed to read ctl line. Read length: 512."
    "Buffer is too small, current buffer size: 512\n"
)
THOUSAND_PIDS = " ".join(str(pid) for pid in range(100000, 101000))
CASES = {
    "good": (GOOD, b"core", True, ""),
    "empty-line": (say("\n") + write("core"), None, False, FAILED),
    "no-number": (say(line("none")) + write("core"), None, False, FAILED),
    "twenty-digits": (say(line("12345678901234567890")) + write("core"), None, False, FAILED),
    "negative": (say(line("-4")) + write("core"), None, False, FAILED),
    "nothing": (NONE, None, False, FAILED),
    "line-of-511": (say(line(4, size=511)) + write("core"), b"core", True, ""),
    "line-of-512": (say(line(4, size=512)) + write("core"), None, False, FAILED),
    "line-of-513": (say(line(4, size=513)) + write("core"), None, False, TOO_LONG + FAILED),
    "thousand-pids": (say(line(4, THOUSAND_PIDS)) + write("core"), None, False, TOO_LONG + FAILED),
    "fails-at-once": (say("no way\n") + "exit 3", None, False, FAILED + ERROR),
    "fails-at-the-end": (GOOD + "exit 3", b"core", False, ERROR),
    "killed-at-the-end": (GOOD + "kill -9 $$", b"core", False, ERROR),
    "talkative": (
        say(line(200000)) + fill(100000) + fill(MEBI, ">&2") + fill(100000) + fill(MEBI, ">&2"),
        bytes(200000), True, "",
    ),
    "talks-on-in-the-same-write": (say(line(4) + "m" * 900) + write("core"), b"core", True, ""),
    "large": (say(line(5 * MEBI)) + fill(5 * MEBI), bytes(5 * MEBI), True, ""),
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
    victims.also_dumps(victims.pid("good"), say(line(4, covered)) + write("core"))
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
    pid = victims.add("short", say(line(1000)) + fill(600, "| tr '\\0' c") + say("sorry"))
    stream, said = archive_of(dumping)
    assert said.endswith(f"WARNING: err=600 clen=1000 pid={pid}\nsorry")
    core, after = core_and_rest(stream, victims, "short")
    assert core == b"c" * 600 + bytes(400)
    assert after == [victims.fdmap("short")]


def test_long_core_is_truncated(dumping, victims):
    pid = victims.add("long", say(line(4)) + write("corerest"))
    stream, said = archive_of(dumping)
    assert said.endswith(f"WARNING: err=8 clen=4 pid={pid}\n")
    assert core_and_rest(stream, victims, "long") == (b"core", [victims.fdmap("long")])


@pytest.mark.parametrize("tool", ["tar", "bsdtar"])
def test_dumper_that_dies_within_its_core_affects_no_other_member(dumping, victims, tool, tmp_path):
    pid = victims.add("dying", say(line(143360)) + fill(50001, "| tr '\\0' c") + say("help\n") + "kill -9 $$")
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
    # A member name of more than 100 bytes would be cut: within the pid, before its last part, or within that.
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
    first = victims.add("first", say(line(30000000)) + say("why\n") + noise)
    second = victims.add("second", GOOD)
    head = COMPRESSED_HEAD if path.endswith(b"tgz") else PLAIN_HEAD
    browser = dumping.ask(path, buffer_size=4096)
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


@pytest.mark.parametrize("by_name", [False, True], ids=["number", "name"])
def test_single_core_is_what_the_dumper_writes(dumping, victims, by_name):
    size = 3_000_000
    pid = victims.add("single", say(line(size)) + fill(MEBI, ">&2") + fill(size))
    assert dumping.answer(b"/x", core_request("single" if by_name else pid)) == CORE_HEAD + bytes(size)
    assert dumping.said() == ""


def test_single_core_gives_the_dumper_its_arguments(dumping, victims):
    pid = victims.add("single", 'printf "%s|" "$#" "$@"')
    assert dumping.answer(b"no-slash", core_request(pid)) == CORE_HEAD + b"3|-c|/dev/stdout|%d|" % pid


@pytest.mark.parametrize(
    "script", ["exit 3", "kill -9 $$", say(line(4)) + "exit 1"], ids=["status", "signal", "after-line"]
)
def test_single_core_of_a_dumper_that_fails_is_empty(dumping, victims, script):
    pid = victims.add("single", script)
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD
    assert dumping.said() == f"dump error for pid {pid}\n"


@pytest.mark.parametrize(
    "script, reason",
    [
        (say(line(0) + "dcore: process PID is traced by 17\n"), line(0)[:-1] + " dcore: process PID is traced by 17"),
        (say(line(4) + "later") + "exec >&-; " + say(" still\n") + "exit 1", line(4)[:-1] + " later still"),
        ("exit 3", "the dumper said nothing"),
        ("kill -9 $$", "the dumper said nothing"),
    ],
    ids=["none", "late", "status", "signal"],
)
def test_reason_for_an_empty_core_is_logged(dumping, victims, script, reason):
    pid = victims.add("single", "")
    victims.also_dumps(pid, script.replace("PID", str(pid)))
    log = Log()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD
    assert log.wait(1) == [log_error(dumping.pid, f"No core of pid {pid}: " + reason.replace("PID", str(pid)))]


def test_reason_for_a_truncated_core_is_logged(dumping, victims):
    pid = victims.add("single", write("part") + say("ran out of memory\n") + "exit 1")
    log = Log()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD + b"part"
    assert log.wait(1) == [log_error(dumping.pid, f"Core of pid {pid} is not complete: ran out of memory")]


def test_reason_for_an_empty_core_of_the_daemon_itself_is_logged(dumping, victims):
    victims.also_dumps(dumping.pid, say("no memory\n"))
    log = Log()
    assert dumping.answer(b"/x", core_request(dumping.pid)) == CORE_HEAD
    assert log.wait(1) == [log_error(dumping.pid, f"No core of pid {dumping.pid}: no memory")]


def test_complete_cores_and_leaving_browsers_are_not_logged(dumping, victims):
    pid = victims.add("single", fill(20 * MEBI))
    log = Log()
    browser = dumping.ask(b"/x", core_request(pid), buffer_size=4096)
    assert browser.read(len(CORE_HEAD) + 5000) == CORE_HEAD + bytes(5000)
    browser.close()
    assert dumping.answer(b"/x", core_request(pid)) == CORE_HEAD + bytes(20 * MEBI)
    assert log.lines() == []


def test_single_core_of_an_unknown_name_starts_no_dumper(dumping, victims):
    assert dumping.answer(b"/x", core_request("no-such-name")) == BAD_REQUEST
    assert dumping.said() == ""


def test_single_core_is_dropped_when_its_browser_leaves(dumping, victims):
    pid = victims.add("single", fill(20 * MEBI))
    browser = dumping.ask(b"/x", core_request(pid), buffer_size=4096)
    assert browser.read(len(CORE_HEAD) + 5000) == CORE_HEAD + bytes(5000)
    browser.close()
    dumping.sync()
    assert children_of(dumping.pid) == []


def test_daemon_dumps_itself_although_it_is_stopped_meanwhile(dumping, victims):
    size = 3_000_000
    victims.also_dumps(dumping.pid, f"kill -STOP $3\n{fill(size)}kill -CONT $3\n")
    waiting = dumping.waiting_browser()
    assert dumping.answer(b"/x", core_request(dumping.pid)) == CORE_HEAD + bytes(size)
    dumping.push(b"pushed")
    assert waiting.read_all() == CORE_HEAD + b"pushed"


def test_single_core_during_an_archives_dumps_is_of_the_right_process(dumping, victims):
    gate = victims.folder / "gate"
    slow = f"while [ ! -e {gate} ]; do sleep 0.05; done\n"
    first = victims.add("first", f"{say(line(20))}{write('1234567890')}{slow}{write('1234567890')}")
    announce = 'printf "Core of:%s bytes\\n" ${#3} >&2\n'
    other = victims.add("other", announce + 'printf "%s" "$3"')
    archive = dumping.ask(b"/x/debug.tar")

    def is_dumping_first():
        commands = [pathlib.Path(f"/proc/{pid}/cmdline") for pid, _ in children_of(dumping.pid)]
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            return any(str(first).encode() in command.read_bytes() for command in commands)

    archive.near.settimeout(4 * PATIENCE)
    assert archive.read(len(PLAIN_HEAD)) == PLAIN_HEAD
    pieces = []

    def has_reached_first_core():
        pieces.append(archive.near.recv(1 << 16))
        return victims.core("first").encode() in b"".join(pieces[-2:])

    wait_for(has_reached_first_core, "the first core", 4 * PATIENCE)
    wait_for(is_dumping_first, "dumping the first process")
    for _ in range(3):
        assert dumping.answer(b"/x", core_request(other)) == CORE_HEAD + str(other).encode()
    assert dumping.answer(b"/x/debug.tar") == BUSY_PAGE
    gate.touch()
    stored = cores_in(assert_whole(b"".join(pieces) + archive.read_all()))
    assert stored[victims.core("first")] == b"1234567890" * 2
    assert stored[victims.core("other")] == str(other).encode()
