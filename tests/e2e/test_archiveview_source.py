"""archiveview: archives that are whole, cut, damaged, or made to harm their reader."""

import io
import json
import os
import re
import subprocess
import tarfile
import time

import pytest

from support import made_archives as made
from support.archives import BLOCK
from support.under_test import BIN, SANITIZE, without_leak_check
from support.waiting import PATIENCE

MEMORY_BOUND_KB = 256 << 10
SECONDS_BOUND = 5
WIDTH, HEIGHT = 100, 40
WHOLE, NOT_READABLE, USAGE, NOT_WHOLE = 0, 1, 2, 3
CUT_STEP = 4096

MEASURE = """
import os, resource, subprocess, sys
done = subprocess.run(sys.argv[2:])
used = resource.getrusage(resource.RUSAGE_CHILDREN)
os.write(int(sys.argv[1]), b"%d %f" % (used.ru_maxrss, used.ru_utime + used.ru_stime))
sys.exit(done.returncode)
"""


def view(*words, stdin=b"", status=WHOLE):
    done = subprocess.run([BIN / "archiveview", *words], input=stdin, capture_output=True, timeout=PATIENCE)
    assert done.returncode == status, (done.returncode, done.stdout, done.stderr)
    return done


def verdict(stream, status):
    """The first sentences of the text, with what is missing, as one line."""
    text = view("-", stdin=stream, status=status).stdout.decode()
    lines = text.splitlines()
    assert len(lines) <= HEIGHT and max(map(len, lines)) <= WIDTH
    return re.sub(r"\n    |\n(?=missing: )", " ", text).splitlines()[0]


FORMS = {"full.tgz": lambda size: made.packed(made.full_tar(size)), "full.tar": made.full_tar,
         "usual.tgz": lambda size: made.packed(made.usual_tar(size)), "usual.tar": made.usual_tar}  # fmt: skip


@pytest.mark.parametrize("form", ["full.tgz", "full.tar", "usual.tgz"])
def test_whole_archive_is_whole(form):
    stream = FORMS[form](20000)
    stored = made.full_members() if form.startswith("full") else made.members(False)
    kind = form.partition(".")[0]
    size = sum(len(data) for _, data in stored)
    assert verdict(stream, WHOLE) == f"whole: {len(stored)} members, {size / 1000:.1f} kB, {kind} form"


def test_uncompressed_archive_of_the_usual_form_is_never_whole():
    assert "nothing marks the end" in verdict(made.usual_tar(), NOT_WHOLE)


def full_archive(stored):
    return made.packed(made.tar_of([*stored, ("manifest.txt", made.manifest_of(stored))]))


def test_device_need_not_have_all_members():
    optional = ("media.conf", "dbg-monitor.txt", "serverreport.txt", "oopslog", "dmesg.txt")
    stored = [one for one in made.members() if one[0] not in optional]
    assert verdict(full_archive(stored), WHOLE).startswith("whole")


def test_member_that_stands_where_none_belongs_is_damage():
    assert "kcore does not belong where it stands" in verdict(full_archive([*made.members(), ("kcore", b"x")]), NOT_WHOLE)


def test_second_look_may_have_the_stamp_of_the_first():
    stored = [(name.replace(made.SECOND, made.FIRST), data) for name, data in made.members()]
    assert verdict(full_archive(stored), WHOLE).startswith("whole")


def cut_place(stored, cut):
    """Where a tar ends that is cut: (member, its bytes), or (None, None) at the border or in the header of one."""
    at = 0
    for name, data in stored:
        data_end = at + BLOCK + len(data)
        end = data_end + -len(data) % BLOCK
        if at + BLOCK < cut < end or at + BLOCK == cut < end:
            return name, min(cut, data_end) - at - BLOCK
        at = end
    return None, None


def facts_of(stream, status):
    """The facts as JSON, of an archive that may be cut."""
    return json.loads(view("--json", "-", stdin=stream, status=status).stdout)


def test_facts_of_what_is_there_are_shown():
    stored = made.full_members()
    stream = made.tar_of(stored)
    names = [name for name, _ in stored]
    host_known = len(made.tar_of(stored[: names.index("proc/sys/kernel/hostname") + 1]))
    process_known = len(made.tar_of(stored[: names.index(f"processes.{made.FIRST}/{made.PID}/status") + 1]))
    headers = [len(made.tar_of(stored[:count])) + BLOCK for count in range(len(stored))]
    for cut in range(CUT_STEP, len(stream), CUT_STEP * (4 if SANITIZE else 1)):
        facts = facts_of(stream[:cut], NOT_WHOLE)
        assert facts["archive"]["state"] == "cut"
        assert facts["archive"]["members"] == sum(end <= cut for end in headers)
        if cut >= host_known:
            assert facts["device"]["host"] == made.HOST
        if cut >= process_known:
            assert (made.PID, "httpd") in [(one["pid"], one["name"]) for one in facts["processes"]]
    assert facts_of(stream, WHOLE)["archive"]["state"] == "whole"


