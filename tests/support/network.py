"""Network namespaces."""

import contextlib
import ctypes
import os
import subprocess

CLONE_NEWNET = 0x40000000


def ip(*words):
    subprocess.run(["ip", *words], check=True, capture_output=True)


@contextlib.contextmanager
def private_network():
    """Moves this thread into a network namespace of its own. Programs that it starts are in that one, too."""
    libc = ctypes.CDLL(None, use_errno=True)

    def check(result):
        if result != 0:
            raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))

    with open("/proc/thread-self/ns/net") as before:
        check(libc.unshare(CLONE_NEWNET))
        try:
            yield
        finally:
            check(libc.setns(before.fileno(), CLONE_NEWNET))


def add_quiet_wire(near, far):
    """Two connected interfaces on which only the caller sends anything."""
    ip("link", "add", near, "type", "veth", "peer", "name", far)
    for end in (near, far):
        ip("link", "set", end, "addrgenmode", "none", "arp", "off", "up")


def capturing_sockets():
    """The number of packet sockets in this network that receive all protocols."""
    with open("/proc/thread-self/net/packet") as table:
        return sum(line.split()[3] == "0003" for line in table.readlines()[1:])


def is_promiscuous(interface):
    shown = subprocess.run(["ip", "link", "show", interface], check=True, capture_output=True, text=True)
    return "PROMISC" in shown.stdout
