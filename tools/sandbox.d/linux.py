"""System calls that the sandbox needs and Python does not have."""

import ctypes
import os

MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC = 1, 2, 4, 8
MS_REMOUNT, MS_BIND, MS_REC = 32, 4096, 16384
MNT_DETACH = 2
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def mount(source, target, kind=None, flags=0, data=None):
    encode = [None if text is None else os.fsencode(text) for text in (source, target, kind, data)]
    source, path, kind, data = encode
    _check(_libc.mount(source, path, kind, ctypes.c_ulong(flags), data), f"cannot mount over {target}")


def bind(source, target, read_only=False):
    """Mounts the file or folder `source`, a path or an open descriptor, at `target`."""
    if isinstance(source, int):
        source = f"/proc/self/fd/{source}"
    mount(source, target, flags=MS_BIND)
    if read_only:
        mount(None, target, flags=MS_REMOUNT | MS_BIND | MS_RDONLY)


def unmount(target):
    _check(_libc.umount2(os.fsencode(target), MNT_DETACH), f"cannot unmount {target}")


def die_with_parent(signal_number):
    """The kernel sends the signal to this process when its parent ends."""
    _check(_libc.prctl(PR_SET_PDEATHSIG, ctypes.c_ulong(signal_number)), "prctl")
