"""oopslog on loop devices, and on files that pass for flash: its output, byte for byte."""

import contextlib
import os
import pathlib
import re
import subprocess

import pytest

from support.oops_image import (
    ERASED, LAST_COUNT, MAGIC, NO_LOGS, PAGE, oopslog_of, random_flash, record, ring,
)  # fmt: skip
from support.under_test import BIN, SANITIZE
from support.waiting import PATIENCE

OOPSLOG = str(BIN / "oopslog")
SOURCE = pathlib.Path(__file__).resolve().parent / "programs" / "preload_mtd.cpp"
USAGE = b"USAGE: oopslog [options] mtdblock-device\n\n"


def oopslog(*arguments):
    """(exit status, standard output, standard error)."""
    done = subprocess.run([OOPSLOG, *map(str, arguments)], capture_output=True, timeout=PATIENCE)
    return done.returncode, done.stdout, done.stderr


@contextlib.contextmanager
def loop_device(image):
    """The name of a read-only block device with the content of a file."""
    words = ["losetup", "--find", "--show", "--read-only", str(image)]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip(f"needs a loop device: {done.stderr.strip()}")
    try:
        yield done.stdout.strip()
    finally:
        subprocess.run(["losetup", "--detach", done.stdout.strip()], check=True)


@pytest.fixture
def flash(tmp_path):
    """Makes block devices of images, which exist until the end of the test."""
    if os.geteuid() != 0:
        pytest.skip("needs root, to make loop devices")
    with contextlib.ExitStack() as devices:

        def attach(image):
            file = tmp_path / f"image{len(list(tmp_path.iterdir()))}"
            file.write_bytes(image)
            return devices.enter_context(loop_device(file))

        yield attach


def assert_prints(device, image):
    out, err = oopslog_of(image)
    assert oopslog(device) == (0, out, err)
    out, err = oopslog_of(image, backwards=True)
    assert oopslog("-r", device) == (0, out, err)


@pytest.mark.parametrize("newest", range(8))
def test_ring_is_printed_from_any_newest_position(flash, newest):
    image = ring(8, newest)
    assert_prints(flash(image), image)


def test_backwards_begins_before_the_newest_and_ends_with_it(flash):
    _, out, err = oopslog("-r", flash(ring(8, 2)))
    assert re.findall(rb"at position (\d)\)", out) == [b"1", b"0", b"7", b"6", b"5", b"4", b"3", b"2"]
    assert err == b"Last log is at position 2 with count 107\n"


def test_count_may_wrap_around(flash):
    image = ERASED * 3 + record(LAST_COUNT, b"before\n") + record(0, b"after\n") + ERASED
    device = flash(image)
    assert_prints(device, image)
    assert oopslog(device)[2] == b"Last log is at position 4 with count 0\n"


def test_first_of_equal_counts_is_reported(flash):
    image = ERASED + record(7, b"a") + record(7, b"b")
    assert oopslog(flash(image))[2] == b"Last log is at position 1 with count 7\n"


@pytest.mark.parametrize("image", [
    ERASED * 4, bytes(4 * PAGE), record(5, b"x", magic=MAGIC + 1) * 2, ring(2, 0)[: PAGE - 512],
], ids=["erased", "zeros", "foreign", "less than a page"])  # fmt: skip
def test_flash_without_records_has_no_logs(flash, image):
    assert oopslog(flash(image)) == (0, *NO_LOGS)


@pytest.mark.parametrize("image", [
    record(1, b"alone"), ring(3, 1) + record(200, b"cut off")[:2048], record(1, b"z" * (PAGE - 8)),
    record(1, bytes(range(255))) + ERASED,
], ids=["one page", "truncated", "full page", "every byte"])  # fmt: skip
def test_unusual_records_are_printed(flash, image):
    assert_prints(flash(image), image)


@pytest.mark.parametrize("seed", range(8))
def test_random_flash_is_printed(flash, seed):
    image = random_flash(12, seed)
    assert_prints(flash(image), image)


def test_large_flash_is_printed(flash):
    image = ring(2048, 1500)
    device = flash(image)
    assert_prints(device, image)


# Files that pass for flash by means of a preloaded library. This needs no loop device.


@pytest.fixture(scope="module")
def fake_flash(tmp_path_factory):
    """The library that makes a file pass for MTD flash."""
    if SANITIZE:
        pytest.skip("needs a preloaded library, which the sanitizer does not allow")
    path = tmp_path_factory.mktemp("library") / "mtd.so"
    subprocess.run(["g++", "-shared", "-fPIC", "-o", path, SOURCE], check=True)
    return path


