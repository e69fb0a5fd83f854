"""Small debug archives that a test makes itself, in the order of the daemon."""

import gzip
import random
import struct
import zlib

from support.archives import BLOCK, header_of

TOP = "debug-20260304-050607-c0/"
FIRST, SECOND = "20260304-050608", "20260304-050615"
MTIME = 1772600767
HOST = "camera7"
PID = 412
UNNAMED = 500  # a process whose name the device could not read


def _look_at_proc(stamp, uptime, received):
    """The files of one look at /proc, with the few that a reader needs for rates."""
    ticks = int(uptime * 100)
    return [
        (f"proc.{stamp}/stat", b"cpu  %d 0 50 %d 0 0 0 0 0 0\ncpu0 %d 0 50 %d 0 0 0 0 0 0\nctxt 9\nprocesses 500\n"
         % (ticks // 10, ticks - ticks // 10, ticks // 10, ticks - ticks // 10)),
        (f"proc.{stamp}/uptime", b"%.2f %.2f\n" % (uptime, uptime * 0.9)),
        (f"proc.{stamp}/meminfo", b"MemTotal:         250000 kB\nMemFree:          100000 kB\n"),
        (f"proc.{stamp}/version", b"Linux version 4.4.0 (builder) #1\n"),
        ("proc/sys/kernel/hostname", HOST.encode() + b"\n"),
        ("proc/sys/kernel/osrelease", b"4.4.0\n"),
        ("proc/sys/kernel/tainted", b"0\n"),
        ("proc/net/dev", b"Inter-|   Receive |  Transmit\n face |bytes packets\n  eth0: %d 10 0 0 0 0 0 0 500 5 0 0 0 0 0 0\n"
         % received),
        ("proc/net/tcp", b"  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
         b"   0: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 4711 1 0 100 0 0 10 0\n"),
    ]  # fmt: skip


def _look_at_processes(stamp, ticks):
    folder = f"processes.{stamp}/{PID}/"
    stat = b"%d (httpd) S 1 1 1 0 -1 0 0 0 0 0 %d 0 0 0 20 0 1 0 100 4096000 500 0\n" % (PID, ticks)
    return [
        (folder + "stat", stat),
        (folder + "status", b"Name:\thttpd\nState:\tS (sleeping)\nPid:\t%d\nPPid:\t1\nVmRSS:\t    2000 kB\n" % PID),
        (folder + "cmdline", b"/usr/sbin/httpd\0-f\0"),
        (folder + f"task/{PID}/stat", stat),
    ]


def capture(size):
    """A capture without packets, padded as the daemon does: with a record of filler."""
    head = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 113)
    filler = size - len(head) - 16
    return head + struct.pack("<IIII", 0, 0, filler, filler) + bytes(filler)


def trace(size):
    line = b"%d 1772600768.000001 read(3, \"\", 4096) = 0\n" % PID
    return (line * (size // len(line) + 1))[: size - 1] + b"\n"


def members(is_full=True, size=20000):
    """(name, data) of each member without the top directory, but for the manifest. `size`: of the larger ones."""
    noise = random.Random(size).randbytes(size)  # does not shrink when compressed
    full = lambda *some: list(some) if is_full else []  # noqa: E731
    return [
        ("dbg-monitor.txt", b"no process found\n"),
        ("media.conf", b"[video]\nrate = 25\n"),
        *full(("system.txt", b"== uname ==\nLinux camera7 4.4.0 #1 mips\n"), ("dmesg.txt", b"<6>[    0.000000] Booting\n")),
        *full(*_look_at_processes(FIRST, 100)),
        *_look_at_proc(FIRST, 1000.0, 5000),
        ("strace.log", trace(size)),
        ("netdump.cap", capture(size)),
        ("serverreport.txt", b"all is well\n"),
        ("oopslog", b"no oops found\n"),
        *_look_at_proc(SECOND, 1007.5, 9000),
        *full(*_look_at_processes(SECOND, 130), ("processes.txt", b"PID NAME\n")),
        (f"httpd.{PID}/core", noise),
        (f"httpd.{PID}/fdmap", b"total 0\nlrwx------ 1 root root 64 Mar  4 05:06 3 -> socket:[4711]\n"),
        (f"unknown.{UNNAMED}/core", noise[: size // 2]),
    ]  # fmt: skip


def manifest_of(stored):
    """The manifest of (name, data) pairs."""
    lines = [b"zarvo 0.1", b"started 2026-03-04 05:06:07 +0100", b"        bytes     seconds  member"]
    lines += [b"%13d %4d.%06d  %s" % (len(data), 0, 41, name.encode()) for name, data in stored]
    lines += [b"        error              media.wrong: No such file or directory", b"ended 2026-03-04 05:06:21 +0100",
              b"members: %d, bytes: %d, errors: 1" % (len(stored), sum(len(data) for _, data in stored)), b"complete", b""]
    return b"\n".join(lines)


def member_bytes(name, data, size=None, top=TOP):
    """A member as it is stored. `size`: what its header says, if that is not true."""
    return header_of(top + name, len(data) if size is None else size, MTIME) + data + bytes(-len(data) % BLOCK)


def tar_of(stored, top=TOP):
    return b"".join(member_bytes(name, data, top=top) for name, data in stored)


def full_members(size=20000):
    stored = members(True, size)
    return [*stored, ("manifest.txt", manifest_of(stored))]


def full_tar(size=20000):
    return tar_of(full_members(size))


def usual_tar(size=20000):
    return tar_of(members(False, size))


def packed(stream):
    return gzip.compress(stream, compresslevel=1, mtime=0)


def packed_repeats(head, chunk, count, tail=b""):
    """What packed(head + chunk * count + tail) is, made without holding all of that."""
    pieces, checksum, length = [b"\x1f\x8b\x08\0\0\0\0\0\0\x03"], 0, 0
    for data, times in ((head, 1), (chunk, count), (tail, 1)):
        deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
        pieces.append((deflate.compress(data) + deflate.flush(zlib.Z_FULL_FLUSH)) * times)
        for _ in range(times):
            checksum = zlib.crc32(data, checksum)
        length += len(data) * times
    pieces.append(zlib.compressobj(9, zlib.DEFLATED, -15).flush(zlib.Z_FINISH))
    return b"".join(pieces) + struct.pack("<II", checksum, length & 0xFFFFFFFF)
