"""archiveview: sockets and descriptors of a small device, compared with what ss and /proc said at that moment."""

import json
import os
import re
import signal
import subprocess
import sys
import types

import pytest

from support.answers import body_and_file_name
from support.connections import receive_all
from support.daemon import Daemon
from support.processes import descriptors_of, threads_of
from support.under_test import BIN
from support.waiting import PATIENCE

NEEDS_SANDBOX = True

LEAKED = 30
# Sockets in all states that stay as they are, and one that nobody has: it is on its way to nobody. On SIGUSR1 it leaks
# sockets and says so.
DEVICE = f"""
import array, os, signal, socket, sys, threading, time
folder, kept = sys.argv[1], []

def bound(family, kind, address):
    one = socket.socket(family, kind)
    one.bind(address)
    kept.append(one)
    return one

def listener(family, address, only_ipv6=True):
    one = socket.socket(family, socket.SOCK_STREAM)
    if family == socket.AF_INET6:
        one.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, only_ipv6)
    one.bind(address)
    one.listen(3)
    kept.append(one)
    return one

def connected(server, family, address):
    client = socket.socket(family, socket.SOCK_STREAM)
    client.connect(address)
    accepted = server.accept()[0]
    kept.extend([client, accepted])
    return client, accepted

def leak(*_):
    kept.extend(socket.socket(socket.AF_INET, socket.SOCK_STREAM) for _ in range({LEAKED}))
    os.write(1, b"leaked\\n")

signal.signal(signal.SIGUSR1, leak)
INET, INET6, UNIX = socket.AF_INET, socket.AF_INET6, socket.AF_UNIX
server = listener(INET, ("127.0.0.1", 0))
client, accepted = connected(server, INET, server.getsockname())
accepted.send(b"unread!")
client, accepted = connected(server, INET, server.getsockname())
client.shutdown(socket.SHUT_WR)                                   # close-wait and fin-wait-2
waiting = socket.create_connection(server.getsockname())          # not accepted
both = listener(INET6, ("::", 0), only_ipv6=False)
connected(both, INET, ("127.0.0.1", both.getsockname()[1]))
connected(both, INET6, ("::1", both.getsockname()[1]))
receiver = bound(INET, socket.SOCK_DGRAM, ("127.0.0.1", 0))
sender = socket.socket(INET, socket.SOCK_DGRAM)
sender.connect(receiver.getsockname())
sender.send(b"x")
bound(INET6, socket.SOCK_DGRAM, ("::1", 0))
bound(INET, socket.SOCK_DGRAM, ("0.0.0.0", 0))
path = os.path.join(folder, "a b")
connected(listener(UNIX, path), UNIX, path)
listener(UNIX, "\\0archiveview-test")
bound(UNIX, socket.SOCK_DGRAM, os.path.join(folder, "log"))
channel = socket.socketpair()
lost = socket.socket(INET, socket.SOCK_DGRAM)
lost.bind(("127.0.0.1", 0))
channel[0].sendmsg([b"x"], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", [lost.fileno()]))])
print(lost.getsockname()[1], end=" ")
lost.close()
pipe, poll, file = os.pipe(), __import__("select").epoll(), open(os.path.join(folder, "open file"), "w")
threading.Thread(target=time.sleep, args=(1000,), daemon=True).start()
if os.fork() == 0:
    signal.signal(signal.SIGUSR1, signal.SIG_IGN)
    time.sleep(1000)
print("ready", flush=True)
while True:
    time.sleep(1000)
"""

STATES = {"ESTAB": "ESTABLISHED", "UNCONN": None}  # as ss names them, if it is not only another spelling


def ss(*options):
    done = subprocess.run(["ss", "-H", "-anpe", *options], capture_output=True, text=True, check=True)
    return done.stdout.splitlines()


def owner(line):
    """The lowest pid that has the socket, or None."""
    return min((int(pid) for pid in re.findall(r"pid=(\d+)", line)), default=None)


def inode(line):
    found = re.search(r" ino:(\d+)", line)
    return int(found[1]) if found else None


def address(text):
    """An address as ss prints it: "*" is any port, and any address of both kinds of IP."""
    text = re.sub(r":\*$", ":0", text)
    return re.sub(r"^\*:", "[::]:", text)


def inet_sockets():
    """By inode: protocol, addresses, state, queue of what was received, owner. Without sockets that have no inode."""
    found = {}
    for line in ss("-tu"):
        protocol, state, received, _, local, remote = line.split()[:6]
        if state in ("ESTAB", "UNCONN") and protocol == "udp":
            remote = remote.replace("*:*", "[::]:0")
        local, remote = address(local), address(remote)
        if local.startswith("[") and remote == "0.0.0.0:0":
            remote = "[::]:0"
        name = protocol + ("6" if local.startswith("[") else "")
        state = STATES.get(state, state.replace("-", "_").replace("WAIT_", "WAIT"))
        if inode(line):
            found[inode(line)] = (name, local, remote, state, int(received), owner(line))
    return found


def unix_sockets():
    """By inode: path and owner."""
    found = {}
    for line in ss("-x"):
        local, number = re.match(r"u_\w+ +\S+ +\d+ +\d+ +(.*?) (\d+) ", line).groups()
        found[int(number)] = (None if local == "*" else local, owner(line))
    return found


def seen_now(device):
    return types.SimpleNamespace(inet=inet_sockets(), unix=unix_sockets(), descriptors=descriptors_of(device.pid))