@pytest.mark.parametrize("variable", ["BAD", "UNREADABLE"])
@pytest.mark.parametrize("without", [[], [0], [5], [4, 5, 6], [7], list(range(8))], ids=str)
def test_bad_and_unreadable_pages_are_skipped(fake_flash, tmp_path, variable, without):
    image = ring(8, 5)
    (tmp_path / "flash").write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(fake_flash), **{variable: ",".join(map(str, without))})
    for options, backwards in (([], False), (["-r"], True)):
        words = [OOPSLOG, *options, tmp_path / "flash"]
        done = subprocess.run(words, capture_output=True, env=environment, timeout=PATIENCE)
        assert (done.returncode, done.stdout, done.stderr) == (0, *oopslog_of(image, backwards, without))


def run_as_block(fake_flash, image, path, *options, **variables):
    path.write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(fake_flash), BLOCK="1", **variables)
    done = subprocess.run([OOPSLOG, *options, path], capture_output=True, env=environment, timeout=PATIENCE)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("newest", [0, 3, 7])
def test_block_device_is_printed_both_ways(fake_flash, tmp_path, newest):
    image = ring(8, newest)
    for options, backwards in (([], False), (["-r"], True)):
        found = run_as_block(fake_flash, image, tmp_path / "device", *options)
        assert found == (0, *oopslog_of(image, backwards))


def test_incomplete_last_page_of_a_block_device_is_ignored(fake_flash, tmp_path):
    image = ring(3, 1) + record(200, b"cut off")[: PAGE - 512]
    assert run_as_block(fake_flash, image, tmp_path / "device") == (0, *oopslog_of(ring(3, 1)))
    assert run_as_block(fake_flash, image[: PAGE - 512], tmp_path / "small") == (0, *NO_LOGS)


def test_block_device_is_not_asked_for_bad_blocks(fake_flash, tmp_path):
    image = ring(8, 5)
    found = run_as_block(fake_flash, image, tmp_path / "device", BAD="0,1,2,3,4,5,6,7")
    assert found == (0, *oopslog_of(image))


def test_unreadable_pages_of_a_block_device_are_skipped(fake_flash, tmp_path):
    image = ring(8, 5)
    found = run_as_block(fake_flash, image, tmp_path / "device", UNREADABLE="4,5")
    assert found == (0, *oopslog_of(image, False, [4, 5]))


def test_block_device_without_a_size_is_an_error(fake_flash, tmp_path):
    found = run_as_block(fake_flash, ring(2, 0), tmp_path / "device", NO_SIZE="1")
    assert found == (1, b"", b"BLKGETSIZE: Input/output error\n")


def test_flash_without_bad_block_support_is_read_completely(fake_flash, tmp_path):
    image = ring(8, 3) + b"not a whole page"
    (tmp_path / "flash").write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(fake_flash), NO_BAD_BLOCKS="1")
    words = [OOPSLOG, tmp_path / "flash"]
    done = subprocess.run(words, capture_output=True, env=environment, timeout=PATIENCE)
    assert (done.returncode, done.stdout, done.stderr) == (0, *oopslog_of(image))


# Arguments, and files that are not flash.


def test_missing_device_prints_the_usage():
    assert oopslog() == (1, USAGE, b"")
    assert oopslog("-r") == (1, USAGE, b"")


@pytest.mark.parametrize("name", ["-rfoo", "-x", "", "/nonexistent"])
def test_other_arguments_are_names_of_devices(name):
    assert oopslog(name) == (1, b"", b"open: No such file or directory\n")


def test_device_may_have_the_name_of_an_option(tmp_path):
    (tmp_path / "-rfoo").write_bytes(ring(2, 0))
    done = subprocess.run([OOPSLOG, "-rfoo"], cwd=tmp_path, capture_output=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (1, b"MEMGETINFO: Inappropriate ioctl for device\n")


@pytest.mark.parametrize("name", ["/dev/null", "/dev/zero", "/", "/proc/self/status"])
def test_file_that_is_not_flash_is_an_error(name):
    status, out, err = oopslog("-r", name)
    assert (status, out) == (1, b"")
    assert re.fullmatch(rb"MEMGETINFO: [A-Z][a-z ]+\n", err)


def test_reader_may_go_away(flash):
    device = flash(ring(512, 3))
    process = subprocess.Popen([OOPSLOG, device], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    process.stdout.read(10)
    process.stdout.close()
    assert process.wait(PATIENCE) == 0