def assert_cut(line, stored, cut):
    name, size = cut_place(stored, cut)
    if name is None:
        assert line.startswith("cut: "), (cut, line)
    else:
        assert line.startswith(f"cut in {name} after {size} byte"), (cut, line)


@pytest.mark.parametrize("is_full", [True, False])
def test_tar_that_is_cut_says_where(is_full):
    stored = made.full_members() if is_full else made.members(False)
    stream = made.tar_of(stored)
    form_known = len(made.tar_of(stored[:3]))  # system.txt
    cuts = sorted({*range(CUT_STEP, len(stream), CUT_STEP), *range(BLOCK, len(stream), 4 * BLOCK + 1)})
    for cut in cuts[:: 4 if SANITIZE else 1]:
        line = verdict(stream[:cut], NOT_WHOLE)
        assert_cut(line, stored, cut)
        last = "manifest" if is_full and cut > form_known else "cores of processes"
        assert last in line or "nothing marks the end" in line, (cut, line)


def members_there(line):
    return int(re.search(r"\((\d+) members?, ", line)[1])


@pytest.mark.parametrize("form", ["full.tgz", "usual.tgz"])
@pytest.mark.parametrize("size, step", [(20000, CUT_STEP), (600, 37)])
def test_compressed_archive_that_is_cut_is_never_whole(form, size, step):
    stream = FORMS[form](size)
    found = []
    cuts = [*range(0, len(stream), step), *range(len(stream) - 9, len(stream))]
    for cut in cuts[:: 4 if SANITIZE else 1]:
        done = subprocess.run([BIN / "archiveview", "-"], input=stream[:cut], capture_output=True, timeout=PATIENCE)
        if done.returncode == NOT_WHOLE:
            found.append(members_there(verdict(stream[:cut], NOT_WHOLE)))
            assert done.stdout.startswith(b"cut")
        else:
            assert done.returncode == NOT_READABLE and cut < 400, (cut, done)
            assert len(done.stderr.splitlines()) == 1
    assert found == sorted(found) and found[-1] == len(made.full_members() if form == "full.tgz" else made.members(False))


def test_order_of_members_decides_in_the_usual_form():
    stored = made.members(False)
    for number, (name, _) in enumerate(stored):
        rest = stored[:number] + stored[number + 1 :]
        is_needed = name in ("strace.log", "netdump.cap")
        line = verdict(made.packed(made.tar_of(rest)), NOT_WHOLE if is_needed else WHOLE)
        assert line.startswith("cut: it lacks members" if is_needed else "whole"), (name, line)


def test_manifest_must_agree_with_the_members():
    stored = made.members()
    manifest = ("manifest.txt", made.manifest_of(stored))
    for number, (name, data) in enumerate(stored):
        without = made.packed(made.tar_of([*stored[:number], *stored[number + 1 :], manifest]))
        assert not verdict(without, NOT_WHOLE).startswith("whole"), name
        longer = [*stored[:number], (name, data + b"x"), *stored[number + 1 :], manifest]
        assert f"{name} does not have the size" in verdict(made.packed(made.tar_of(longer)), NOT_WHOLE)
    incomplete = ("manifest.txt", manifest[1].replace(b"\ncomplete\n", b"\n"))
    assert "does not end with" in verdict(made.packed(made.tar_of([*stored, incomplete])), NOT_WHOLE)


def damaged(stream, at, value=None):
    return stream[:at] + bytes([stream[at] ^ 0xFF if value is None else value]) + stream[at + 1 :]


def test_wrong_checksum_or_length_is_damage():
    stream = made.packed(made.full_tar())
    for at in (-8, -5, -4, -1):
        line = verdict(damaged(stream, len(stream) + at), NOT_WHOLE)
        assert line.startswith("damaged") and "checksum" in line


def test_wrong_byte_in_compressed_data_is_never_whole():
    stream = made.packed(made.full_tar(600))
    for at in range(10, len(stream) - 8, 97):
        done = subprocess.run([BIN / "archiveview", "-"], input=damaged(stream, at), capture_output=True, timeout=PATIENCE)
        assert done.returncode in (NOT_READABLE, NOT_WHOLE), at
        assert not done.stdout.startswith(b"whole")


