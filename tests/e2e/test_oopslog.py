"""oopslog from outside, on loop devices: each image through the block layer, compared byte for byte."""

import contextlib
import os
import re
import subprocess

import pytest

from oops_image import ERASED, LAST_COUNT, MAGIC, NO_LOGS, PAGE, oopslog_of, random_flash, record, ring
from zarvo_e2e import BIN, PATIENCE, SANITIZE

OOPSLOG = str(BIN / "oopslog")
USAGE = b"USAGE: oopslog [options] mtdblock-device\n\n"


def oopslog(*arguments):
    """(exit status, standard output, standard error)."""
    done = subprocess.run([OOPSLOG, *map(str, arguments)], capture_output=True, timeout=PATIENCE)
    return done.returncode, done.stdout, done.stderr


@contextlib.contextmanager
def loop_device(image):
    words = ["losetup", "--find", "--show", "--read-only", str(image)]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip(f"no loop device to be had here: {done.stderr.strip()}")
    try:
        yield done.stdout.strip()
    finally:
        subprocess.run(["losetup", "--detach", done.stdout.strip()], check=True)


@pytest.fixture
def flash(tmp_path):
    """A function that makes a block device of an image; all are gone after the test."""
    if os.geteuid() != 0:
        pytest.skip("loop devices need root")
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
def test_ring_is_printed_wherever_it_is_cut(flash, newest):
    image = ring(8, newest)
    assert_prints(flash(image), image)


def test_backwards_begins_before_the_newest_and_ends_with_it(flash):
    _, out, err = oopslog("-r", flash(ring(8, 2)))
    assert re.findall(rb"at position (\d)\)", out) == [b"1", b"0", b"7", b"6", b"5", b"4", b"3", b"2"]
    assert err == b"Last log is at position 2 with count 107\n"


def test_count_that_has_wrapped(flash):
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
def test_flash_without_records(flash, image):
    assert oopslog(flash(image)) == (0, *NO_LOGS)


@pytest.mark.parametrize("image", [
    record(1, b"alone"), ring(3, 1) + record(200, b"cut off")[:2048], record(1, b"z" * (PAGE - 8)),
    record(1, bytes(range(255))) + ERASED,
], ids=["one page", "truncated", "full page", "every byte"])  # fmt: skip
def test_odd_flash(flash, image):
    assert_prints(flash(image), image)


@pytest.mark.parametrize("seed", range(8))
def test_random_flash(flash, seed):
    image = random_flash(12, seed)
    assert_prints(flash(image), image)


def test_large_flash(flash):
    image = ring(2048, 1500)
    device = flash(image)
    assert_prints(device, image)


# A character or block device, played by a file whose requests are answered for it: this needs no loop device.

PRETEND = r"""
#include <errno.h>
#include <linux/fs.h>
#include <mtd/mtd-user.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

// Whether the list of page numbers in the environment has the page at this offset.
static int listed(const char *variable, long long offset) {
    const char *list = getenv(variable);
    while (list && *list) {
        char *end;
        if (strtoll(list, &end, 10) == offset / 4096) {
            return 1;
        }
        list = *end ? end + 1 : end;
    }
    return 0;
}

// With BLOCK in the environment regular files are block devices.
template <typename Status>
static int as_device(int result, Status *status) {
    if (result == 0 && getenv("BLOCK") && S_ISREG(status->st_mode)) {
        status->st_mode = (status->st_mode & ~S_IFMT) | S_IFBLK;
        status->st_size = 0;
    }
    return result;
}

extern "C" int fstat64(int fd, struct stat64 *status) noexcept {
    return as_device(static_cast<int>(syscall(SYS_fstat, fd, status)), status);
}

extern "C" int fstat(int fd, struct stat *status) noexcept {
    return as_device(static_cast<int>(syscall(SYS_fstat, fd, status)), status);
}

static int block_request(int fd, unsigned long request, void *value) {
    struct stat info;
    if (request == MEMGETBADBLOCK) {  // nobody should ask
        return listed("BAD", *static_cast<long long *>(value));
    }
    if (request != BLKGETSIZE || getenv("NO_SIZE")) {
        errno = request == BLKGETSIZE ? EIO : ENOTTY;
        return -1;
    }
    syscall(SYS_fstat, fd, &info);
    *static_cast<unsigned long *>(value) = static_cast<unsigned long>(info.st_size) / 512;
    return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list values;
    va_start(values, request);
    void *value = va_arg(values, void *);
    va_end(values);
    if (getenv("BLOCK")) {
        return block_request(fd, request, value);
    }
    if (request == MEMGETINFO) {
        struct stat info;
        fstat(fd, &info);
        memset(value, 0, sizeof(mtd_info_user));
        static_cast<mtd_info_user *>(value)->size = (unsigned)info.st_size;
        return 0;
    }
    if (request == MEMGETBADBLOCK) {
        if (getenv("NO_BAD_BLOCKS")) {
            errno = EOPNOTSUPP;
            return -1;
        }
        return listed("BAD", *(long long *)value);
    }
    errno = ENOTTY;
    return -1;
}

extern "C" ssize_t pread64(int fd, void *bytes, size_t size, off64_t offset) {
    if (listed("UNREADABLE", offset)) {
        errno = EBADMSG;
        return -1;
    }
    return syscall(SYS_pread64, fd, bytes, size, offset);
}

extern "C" ssize_t pread(int fd, void *bytes, size_t size, off_t offset) {
    return pread64(fd, bytes, size, offset);
}
"""