def read_by_tool(archive):
    done = subprocess.run([BIN / "archiveview", "--json", "-"], input=archive, capture_output=True, timeout=PATIENCE)
    assert done.returncode == 0, done.stderr
    return json.loads(done.stdout)


@pytest.fixture(scope="module")
def device(sandbox, tmp_path_factory):
    folder = tmp_path_factory.mktemp("device")
    process = subprocess.Popen([sys.executable, "-c", DEVICE, folder], stdout=subprocess.PIPE, text=True,
                               start_new_session=True)  # fmt: skip
    lost_port, word = process.stdout.readline().split()
    assert word == "ready"
    process.lost = f"127.0.0.1:{lost_port}"
    process.folder = folder
    yield process
    os.killpg(process.pid, signal.SIGKILL)
    process.wait()
    process.stdout.close()


@pytest.fixture(scope="module")
def seen(device, tmp_path_factory):
    """What other programs see before and after an archive is made, and what the tool reads in it. The device leaks
    between the archive's looks."""
    daemon = Daemon(tmp_path_factory.mktemp("daemon"))
    try:
        before = seen_now(device)
        with daemon.ask(b"/x/debug.tar", b"full") as browser:
            answer = b""
            while b"/strace.log\0" not in answer:
                answer += browser.near.recv(1 << 16)
            os.kill(device.pid, signal.SIGUSR1)
            assert device.stdout.readline() == "leaked\n"
            answer += receive_all(browser.near)
        after = seen_now(device)
        read = read_by_tool(body_and_file_name(answer)[0])
        return types.SimpleNamespace(before=before, after=after, read=read, threads=threads_of(device.pid))
    finally:
        daemon.stop()


@pytest.fixture(scope="module")
def process(seen, device):
    (found,) = [process for process in seen.read["processes"] if process["pid"] == device.pid]
    return found


def stable(before, after):
    """What did not change while the archive was made."""
    return {key: value for key, value in before.items() if after.get(key) == value}


def of_both_looks(read, is_wanted):
    return [one for one in read["sockets"] if one["in_first_look"] and one["in_second_look"] and is_wanted(one)]


def test_internet_sockets_are_those_of_ss(seen):
    expected = stable(seen.before.inet, seen.after.inet)
    states = {(protocol.rstrip("6"), state) for protocol, _, _, state, _, _ in expected.values()}
    assert states >= {("tcp", "LISTEN"), ("tcp", "ESTABLISHED"), ("tcp", "CLOSE_WAIT"), ("tcp", "FIN_WAIT2"),
                      ("udp", None), ("udp", "ESTABLISHED")}  # fmt: skip
    found = {}
    for one in of_both_looks(seen.read, lambda one: one["inode"] and one["protocol"].rstrip("6") in ("tcp", "udp")):
        received = one["waiting_connections"] if one["state"] == "LISTEN" else one["receive_queue_bytes"]
        found[one["inode"]] = (one["protocol"], one["local"], one["remote"], one["state"], received, one["pid"])
    assert found == expected


def test_unix_sockets_are_those_of_ss(seen, device):
    expected = stable(seen.before.unix, seen.after.unix)
    paths = {path for path, _ in expected.values()}
    assert paths >= {f"{device.folder}/a b", f"{device.folder}/log", "@archiveview-test", None}
    found = {one["inode"]: (one["local"], one["pid"])
             for one in of_both_looks(seen.read, lambda one: one["protocol"] == "unix")}  # fmt: skip
    assert {number: found.get(number) for number in expected} == expected


def test_socket_on_its_way_to_nobody_has_no_owner(seen, device):
    (lost,) = [one for one in seen.read["sockets"] if one["local"] == device.lost]
    assert lost["inode"] and lost["pid"] is None


def test_waiting_connections_of_a_listening_socket_are_counted(seen, device):
    waiting = [one["waiting_connections"] for one in seen.read["sockets"]
               if one["pid"] == device.pid and one["protocol"] == "tcp" and one["state"] == "LISTEN"]  # fmt: skip
    assert waiting == [1]


def test_descriptors_are_those_of_the_process(seen, process):
    expected = seen.after.descriptors
    listed = {one["number"]: one["target"] for one in process["descriptor_list"]}
    assert listed == expected

    def count(pattern):
        return len([target for target in expected.values() if re.match(pattern, target)])

    counts = process["descriptors"]
    assert counts["total"] == len(expected)
    assert counts["file"] == count("/") > 0
    assert counts["socket"] == count(r"socket:\[") > LEAKED
    assert counts["pipe"] == count(r"pipe:\[") > 0
    assert counts["other"] == count(r"anon_inode:") > 0


def test_growth_between_the_looks_is_what_was_leaked(seen, process):
    assert len(seen.after.descriptors) - len(seen.before.descriptors) == LEAKED
    growth = process["descriptor_growth"]
    assert growth["total"] == growth["socket"] == LEAKED


def test_process_has_its_threads_parent_and_limit(seen, device, process):
    assert sorted(thread["tid"] for thread in process["thread_list"]) == sorted(seen.threads)
    assert process["threads"] == len(seen.threads) == 2
    assert process["parent"] == os.getpid()
    assert process["children"] == 1
    assert process["program"] == os.path.realpath(sys.executable)
    assert process["command"].startswith(f"{sys.executable} -c")


def test_sockets_of_this_test_are_not_mistaken_for_the_device(seen, device):
    assert {one["pid"] for one in seen.read["sockets"] if one["protocol"] == "tcp"} <= {device.pid, None}
