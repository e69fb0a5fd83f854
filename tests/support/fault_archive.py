"""fault_archive.py FILE QUERY COMMAND...: runs in the sandbox, and writes an archive that is made beside COMMAND to FILE.

COMMAND prints "ready PID" when its fault has begun, which this program prints too, or "skip REASON". Without a COMMAND,
the archive is one of the device without a fault.
"""

import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))

from support.answers import body_and_file_name  # noqa: E402
from support.daemon import Daemon  # noqa: E402
from support.processes import in_mount_namespace  # noqa: E402
from support.under_test import BIN  # noqa: E402

# Hides what would be most of an archive on a machine with much memory.
LEAN = """for name in kpagecount kpageflags kpagecgroup kallsyms; do
    [ ! -e /proc/$name ] || mount --bind /dev/null /proc/$name
done
"""


def start(command):
    """Starts the command, and returns what it says when it is ready."""
    if not command:
        return "ready 0"
    running = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    return running.stdout.readline().strip()


def take(query):
    folder = pathlib.Path(tempfile.mkdtemp(prefix="daemon-", dir="/run"))
    daemon = Daemon(folder, "-p", str(BIN / "dcore"), before=in_mount_namespace(LEAN))
    return daemon.answer(b"/x/debug.tgz", query.encode())


def main(file, query, *command):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    said = start(list(command))
    print(said)
    if said.startswith("ready "):
        answer = take(query)
        pathlib.Path(file).write_bytes(body_and_file_name(answer)[0] if query else answer.partition(b"\r\n\r\n")[2])


main(*sys.argv[1:])