@pytest.fixture(scope="module")
def pretending(tmp_path_factory):
    """A library that lets a file pass for MTD flash."""
    if SANITIZE:
        pytest.skip("the sanitizer's library wants to be the first that is loaded")
    folder = tmp_path_factory.mktemp("pretend")
    words = ["g++", "-x", "c++", "-", "-shared", "-fPIC", "-o", folder / "mtd.so"]
    subprocess.run(words, input=PRETEND, text=True, check=True)
    return folder / "mtd.so"


@pytest.mark.parametrize("variable", ["BAD", "UNREADABLE"])
@pytest.mark.parametrize("without", [[], [0], [5], [4, 5, 6], [7], list(range(8))], ids=str)
def test_pages_that_cannot_be_had_are_passed_over(pretending, tmp_path, variable, without):
    image = ring(8, 5)
    (tmp_path / "flash").write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(pretending), **{variable: ",".join(map(str, without))})
    for options, backwards in (([], False), (["-r"], True)):
        words = [OOPSLOG, *options, tmp_path / "flash"]
        done = subprocess.run(words, capture_output=True, env=environment, timeout=PATIENCE)
        assert (done.returncode, done.stdout, done.stderr) == (0, *oopslog_of(image, backwards, without))


def run_as_block(pretending, image, path, *options, **variables):
    path.write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(pretending), BLOCK="1", **variables)
    done = subprocess.run([OOPSLOG, *options, path], capture_output=True, env=environment, timeout=PATIENCE)
    return done.returncode, done.stdout, done.stderr


@pytest.mark.parametrize("newest", [0, 3, 7])
def test_block_device_is_printed_both_ways(pretending, tmp_path, newest):
    image = ring(8, newest)
    for options, backwards in (([], False), (["-r"], True)):
        found = run_as_block(pretending, image, tmp_path / "device", *options)
        assert found == (0, *oopslog_of(image, backwards))


def test_block_device_is_measured_in_sectors_and_its_last_part_of_a_page_left_out(pretending, tmp_path):
    image = ring(3, 1) + record(200, b"cut off")[: PAGE - 512]
    assert run_as_block(pretending, image, tmp_path / "device") == (0, *oopslog_of(ring(3, 1)))
    assert run_as_block(pretending, image[: PAGE - 512], tmp_path / "small") == (0, *NO_LOGS)


def test_block_device_is_not_asked_for_bad_blocks(pretending, tmp_path):
    image = ring(8, 5)
    found = run_as_block(pretending, image, tmp_path / "device", BAD="0,1,2,3,4,5,6,7")
    assert found == (0, *oopslog_of(image))


def test_block_device_passes_over_pages_that_cannot_be_read(pretending, tmp_path):
    image = ring(8, 5)
    found = run_as_block(pretending, image, tmp_path / "device", UNREADABLE="4,5")
    assert found == (0, *oopslog_of(image, False, [4, 5]))


def test_block_device_without_a_size_is_an_error(pretending, tmp_path):
    found = run_as_block(pretending, ring(2, 0), tmp_path / "device", NO_SIZE="1")
    assert found == (1, b"", b"BLKGETSIZE: Input/output error\n")


def test_flash_that_knows_no_bad_blocks_is_read_whole(pretending, tmp_path):
    image = ring(8, 3) + b"not a whole page"
    (tmp_path / "flash").write_bytes(image)
    environment = dict(os.environ, LD_PRELOAD=str(pretending), NO_BAD_BLOCKS="1")
    words = [OOPSLOG, tmp_path / "flash"]
    done = subprocess.run(words, capture_output=True, env=environment, timeout=PATIENCE)
    assert (done.returncode, done.stdout, done.stderr) == (0, *oopslog_of(image))


# What is no flash.


def test_usage():
    assert oopslog() == (1, USAGE, b"")
    assert oopslog("-r") == (1, USAGE, b"")


@pytest.mark.parametrize("name", ["-rfoo", "-x", "", "/nonexistent"])
def test_anything_else_is_a_device(name):
    assert oopslog(name) == (1, b"", b"open: No such file or directory\n")


def test_device_may_be_named_like_an_option(tmp_path):
    (tmp_path / "-rfoo").write_bytes(ring(2, 0))
    done = subprocess.run([OOPSLOG, "-rfoo"], cwd=tmp_path, capture_output=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (1, b"MEMGETINFO: Inappropriate ioctl for device\n")


@pytest.mark.parametrize("name", ["/dev/null", "/dev/zero", "/", "/proc/self/status"])
def test_what_has_no_size_of_flash(name):
    status, out, err = oopslog("-r", name)
    assert (status, out) == (1, b"")
    assert re.fullmatch(rb"MEMGETINFO: [A-Z][a-z ]+\n", err)


def test_reader_that_goes_away_does_no_harm(flash):
    device = flash(ring(512, 3))
    process = subprocess.Popen([OOPSLOG, device], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    process.stdout.read(10)
    process.stdout.close()
    assert process.wait(PATIENCE) == 0
