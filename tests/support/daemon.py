"""The daemon as a process, and the requests that its control sockets accept."""

import os
import signal
import socket
import subprocess

from support.answers import BAD_REQUEST, BUSY_PAGE
from support.connections import Browser, listener_of, send_message
from support.processes import children_of, descriptors_of, status_kb, threads_of
from support.under_test import DAEMON
from support.waiting import PATIENCE, wait_for

CGI_SOCKET = "/var/run/dbg-cgi/ctrl-cgi-socket"
SEGFAULT_SOCKET = "/var/run/dbg-cgi/ctrl-segf-socket"

OFF, ON = "Set service watchdogs state: no\n", "Set service watchdogs state: yes\n"


def when_free(ask):
    """The first answer to `ask()` that is not the busy page.

    After a complete download the daemon is free for another archive at once. After one that was broken off,
    it is busy for a little longer.
    """

    def answer():
        got = ask()
        return got if got != BUSY_PAGE else None

    return wait_for(answer, "free for another archive", 4 * PATIENCE)


def temporary_leftovers():
    return [name for name in os.listdir("/tmp") if name.startswith((".oopslog", ".sreport"))]


class Control:
    """Requests of anyone with access to the control sockets."""

    cgi_socket = CGI_SOCKET
    segfault_socket = SEGFAULT_SOCKET

    def ask(self, path, query=b"", **kind):
        """Sends a request and returns its browser."""
        return self.ask_raw(path + b"\0" + query, **kind)

    def ask_raw(self, message, **kind):
        browser = Browser(**kind)
        send_message(self.cgi_socket, message, [browser.far.fileno()]).close()
        browser.far.close()
        return browser

    def answer(self, path, query=b""):
        return self.ask(path, query).read_all()

    def sync(self):
        """Returns when the listener has served every earlier request."""
        assert self.answer(b"/sync", b"cmd=none") == BAD_REQUEST

    def waiting_browser(self, path=b"/x/core", query=b"listen", **kind):
        """A browser that the daemon keeps for the next dump."""
        browser = self.ask(path, query, **kind)
        self.sync()
        return browser

    def push(self, dump):
        """Sends a core as the core handler does. Returns what the daemon sends before it hangs up."""
        with socket.socket(socket.AF_UNIX) as handler:
            handler.settimeout(PATIENCE)
            handler.connect(self.segfault_socket)
            try:
                handler.sendall(dump)
                handler.shutdown(socket.SHUT_WR)
                return handler.recv(1)
            except (BrokenPipeError, ConnectionResetError):
                return b""


class Daemon(Control):
    """A daemon in the foreground that is ready for requests, with its output in files."""

    def __init__(self, folder, *options, before=(), program=DAEMON, own_sockets=False, environment=None, **popen):
        folder.mkdir(parents=True, exist_ok=True)
        self.stdout, self.stderr = folder / "out", folder / "err"
        words = [*before, program, "-n", *map(str, options)]
        if own_sockets:
            self.cgi_socket, self.segfault_socket = str(folder / "cgi"), str(folder / "segf")
            words += ["-c", self.cgi_socket, "-s", self.segfault_socket]
        with open(self.stdout, "wb") as out, open(self.stderr, "wb") as err:
            popen |= {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": err}
            self.process = subprocess.Popen(words, env=dict(os.environ, **environment or {}), **popen)
        self.pid = self.process.pid
        try:
            wait_for(self.is_ready, lambda: f"ready; its standard error: {self.said()!r}")
        except AssertionError:
            self.process.kill()
            self.process.wait()
            raise

    def is_ready(self):
        assert self.process.poll() is None, f"it exited with {self.process.returncode}: {self.said()!r}"
        if listener_of(self.cgi_socket) != self.pid:
            return False
        self.sync()
        return True

    def said(self):
        """Its standard error so far."""
        return self.stderr.read_text(errors="replace")

    def switches(self):
        """Its standard output so far: how it has switched the watchdogs."""
        return self.stdout.read_text()

    def state(self):
        return {
            "descriptors": descriptors_of(self.pid),
            "threads": len(threads_of(self.pid)),
            "children": children_of(self.pid),
        }

    def idle_state(self):
        """Its state when it is idle and has opened everything that it keeps open."""
        self.answer(b"/x", b"pop")  # opens the connection to the system log
        self.ask(b"/x", b"listen").close()  # a pop is repeated after each request until a browser listens
        self.push(b"")
        self.sync()
        last = None

        def unchanged():
            nonlocal last
            before, last = last, self.state()
            return before == last

        wait_for(unchanged, lambda: f"idle: {last}", poll_s=0.05)
        return last

    def wait_until_idle(self, idle):
        """Waits until it holds no more than in the state `idle`."""

        def is_idle():
            now = self.state()
            return (
                len(now["descriptors"]) <= len(idle["descriptors"])
                and now["threads"] <= idle["threads"]
                and now["children"] == []
            )

        wait_for(is_idle, lambda: f"idle as in {idle}; its state is {self.state()}")

    def resident_kb(self):
        return status_kb(self.pid, "VmRSS")

    def stop(self):
        ended = self.process.poll()
        if ended is None:
            self.process.terminate()
        status = self.process.wait(PATIENCE)
        assert ended is None, f"the daemon had already exited with {ended}: {self.said()!r}"
        assert status == -signal.SIGTERM, status
        # The undefined-behaviour sanitizer writes here even if the others write report files.
        assert "runtime error:" not in self.said(), self.said()
