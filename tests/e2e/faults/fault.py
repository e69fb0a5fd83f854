"""fault.py NAME: a program with one fault. Prints "ready PID" when the fault has begun; PID is the guilty process.

It ends with the sandbox that it runs in. "skip REASON" instead of "ready" means that this kernel cannot show it.
"""

import mmap
import os
import pathlib
import select
import signal
import socket
import subprocess
import sys
import time

FOREVER_S = 100000
UNUSED_PORT = 9
SILENT_NETWORK = ["ip link add v0 type veth peer name v1", "ip address add 192.0.2.1/24 dev v0", "ip link set v0 up",
                  "ip link set v1 up", "ip neigh add 192.0.2.9 lladdr 02:00:00:00:00:09 dev v0 nud permanent"]  # fmt: skip
MEMORY_BOUND = 512 << 20
OOPS = """#!/bin/sh
echo "Last log is at position 0 with count 1" >&2
echo 'Log Entry 1 (at position 0)
<1>[ 8127.402500] CPU 0 Unable to handle kernel paging request at virtual address 00000010
<4>[ 8127.402511] CPU: 0 PID: 412 Comm: encoderd Not tainted 3.18.44 #1
<4>[ 8127.402533] epc   : 8019fe30 do_sys_open+0x10c/0x210
<1>[ 8127.402561] Process encoderd (pid: 412, threadinfo=8e5f4000, task=8e4a1b10, tls=77a0f490)'
"""
# A question for the address of "time.example".
QUESTION = b"\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00\x04time\x07example\x00\x00\x01\x00\x01"


def say(*words):
    os.write(1, " ".join(map(str, words)).encode() + b"\n")


def ready(pid=None):
    say("ready", pid or os.getpid())


def sleep_forever():
    time.sleep(FOREVER_S)


def run_all(commands):
    for command in commands:
        done = subprocess.run(command.split(), capture_output=True, text=True)
        if done.returncode != 0:
            say("skip", f"{command}: {done.stderr.strip()}")
            sys.exit(0)


def repeat(action, pause_s):
    while True:
        action()
        time.sleep(pause_s)


def leak_files():
    kept = [os.open("/dev/null", os.O_RDONLY) for _ in range(40)]
    ready()
    repeat(lambda: kept.append(os.open("/dev/null", os.O_RDONLY)), 0.05)


def leak_sockets():
    kept = [socket.socket() for _ in range(300)]
    ready()
    repeat(lambda: kept.append(socket.socket()), 0.05)


def child(action):
    """Starts a child; returns its pid."""
    pid = os.fork()
    if pid == 0:
        action()
        os._exit(0)
    return pid


def fork_without_end():
    for _ in range(20):
        child(sleep_forever)
    ready()
    for _ in range(200):  # a bound, to spare the machine
        time.sleep(0.1)
        child(sleep_forever)
    sleep_forever()


def eat_memory():
    step = 2 << 20
    kept = []
    ready()
    for _ in range(MEMORY_BOUND // step):
        kept.append(mmap.mmap(-1, step))
        kept[-1].write(b"x" * step)
        time.sleep(0.05)
    sleep_forever()


def repeat_an_error():
    def fail():
        try:
            os.open("/etc/no-such-file", os.O_RDONLY)
        except FileNotFoundError:
            pass

    ready()
    repeat(fail, 0.002)


def poll_without_end():
    reader, _writer = os.pipe()
    asker = select.poll()
    asker.register(reader, select.POLLIN)
    ready()
    while True:
        asker.poll(2)


def stop():
    stopped = child(lambda: signal.raise_signal(signal.SIGSTOP))
    os.waitpid(stopped, os.WUNTRACED)
    ready(stopped)
    sleep_forever()


def leave_zombies():
    for _ in range(5):
        os.waitid(os.P_PID, child(lambda: None), os.WEXITED | os.WNOWAIT)
    ready()
    sleep_forever()


def connect_to_a_closed_port():
    def connect():
        with socket.socket() as one:
            one.connect_ex(("127.0.0.1", UNUSED_PORT))

    ready()
    repeat(connect, 0.1)


def connect_to_silence():
    run_all(SILENT_NETWORK)
    ready()
    with socket.socket() as one:
        one.connect_ex(("192.0.2.9", 80))
    sleep_forever()


def ask_a_dead_name_server():
    run_all(SILENT_NETWORK)
    asker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    asker.connect(("192.0.2.9", 53))
    asker.settimeout(1)
    ready()
    while True:
        asker.send(QUESTION)
        try:
            asker.recv(512)
        except TimeoutError:
            pass


def never_accept():
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(1)
    address = server.getsockname()

    def knock():
        server.close()
        kept = []
        while True:
            kept.append(socket.socket())
            kept[-1].setblocking(False)
            kept[-1].connect_ex(address)
            time.sleep(0.5)

    child(knock)
    ready()
    sleep_forever()


def never_read():
    with socket.socket() as server:
        server.bind(("127.0.0.1", 0))
        server.listen(1)
        address = server.getsockname()
        reader, at_reader = os.pipe()

        def connect():
            server.close()
            kept = socket.create_connection(address)
            os.write(at_reader, b"x")
            sleep_forever()
            kept.close()

        guilty = child(connect)
        os.read(reader, 1)
        writer, _ = server.accept()
    writer.settimeout(1)
    try:
        while True:
            writer.send(bytes(1 << 16))
    except TimeoutError:
        pass
    writer.settimeout(None)
    ready(guilty)
    writer.send(bytes(1 << 16))
    sleep_forever()


def lose_packets():
    run_all(["ip link set lo mtu 1500", "tc qdisc add dev lo root netem loss 10%"])
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(1)

    def read_all():
        one, _ = server.accept()
        while one.recv(1 << 16):
            pass

    child(read_all)
    writer = socket.create_connection(server.getsockname())
    server.close()
    ready()
    repeat(lambda: writer.send(bytes(10000)), 0.02)


def have_an_oops():
    program = pathlib.Path("/usr/sbin/oopslog")
    program.unlink(missing_ok=True)
    program.write_text(OOPS)
    program.chmod(0o755)
    ready(412)
    sleep_forever()


FAULTS = {
    "files": leak_files,
    "sockets": leak_sockets,
    "forks": fork_without_end,
    "memory": eat_memory,
    "errors": repeat_an_error,
    "polling": poll_without_end,
    "stopped": stop,
    "zombies": leave_zombies,
    "refused": connect_to_a_closed_port,
    "unanswered": connect_to_silence,
    "names": ask_a_dead_name_server,
    "queue": never_accept,
    "reader": never_read,
    "loss": lose_packets,
    "oops": have_an_oops,
}

FAULTS[sys.argv[1]]()