def test_garbage_instead_of_a_header_is_damage():
    stored = made.full_members()
    at = len(made.tar_of(stored[:9]))
    stream = made.full_tar()
    line = verdict(stream[:at] + b"garbage!" * 64 + stream[at + BLOCK :], NOT_WHOLE)
    assert line.startswith(f"damaged: what follows {made.TOP}{stored[8][0]} is not a member's header")
    assert "(9 members" in line


ENDS = {
    "a byte after the compressed data": lambda: made.packed(made.full_tar()) + b"x",
    "zeros after the compressed data": lambda: made.packed(made.full_tar()) + bytes(512),
    "an archive after the archive": lambda: made.packed(made.full_tar()) * 2,
    "a tar after the tar": lambda: made.full_tar() * 2,
    "garbage after the tar": lambda: made.full_tar() + b"garbage " * 100,
    "zeros and garbage after the tar": lambda: made.full_tar() + bytes(5000) + b"garbage",
    "zeros in the middle": lambda: made.tar_of(made.full_members()[:8]) + bytes(1024) + made.full_tar(),
    "too many zeros after the tar": lambda: made.packed(made.full_tar() + bytes(20 << 20)),
}  # fmt: skip


@pytest.mark.parametrize("kind", ENDS)
def test_what_follows_the_end_is_damage(kind):
    assert verdict(ENDS[kind](), NOT_WHOLE).startswith("damaged: ")


def test_archive_may_be_filled_up_with_zeros():
    assert verdict(made.full_tar() + bytes(10240), WHOLE).startswith("whole")


# Archives that are made to harm their reader.


def gnu_tar(name, data=b"x", form=tarfile.GNU_FORMAT, **fields):
    target = io.BytesIO()
    with tarfile.open(fileobj=target, mode="w", format=form) as tar:
        member = tarfile.TarInfo(made.TOP + name)
        member.size = len(data)
        for field, value in fields.items():
            setattr(member, field, value)
        tar.addfile(member, io.BytesIO(data))
    return target.getvalue()


def with_field(header, offset, value):
    changed = bytearray(header)
    changed[offset : offset + len(value)] = value
    changed[148:156] = b" " * 8
    changed[148:156] = b"%06o\0 " % sum(changed[:BLOCK])
    return bytes(changed)


def header_with_size(text, name="strace.log"):
    return with_field(made.member_bytes(name, b""), 124, text)


def sparse_tar(real_size):
    """A member of a few bytes that says it is a file of `real_size` bytes with one hole."""
    header = with_field(made.member_bytes("strace.log", b"", size=BLOCK), 156, b"S")
    header = with_field(header, 386, b"%011o\0%011o\0" % (0, BLOCK))
    header = with_field(header, 483, b"\x80" + real_size.to_bytes(11, "big"))
    return with_field(header, 257, b"ustar  \0") + bytes(BLOCK)


MEGABYTE = 1 << 20
BOMBS = {
    "a GB of zeros": lambda: made.packed_repeats(b"", bytes(MEGABYTE), 1000),
    "a GB of zeros in a trace": lambda: made.packed_repeats(
        header_with_size(b"%011o\0" % (1000 * MEGABYTE)), bytes(MEGABYTE), 1000),
    "a GB of zeros in a core": lambda: made.packed_repeats(
        header_with_size(b"%011o\0" % (1000 * MEGABYTE), "httpd.1/core"), bytes(MEGABYTE), 1000),
    "a GB of lines in a file of processes": lambda: made.packed_repeats(
        header_with_size(b"%011o\0" % (1000 * MEGABYTE), f"processes.{made.FIRST}/1/status"), b"A: B\n" * 4096, 51200),
    "a million members": lambda: made.packed_repeats(b"", made.member_bytes("oopslog", b"") * 1000, 1000),
    "a million processes": lambda: made.packed_repeats(b"", b"".join(
        made.member_bytes(f"processes.{made.FIRST}/{pid}/stat", b"%d (x) S 1" % pid) for pid in range(1, 5001)), 200),
    "a million texts": lambda: made.packed_repeats(b"", made.member_bytes("note.txt", b"text " * 100) * 1000, 1000),
    "a name of 64 KiB": lambda: gnu_tar("x" * 65536),
    "a name of 64 KiB in a pax header": lambda: gnu_tar("x/" * 32768, form=tarfile.PAX_FORMAT),
    "a pax header of a GB": lambda: made.packed_repeats(
        with_field(header_with_size(b"%011o\0" % (1000 * MEGABYTE)), 156, b"x"), b"A" * MEGABYTE, 1000),
    "a long name of a GB": lambda: made.packed_repeats(
        with_field(header_with_size(b"%011o\0" % (1000 * MEGABYTE)), 156, b"L"), b"A" * MEGABYTE, 1000),
    "a size of 8 EiB": lambda: header_with_size(b"\x80" + (2**63 - 1).to_bytes(11, "big")) + b"text",
    "a size that is larger than any": lambda: header_with_size(b"\xff" * 12) + b"text",
    "a negative size": lambda: header_with_size(b"-0000000100\0") + bytes(BLOCK),
    "a size that is not a number": lambda: header_with_size(b"garbage!\0\0\0\0") + bytes(BLOCK),
    "a member without a name": lambda: made.member_bytes("", b"x", top=""),
    "a sparse file of 8 EiB": lambda: sparse_tar(2**63 - 1),
    "a hard link": lambda: gnu_tar("strace.log", b"", type=tarfile.LNKTYPE, linkname="/etc/passwd"),
    "a symbolic link": lambda: gnu_tar("strace.log", b"", type=tarfile.SYMTYPE, linkname="/etc/passwd"),
    "a device": lambda: gnu_tar("strace.log", b"", type=tarfile.CHRTYPE),
    "a name that leaves the folder": lambda: gnu_tar("../../etc/passwd"),
    "an archive within an archive": lambda: made.packed(made.member_bytes("debug.tgz", made.packed(made.full_tar()))),
    "a compressed compressed archive": lambda: made.packed(made.packed(made.full_tar())),
    "a gzip header that does not end": lambda: b"\x1f\x8b\x08\x1c\0\0\0\0\0\x03" + b"\xff\xff" + b"A" * 70000,
    "nothing": lambda: b"",
    "nothing, compressed": lambda: made.packed(b""),
    "a picture": lambda: b"\x89PNG\r\n\x1a\n" + os.urandom(5000),
}  # fmt: skip


