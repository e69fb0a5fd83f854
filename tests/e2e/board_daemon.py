"""The debug daemon and its web front on an emulated board. Needs nothing of pytest's.

    with Board(build=BUILD, http=True) as board:
        put_device_files(board)
        pid = start_daemon(board)
        print(urllib.request.urlopen(start_front(board) + "/debug.tgz").read())
"""

import pathlib
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

import image  # of board/, which whoever imports this has on the path for its Board
from places import SYSROOT
from prepare import find_tool

ROOT = pathlib.Path(__file__).resolve().parents[2]
DEVICE_FILES = ROOT / "tools/sandbox.d/device"

CGI_SOCKET = "/var/run/dbg-cgi/ctrl-cgi-socket"
SEGFAULT_SOCKET = "/var/run/dbg-cgi/ctrl-segf-socket"

START_LIMIT = 60  # seconds until a program that was started on the board has to be up
POLL = 0.1

# Sends its standard input to the stream socket at a path, says that nothing more comes, and waits for the
# other side's end, as the handler of core dumps does. Busybox has no program that could.
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


def wait_for(condition, what, seconds=START_LIMIT):
    """Returns the first true value of `condition()`."""
    end = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > end:
            raise TimeoutError(f"after {seconds} s still not on the board: {what}")
        time.sleep(POLL)
    return value


def put_device_files(board):
    """The programs and settings of the device that the archive collects."""
    for file in sorted(DEVICE_FILES.rglob("*")):
        if file.is_file():
            board.put(file, f"/{file.relative_to(DEVICE_FILES)}")


def listens(board, path):
    return path.encode() in board.get("/proc/net/unix").split()


def pids_of(board, program):
    return [int(word) for word in board.run(f"pidof {program}").out.split()]


def start_daemon(board, *options):
    """Starts a daemon the way the device does, detached; returns its pid when both sockets are there."""
    before = pids_of(board, "debugar.cgi")
    board.check("mkdir -p /var/run/dbg-cgi && debugar.cgi " + " ".join(options))
    wait_for(lambda: listens(board, CGI_SOCKET) and listens(board, SEGFAULT_SOCKET), "the daemon's sockets")
    (pid,) = set(pids_of(board, "debugar.cgi")) - set(before)
    return pid


def start_front(board):
    """Starts a web front for the daemon at the usual socket; returns its address, without a last slash."""
    url = f"http://127.0.0.1:{board.http_port}"
    board.check(f"webfront --port 80 --forwarded-from {board.http_port} </dev/null >/tmp/webfront.log 2>&1 &")

    def answers():
        try:
            with urllib.request.urlopen(url, timeout=START_LIMIT) as answer:
                return answer.status == 200
        except (OSError, urllib.error.URLError):
            return False

    wait_for(answers, "an answer of the web front")
    return url


def put_sender(board, remote="/tmp/send-to-socket"):
    """Compiles a program that sends standard input to a stream socket: `send-to-socket PATH < FILE`."""
    compiler = find_tool(image.CROSS_PREFIX + "g++")
    with tempfile.TemporaryDirectory(prefix="zarvo-sender-") as folder:
        made = pathlib.Path(folder, "sender")
        words = [compiler, f"--sysroot={SYSROOT}", "-std=c++20", "-Os", "-x", "c++", "-", "-o", made]
        subprocess.run(words, input=SEND_SOURCE, text=True, check=True)
        board.put(made, remote, 0o755)
    return remote
