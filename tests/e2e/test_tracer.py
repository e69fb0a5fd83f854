"""tstrace: what it prints, and that the processes continue as if nothing had happened."""

import array
import fcntl
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import termios
import time

import pytest

from support.processes import assert_detached, end_by, process_stat, status_field, tracer_of
from support.tracers import BUSY_PROGRAM, STOPPER, TSTRACE, Tracer, calls_of, program, run
from support.under_test import SANITIZE
from support.waiting import PATIENCE, POLL_S, wait_for

NEEDS_SANDBOX = True
pytestmark = pytest.mark.usefixtures("clean_sandbox")

SEED = 7
ENDING = [signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT]
THREADS = ("11", "12") if SANITIZE else ("11",)  # of a program that starts ten; a sanitizer may have its own
USAGE = (
    "USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n-p<pid>\tAdd a pid to trace, can be given multiple times.\n"
)


# Command lines.


@pytest.mark.parametrize("words", [[], ["-x"], ["-p"], ["--help"], ["-"]], ids=str)
def test_bad_command_line_prints_the_usage(words):
    assert run(TSTRACE, *words) == USAGE


@pytest.mark.parametrize("name", ["no-such-program", "/no/such/program", "./no-such-program", "", "x" * 5000])
def test_missing_command_gives_status_1_without_a_message(name):
    ran = subprocess.run([TSTRACE, name], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    assert (ran.returncode, ran.stdout) == (1, b"")


def test_command_that_cannot_be_executed_is_reported(tmp_path):
    script = tmp_path / "script"
    script.write_text("no interpreter line")
    script.chmod(0o755)
    ran = subprocess.run([TSTRACE, str(script)], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert (ran.returncode, ran.stdout, ran.stderr) == (0, b"", b"execve: Exec format error\n")


def test_command_is_ignored_if_there_are_pids(tmp_path, service):
    child = service("sleep", "1000")
    tracer = subprocess.Popen([TSTRACE, "-p", str(child.pid), "touch", str(tmp_path / "touched")],
                              stdout=subprocess.DEVNULL)
    wait_for(lambda: tracer_of(child.pid), "traced")
    tracer.send_signal(signal.SIGINT)
    assert tracer.wait(PATIENCE) == 0
    assert not (tmp_path / "touched").exists()


def test_only_the_first_100_pids_are_traced_and_a_message_says_so(service):
    children = [service("sleep", "1000") for _ in range(101)]
    words = [word for child in children for word in ("-p", str(child.pid))]
    tracer = subprocess.Popen([TSTRACE, *words], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wait_for(lambda: all(tracer_of(child.pid) for child in children[:100]), "traced")
    assert not tracer_of(children[100].pid)
    tracer.send_signal(signal.SIGINT)
    _, said = tracer.communicate(timeout=PATIENCE)
    assert said.decode() == f"{TSTRACE}: only the first 100 pids are traced, not the other 1\n"
    for child in children:
        assert_detached(child.pid)


def test_missing_processes_are_skipped_silently():
    gone = subprocess.Popen(["true"])
    gone.wait()
    for pid in (gone.pid, 0, -1, -5, 2**31 - 1, "init"):
        ran = subprocess.run([TSTRACE, "-p", str(pid)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                             timeout=PATIENCE)
        assert (ran.returncode, ran.stdout) == (0, b""), pid


# What is printed.


def test_command_is_shown_with_names_arguments_strings_and_results():
    calls = calls_of(run(TSTRACE, "ls", "-l", "/"))
    assert calls[0] == ("brk", "0x0", None)
    assert calls[1][:2] == ("brk", "0x0") and int(calls[1][2]) != 0
    names = {name for name, _, _ in calls}
    assert {"mmap", "openat", "read", "close", "getdents64", "write", "exit_group"} <= names
    assert any(name == "write" and '"total' in arguments for name, arguments, _ in calls)
    assert calls[-1] == ("exit_group", "0", None)


def test_each_entry_is_followed_by_its_exit():
    calls = calls_of(run(TSTRACE, program("writes")))
    for entry, result in zip(calls[:-1:2], calls[1::2]):
        assert entry[0] == result[0] and entry[2] is None and result[2] is not None


def test_long_writes_are_shortened_and_short_ones_are_not():
    text = run(TSTRACE, program("writes"))
    for size, shown in ((3, 3), (64, 64), (65, 32), (1000000, 32)):
        for end in ("\n", f" = {size}\n"):
            assert f'write(3 /dev/null, "{"x" * shown}", {size}){end}' in text


def test_open_descriptors_are_listed_before_the_exit_call():
    text = run(TSTRACE, program("writes"))
    heading = re.search(r"\n\[\d+ [^]]*\] (\d+) open fds:\n", text)
    lines = text[heading.end():].split("\n")
    listed = lines[: int(heading[1])]
    assert "0\t/dev/null" in listed and "3\t/dev/null" in listed
    assert calls_of(lines[len(listed)]) == [("exit_group", "0", None)]


def test_signals_are_reported_and_take_effect():
    text = run(TSTRACE, program("signals"))
    assert re.findall(r"\n\[\d+ [^]]*\] ---  SIGNAL (\d+ \w+) ---\n\n", text) == [
        f"{int(sig)} {sig.name}" for sig in (signal.SIGUSR1, signal.SIGUSR2, signal.SIGTERM)
    ]
    assert "exit_group" not in text


def test_sockets_are_shown_with_both_addresses(tmp_path):
    path = str(tmp_path / "socket")
    text = run(TSTRACE, program("sockets"), path)
    listener, client = re.search(r"^(\d+) (\d+)$", text, re.MULTILINE).groups()
    ends = rf"socket:\[\d+\]\[127\.0\.0\.1:{client} -> 127\.0\.0\.1:{listener}\]\[TCP_ESTABLISHED\]"
    assert re.search(rf'sendto\(\d+ {ends}, "hello", 5, 0x0, 0x0, 0\) = 5\n', text)
    ends = rf"socket:\[\d+\]\[127\.0\.0\.1:{listener} -> 127\.0\.0\.1:{client}\]\[TCP_ESTABLISHED\]"
    assert re.search(rf'recvfrom\(\d+ {ends}, "hello", 0x0, 0x0, 0x0\) = 5\n', text)
    assert re.search(r"shutdown\(\d+ socket:\[\d+\]\[[^]]*\]\[TCP_FIN_WAIT[12]\], 1\) = 0\n", text)
    assert re.search(rf'recvfrom\(\d+ socket:\[\d+\]\[{re.escape(path)}\], "hello", ', text)
    assert re.search(r"listen\(\d+, 1, ", text)


def test_process_that_execs_is_traced_to_its_end():
    text = run(TSTRACE, program("exec_chain"), "5")
    assert calls_of(text)[-1] == ("exit_group", "5", None)
    assert sum(name == "execve" and result == "0" for name, _, result in calls_of(text)) == 5


def test_program_with_many_children_is_traced_to_its_end():
    assert calls_of(run(TSTRACE, program("fork_storm"), "500"))[-1] == ("exit_group", "0", None)


# What happens to the processes.


def test_process_continues_after_ctrl_c(tmp_path, service):
    child = service("sleep", "1000")
    tracer = Tracer(tmp_path, child.pid)
    tracer.interrupt()
    assert re.search(rf"\n\[{child.pid} sleep\] \d+ open fds:\n0\t", tracer.text())
    assert_detached(child.pid)


def test_process_continues_after_ctrl_c_at_any_moment(tmp_path, service):
    rng = random.Random(SEED)
    sleeping, busy = service("sleep", "1000"), service("yes")
    drain = subprocess.Popen(["cat"], stdin=busy.stdout, stdout=subprocess.DEVNULL)
    for _ in range(50):
        tracer = Tracer(tmp_path, sleeping.pid, busy.pid)
        time.sleep(rng.random() * 0.02)
        tracer.interrupt()
        assert_detached(sleeping.pid)
        assert_detached(busy.pid)
        tracer.path.unlink()
    busy.kill()
    drain.wait(PATIENCE)


def test_process_continues_after_its_tracer_is_killed(tmp_path, service):
    rng = random.Random(SEED)
    for _ in range(20):
        child = service("yes")
        drain = subprocess.Popen(["cat"], stdin=child.stdout, stdout=subprocess.DEVNULL)
        tracer = Tracer(tmp_path, child.pid)
        wait_for(lambda: calls_of(tracer.text()), "a line")
        time.sleep(rng.random() * 0.02)
        tracer.process.kill()
        tracer.process.wait()
        assert_detached(child.pid)
        child.kill()
        drain.wait(PATIENCE)
        tracer.path.unlink()


def test_sigint_to_the_tracer_ends_its_command():
    """Unlike Ctrl-C, the signal goes to the tracer only, not to its command."""
    tracer = subprocess.Popen([TSTRACE, "sleep", "1000"], stdout=subprocess.PIPE)
    while b"nanosleep(" not in tracer.stdout.readline():
        pass
    tracer.send_signal(signal.SIGINT)
    tracer.communicate(timeout=PATIENCE)
    assert tracer.returncode == 0


@pytest.mark.parametrize("applet", [TSTRACE, STOPPER], ids=["tstrace", "stopper"])
@pytest.mark.parametrize("sig", ENDING, ids=lambda sig: sig.name)
def test_command_ends_with_its_tracer(tmp_path, applet, sig):
    note = tmp_path / "pid"
    tracer = subprocess.Popen([applet, "/bin/sh", "-c", f"echo $$ > {note}; exec sleep 1000"], stdout=subprocess.DEVNULL)
    wait_for(lambda: note.exists() and note.read_text().endswith("\n"), "the command's pid")
    command = int(note.read_text())
    wait_for(lambda: pathlib.Path(f"/proc/{command}/comm").read_text() == "sleep\n", "asleep")
    assert end_by(tracer, sig) == -sig
    assert process_stat(command) is None


def test_command_that_ignores_ctrl_c_gets_the_signal_that_ends_its_tracer(tmp_path):
    note = tmp_path / "pid"
    script = f"trap '' INT; echo $$ > {note}; while :; do sleep 0.1; done"
    tracer = subprocess.Popen([TSTRACE, "/bin/sh", "-c", script], stdout=subprocess.DEVNULL)
    wait_for(lambda: note.exists() and note.read_text().endswith("\n"), "the command's pid")
    command = int(note.read_text())
    assert end_by(tracer, signal.SIGTERM) == -signal.SIGTERM
    wait_for(lambda: process_stat(command) is None, "the command's end")


@pytest.mark.parametrize("sig", ENDING, ids=lambda sig: sig.name)
def test_ignored_signal_does_not_end_a_trace(tmp_path, service, sig):
    child = service("sleep", "1000")
    before = signal.signal(sig, signal.SIG_IGN)
    try:
        tracer = Tracer(tmp_path, child.pid)
    finally:
        signal.signal(sig, before)
    tracer.process.send_signal(sig)
    child.send_signal(signal.SIGWINCH)
    wait_for(lambda: "SIGWINCH" in tracer.text(), "another line of the trace")
    tracer.interrupt()
    assert_detached(child.pid)


# Readers.


class StalledReader:
    """The read end of a pipe that a tracer has filled. Nobody reads it."""

    def __init__(self, child):
        self.read_end, write_end = os.pipe()
        fcntl.fcntl(write_end, fcntl.F_SETPIPE_SZ, 4096)
        self.tracer = subprocess.Popen([TSTRACE, "-p", str(child.pid)], stdout=write_end)
        os.close(write_end)
        wait_for(lambda: self.is_full(child.pid), "a full pipe")

    def unread_bytes(self):
        count = array.array("i", [0])
        fcntl.ioctl(self.read_end, termios.FIONREAD, count)
        return count[0]

    def is_full(self, pid):
        """Nothing has been added for a while, and the traced process is stopped."""
        before = self.unread_bytes()
        time.sleep(20 * POLL_S)
        return before > 0 and self.unread_bytes() == before and process_stat(pid)[0] == "t"

    def close(self):
        os.close(self.read_end)


@pytest.mark.parametrize("sig", [signal.SIGINT, *ENDING], ids=lambda sig: sig.name)
def test_signal_ends_a_tracer_whose_reader_has_stalled(service, sig):
    child = service(*BUSY_PROGRAM)
    reader = StalledReader(child)
    assert process_stat(child.pid)[0] == "t"
    assert end_by(reader.tracer, sig) == (0 if sig == signal.SIGINT else -sig)
    assert_detached(child.pid)
    reader.close()


def test_tracer_ends_when_its_reader_is_gone(service):
    busy, sleeping = service(*BUSY_PROGRAM), service("sleep", "1000")
    for child in (busy, sleeping):
        tracer = subprocess.Popen([TSTRACE, "-p", str(child.pid)], stdout=subprocess.PIPE)
        wait_for(lambda pid=child.pid: tracer_of(pid), "traced")
        if child is busy:
            tracer.stdout.readline()
        tracer.stdout.close()
        assert tracer.wait(PATIENCE) == 0
        assert_detached(child.pid)


def test_command_ends_when_the_reader_of_its_trace_is_gone():
    ran = subprocess.run(["sh", "-c", f"{TSTRACE} sh -c 'while :; do read x < /dev/null; done' | head -1"],
                         stdout=subprocess.PIPE, timeout=PATIENCE)
    assert ran.stdout.count(b"\n") == 1


def test_slow_reader_gets_everything(tmp_path):
    tracer = subprocess.Popen([TSTRACE, program("writes")], stdout=subprocess.PIPE)
    fcntl.fcntl(tracer.stdout.fileno(), fcntl.F_SETPIPE_SZ, 4096)
    pieces = []
    while piece := os.read(tracer.stdout.fileno(), 700):
        pieces.append(piece)
        time.sleep(0.001)
    assert tracer.wait(PATIENCE) == 0
    assert calls_of(b"".join(pieces).decode())[-1] == ("exit_group", "0", None)


def test_stopped_process_is_stopped_again_after_the_trace(tmp_path, service):
    child = service("sleep", "1000")
    child.send_signal(signal.SIGSTOP)
    wait_for(lambda: process_stat(child.pid)[0] == "T", "stopped")
    Tracer(tmp_path, child.pid).interrupt()
    assert not tracer_of(child.pid)
    wait_for(lambda: process_stat(child.pid)[0] == "T", "stopped again")
    child.send_signal(signal.SIGCONT)
    assert_detached(child.pid)


def test_threads_continue_after_a_trace(tmp_path, service):
    child = service(program("ten_threads"))
    wait_for(lambda: status_field(child.pid, "Threads") in THREADS, "ten threads")
    for _ in range(20):
        tracer = Tracer(tmp_path, child.pid)
        tracer.interrupt()
        assert_detached(child.pid)
    tracer = Tracer(tmp_path, child.pid)
    child.communicate(b"x", timeout=PATIENCE)
    assert child.returncode == 7
    assert tracer.process.wait(PATIENCE) == 0
    assert calls_of(tracer.text())[-1] == ("exit_group", "7", None)


def test_second_thread_that_execs_is_traced_to_its_end(tmp_path, service):
    for _ in range(5):
        child = service(sys.executable, "-c", THREAD_THAT_EXECS)
        thread = int(child.stdout.readline())
        tracer = Tracer(tmp_path, thread)
        child.communicate(b"x", timeout=PATIENCE)
        assert child.returncode == 5
        assert tracer.process.wait(PATIENCE) == 0
        assert calls_of(tracer.text())[-1] == ("exit_group", "5", None)


THREAD_THAT_EXECS = """
import os, sys, threading
def work():
    print(threading.get_native_id(), flush=True)
    sys.stdin.read(1)
    os.execv("/bin/sh", ["sh", "-c", "exit 5"])
thread = threading.Thread(target=work)
thread.start()
thread.join()
"""

THREAD_EXECS = """
import os, sys, threading, time
sys.stdin.read(1)
threading.Thread(target=os.execv, args=("/bin/sleep", ["sleep", "1000"])).start()
time.sleep(1000)
"""


def test_process_is_not_left_stopped_after_an_exec_by_an_untraced_thread(tmp_path, service):
    """The thread that calls exec is not traced. It takes over the id of the traced thread."""
    for _ in range(5):
        child = service(sys.executable, "-c", THREAD_EXECS)
        tracer = Tracer(tmp_path, child.pid)
        child.stdin.write(b"x")
        child.stdin.flush()
        wait_for(lambda: status_field(child.pid, "Name") == "sleep", "exec")
        if tracer.process.poll() is None:
            tracer.interrupt()
        assert_detached(child.pid)
        wait_for(lambda: process_stat(child.pid)[0] == "S", "asleep")


def test_exit_status_and_signals_reach_the_parent(tmp_path, service):
    for words, expected in ((["sh", "-c", "read x; exit 9"], 9), (["sh", "-c", "read x; kill -TERM $$"], -15)):
        child = service(*words)
        tracer = Tracer(tmp_path, child.pid)
        child.communicate(b"\n", timeout=PATIENCE)
        assert child.returncode == expected
        assert tracer.process.wait(PATIENCE) == 0


def test_second_tracer_of_a_process_does_nothing(tmp_path, service):
    child = service("sleep", "1000")
    first = Tracer(tmp_path, child.pid)
    assert run(TSTRACE, "-p", str(child.pid)) == ""
    assert tracer_of(child.pid)
    first.interrupt()
    assert_detached(child.pid)