def measured(*words):
    """Runs the program, and returns how it ended. It must stay within the bounds of memory and processor time."""
    read_end, write_end = os.pipe()
    done = subprocess.run(
        ["/usr/bin/python3", "-c", MEASURE, str(write_end), BIN / "archiveview", *words],
        capture_output=True, timeout=PATIENCE * 2, pass_fds=[write_end], env=without_leak_check())  # fmt: skip
    os.close(write_end)
    with open(read_end) as pipe:
        peak_kb, seconds = map(float, pipe.read().split())
    print(f"{peak_kb / 1024:.0f} MiB, {seconds:.2f} s: {done.stdout[:100]}")
    if not SANITIZE:
        assert peak_kb < MEMORY_BOUND_KB
        assert seconds < SECONDS_BOUND
    return done


@pytest.mark.parametrize("kind", BOMBS)
def test_bomb_ends_in_a_sentence(kind, tmp_path):
    path = tmp_path / "bomb"
    path.write_bytes(BOMBS[kind]())
    done = measured(path)
    assert done.returncode in (NOT_READABLE, NOT_WHOLE), done
    said = done.stdout if done.returncode == NOT_WHOLE else done.stderr
    assert re.match(rb"(damaged|cut|archiveview: .*bomb: its? )", said), done
    assert len(done.stderr.splitlines()) == (1 if done.returncode == NOT_READABLE else 0)


