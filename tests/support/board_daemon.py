"""The debug daemon and its web front on an emulated board.

    with served_board(BUILD) as served:
        print(urllib.request.urlopen(served.url + "/debug.tgz").read())

The modules of board/ must be on the module search path.
"""

import contextlib
import pathlib
import subprocess
import tempfile
import types
import urllib.error
import urllib.request

import board as emulated
import image
from places import SYSROOT
from prepare import find_tool

from support.daemon import CGI_SOCKET, SEGFAULT_SOCKET
from support.under_test import ROOT
from support.waiting import wait_for

DEVICE_FILES = ROOT / "tools" / "sandbox.d" / "device"
START_LIMIT = 60  # seconds until a program on the board must have started
POLL_S = 0.1

# Sends its standard input to the stream socket at a path, shuts the sending side down and waits for the end
# of the connection, as the core handler does. Busybox has no such program.
SEND_SOURCE = r"""
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, argc > 1 ? argv[1] : "", sizeof address.sun_path - 1);
    int peer = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(peer, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
        perror("connect");
        return 1;
    }
    char block[4096];
    ssize_t got;
    while ((got = read(STDIN_FILENO, block, sizeof block)) > 0) {
        if (send(peer, block, static_cast<size_t>(got), MSG_NOSIGNAL) != got) {
            perror("send");
            return 2;
        }
    }
    shutdown(peer, SHUT_WR);
    return read(peer, block, sizeof block) == 0 ? 0 : 3;
}
"""


def wait_for_board(condition, what, seconds=START_LIMIT):
    """Like wait_for(), with a longer timeout for the slow board."""
    return wait_for(condition, f"on the board: {what}", seconds, POLL_S)


def put_device_files(board):
    """Installs the programs and settings of the device that the archive collects."""
    for file in sorted(DEVICE_FILES.rglob("*")):
        if file.is_file():
            board.put(file, f"/{file.relative_to(DEVICE_FILES)}")


def listens(board, path):
    return path.encode() in board.get("/proc/net/unix").split()


def pids_of(board, program):
    return [int(word) for word in board.run(f"pidof {program}").out.split()]


def start_daemon(board, *options):
    """Starts a detached daemon, as on the device. Returns its pid when it listens on both sockets."""
    before = pids_of(board, "debugar.cgi")
    board.check("mkdir -p /var/run/dbg-cgi && debugar.cgi " + " ".join(options))
    wait_for_board(lambda: listens(board, CGI_SOCKET) and listens(board, SEGFAULT_SOCKET), "the daemon's sockets")
    (pid,) = set(pids_of(board, "debugar.cgi")) - set(before)
    return pid


def start_front(board):
    """Starts a web front for the daemon at the usual socket. Returns its address, without a last slash."""
    url = f"http://127.0.0.1:{board.http_port}"
    board.check(f"webfront --port 80 --forwarded-from {board.http_port} </dev/null >/tmp/webfront.log 2>&1 &")

    def answers():
        try:
            with urllib.request.urlopen(url, timeout=START_LIMIT) as answer:
                return answer.status == 200
        except (OSError, urllib.error.URLError):
            return False

    wait_for_board(answers, "an answer of the web front")
    return url


def put_sender(board, remote="/tmp/send-to-socket"):
    """Compiles a program that sends its standard input to a stream socket: `send-to-socket PATH < FILE`."""
    compiler = find_tool(image.CROSS_PREFIX + "g++")
    with tempfile.TemporaryDirectory(prefix="zarvo-sender-") as folder:
        sender = pathlib.Path(folder, "sender")
        words = [compiler, f"--sysroot={SYSROOT}", "-std=c++20", "-Os", "-x", "c++", "-", "-o", sender]
        subprocess.run(words, input=SEND_SOURCE, text=True, check=True)
        board.put(sender, remote, 0o755)
    return remote


@contextlib.contextmanager
def served_board(build):
    """A board with the device's files, a daemon and a web front. Yields `board`, `pid` and `url`."""
    with emulated.Board(build, http=True) as board:
        put_device_files(board)
        pid = start_daemon(board)
        yield types.SimpleNamespace(board=board, pid=pid, url=start_front(board))