def busy_archive(megabytes):
    """An archive of a device with many processes, and large cores that do not shrink when compressed."""
    stored = made.members(True)
    looks = [one for one in stored if one[0].startswith("processes.2")]
    rest = [one for one in stored if not one[0].startswith(("processes.2", "httpd.", "unknown."))]

    def look(stamp):
        return [(name.replace(f"/{made.PID}/", f"/{pid}/"), data) for pid in range(1000, 2000)
                for name, data in looks if f".{stamp}/" in name]  # fmt: skip

    at = [name for name, _ in rest].index(f"proc.{made.FIRST}/stat")
    noise = os.urandom(MEGABYTE)
    cores = [(f"httpd.{pid}/core", noise * (megabytes // 10)) for pid in range(1000, 1010)]
    stored = [*rest[:at], *look(made.FIRST), *rest[at:-1], *look(made.SECOND), rest[-1], *cores]
    return made.tar_of([*stored, ("manifest.txt", made.manifest_of(stored))])


@pytest.fixture(scope="module")
def large(tmp_path_factory):
    """The paths of a large archive: {".tar": path, ".tgz": path}."""
    stream = busy_archive(100)
    paths = {kind: tmp_path_factory.mktemp("large") / f"debug{kind}" for kind in (".tar", ".tgz")}
    paths[".tar"].write_bytes(stream)
    paths[".tgz"].write_bytes(made.packed(stream))
    return paths


@pytest.mark.parametrize("kind", [".tar", ".tgz"])
@pytest.mark.parametrize("words", [[], ["--json"]], ids=["text", "json"])
def test_large_archive_is_read_within_the_bounds(large, kind, words):
    assert measured(*words, large[kind]).returncode == WHOLE


def test_control_characters_of_names_do_not_reach_the_terminal():
    hostile = "\x1b]0;owned\x07\x1b[2J\u009b31m\r\u202e.412/core"
    stored = [*made.members(False), (hostile, b"core")]
    stream = made.tar_of(stored)
    for data in (made.packed(stream), made.packed(stream)[:-20], stream[:-510], stream[:-512]):
        done = subprocess.run([BIN / "archiveview", "-"], input=data, capture_output=True, timeout=PATIENCE)
        text = done.stdout.decode() + done.stderr.decode()
        assert text.replace("\n", "").isprintable()


# The command line.


@pytest.fixture
def archive(tmp_path):
    path = tmp_path / "debug.tgz"
    path.write_bytes(made.packed(made.full_tar()))
    return path


@pytest.mark.parametrize("words, message", [
    ([], "missing file"),
    (["a", "b"], "more than one file"),
    (["--what", "a"], "unknown option '--what'"),
    (["-x", "a"], "unknown option '-x'"),
    (["--html"], "missing value after '--html'"),
    (["--json", "--html", "page", "a"], "more than one format"),
    (["--html", "page", "--json", "a"], "more than one format"),
])  # fmt: skip
def test_wrong_command_line_is_named(words, message):
    done = view(*words, status=USAGE)
    assert done.stderr.decode().startswith(f"archiveview: {message}\nusage: archiveview ") and done.stdout == b""


def test_help_prints_the_usage():
    assert view("--help").stdout.startswith(b"usage: archiveview ")
    assert view("-h").stderr == b""


def test_missing_file_is_named(tmp_path):
    done = view(tmp_path / "none", status=NOT_READABLE)
    assert done.stderr.decode() == f"archiveview: {tmp_path}/none: No such file or directory\n"


def test_folder_is_not_readable(tmp_path):
    assert b"Is a directory" in view(tmp_path, status=NOT_READABLE).stderr


def test_standard_input_is_read_as_it_comes(archive):
    words = [BIN / "archiveview", "-"]
    with subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        for byte in archive.read_bytes()[:3000]:
            program.stdin.write(bytes([byte]))
            program.stdin.flush()
        program.stdin.write(archive.read_bytes()[3000:])
        program.stdin.close()
        assert program.stdout.read().startswith(b"whole: ")
    assert program.returncode == WHOLE


@pytest.mark.parametrize("how", ["name", "symbolic link", "hard link", "standard input"])
def test_page_must_not_overwrite_its_archive(archive, tmp_path, how):
    before = archive.read_bytes()
    other = tmp_path / "other"
    if how == "symbolic link":
        other.symlink_to(archive.name)
    elif how == "hard link":
        other.hardlink_to(archive)
    else:
        other = archive
    with open(archive, "rb") as file:
        words = ["--html", other, "-" if how == "standard input" else archive]
        done = subprocess.run([BIN / "archiveview", *words], stdin=file, capture_output=True, timeout=PATIENCE)
    assert (done.returncode, done.stdout) == (NOT_READABLE, b"")
    assert done.stderr == b"archiveview: the output would overwrite the archive\n"
    assert archive.read_bytes() == before


def test_page_stays_as_it_was_if_the_archive_is_not_readable(tmp_path):
    page, bad = tmp_path / "page.html", tmp_path / "bad"
    page.write_text("earlier")
    bad.write_bytes(b"not an archive")
    view("--html", page, bad, status=NOT_READABLE)
    assert page.read_text() == "earlier"
    assert sorted(one.name for one in tmp_path.iterdir()) == ["bad", "page.html"]


def test_progress_is_shown_on_a_terminal_only(tmp_path):
    path = tmp_path / "slow.tar"
    os.mkfifo(path)
    near, far = os.openpty()
    with subprocess.Popen([BIN / "archiveview", path], stdout=subprocess.DEVNULL, stderr=far) as program:
        os.close(far)
        with open(path, "wb") as pipe:
            said = b""
            while b"MB read" not in said:  # it says nothing in its first moments
                pipe.write(made.member_bytes("oopslog", bytes(100000)))
                pipe.flush()
                if os.get_blocking(near):
                    os.set_blocking(near, False)
                try:
                    said += os.read(near, 4096)
                except BlockingIOError:
                    time.sleep(0.01)
        assert program.wait(PATIENCE) == NOT_WHOLE
    os.close(near)
