"""The process that is dumped: it continues as if nothing had happened, and the dumper never holds it for
long."""

import contextlib
import ctypes
import os
import random
import shutil
import signal
import struct
import subprocess
import threading
import time

import pytest

from support.core_file import Core, announced
from support.dumper import (
    DCORE, PAGE, RELEASED_EARLY, dumping, is_held, pending_signals, queue_signals, refusal, run_dcore, traced,
)  # fmt: skip
from support.processes import assert_detached, process_stat, threads_of, tracer_of
from support.under_test import FAST, SANITIZE, without_leak_check
from support.waiting import PATIENCE, wait_for

pytest_plugins = ["dumper_fixtures"]

DUMP_LIMIT = 20  # seconds; a small process takes milliseconds, but a busy machine may stall for longer than two

signals_interrupt_calls = pytest.mark.skipif(
    SANITIZE == "thread", reason="the thread sanitizer delays a signal until the call that it interrupts returns")


# The process continues as if nothing had happened.


@pytest.mark.parametrize("kind", ["epoll", "poll", "read", "sleep", "signal", "receive", "semaphore",
                                  "send_many", "send_file", "splice", "uring"])  # fmt: skip
def test_blocking_call_is_not_interrupted(start_target, kind):
    target = start_target(kind)
    wait_for(lambda: process_stat(target.pid)[0] in "SZ", "asleep")
    if process_stat(target.pid)[0] == "Z":
        assert target.communicate()[0].startswith(b"-2 ")
        pytest.skip(f"the kernel does not support {kind}")
    for _ in range(3):
        run_dcore(target.pid)
    assert_detached(target.pid)
    assert target.poll() is None
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


def test_pending_signal_is_in_the_core_and_stays_pending(start_target, tmp_path):
    target = start_target("pending")
    core, _ = run_dcore(target.pid)
    if shutil.which("eu-readelf"):
        (tmp_path / "core").write_bytes(core)
        notes = subprocess.run(["eu-readelf", "-n", tmp_path / "core"], stdout=subprocess.PIPE, text=True).stdout
        assert f"si_signo: {signal.SIGUSR2.value}, si_errno: 0, si_code: 0" in notes
        assert f"sighold: <{signal.SIGUSR2.value}>" in notes
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == b"still there\n"


def test_stopped_process_stays_stopped(start_target):
    target = start_target("threads", 2)
    target.send_signal(signal.SIGSTOP)
    wait_for(lambda: process_stat(target.pid)[0] == "T", "stopped")
    run_dcore(target.pid)
    assert_detached(target.pid, "T")
    target.send_signal(signal.SIGCONT)
    assert_detached(target.pid)
    target.communicate(timeout=PATIENCE)
    assert target.returncode == 0


def test_signals_that_arrive_during_a_dump_are_all_handled_after_it(start_target, hold):
    target = start_target("signals", 20)
    rounds = 0

    def held_throughout():
        nonlocal rounds
        rounds += 1
        dumper = hold(target.pid)
        target.send_signal(signal.SIGUSR1)
        queue_signals(target.pid, 7)
        held = is_held(target.pid)
        dumper.end()
        # A standard signal is delivered once, however often it is sent before it is handled.
        wait_for(lambda: not pending_signals(target.pid), "handled")
        return held

    wait_for(held_throughout, "held throughout")
    assert_detached(target.pid)
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == f"{rounds} {rounds * 7}\n".encode()


@pytest.mark.parametrize("number,states", [(signal.SIGSTOP, "T"), (signal.SIGCONT, "SR")])
def test_stop_and_continue_during_a_dump_take_effect_after_it(start_target, hold, number, states):
    target = start_target("signals", 20)

    def held_throughout():
        if number == signal.SIGCONT:
            target.send_signal(signal.SIGSTOP)
            assert_detached(target.pid, "T")
        dumper = hold(target.pid)
        target.send_signal(number)
        held = is_held(target.pid)
        dumper.end()
        assert_detached(target.pid, states)
        target.send_signal(signal.SIGCONT)
        assert_detached(target.pid)
        return held

    wait_for(held_throughout, "held throughout")
    target.communicate(timeout=PATIENCE)
    assert target.returncode == 0


def dump_repeatedly(target, times):
    """Returns how many of the dumps were complete. Each ends in time."""
    complete = 0
    for _ in range(times):
        ran = subprocess.run([DCORE, str(target.pid)], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, timeout=DUMP_LIMIT)
        complete += ran.returncode == 0 and len(ran.stdout) == announced(ran.stderr)[0]
        assert target.poll() is None
    return complete


@signals_interrupt_calls
@pytest.mark.parametrize("threads", [0, 1, 4, 30])
def test_program_that_keeps_calling_exec_is_dumped_and_continues(start_target, threads):
    target = start_target("execs", threads)
    assert dump_repeatedly(target, 100) >= 98
    assert_detached(target.pid)


@signals_interrupt_calls
@pytest.mark.skipif(FAST, reason="takes a minute (left out by --fast)")
def test_nearly_all_of_3000_dumps_of_programs_that_keep_calling_exec_are_complete(start_target):
    target, other = start_target("execs", 4), start_target("execs", 30)
    times = 1500 // (10 if SANITIZE else 1)
    complete = [0, 0]

    def dump(index, each):
        complete[index] = dump_repeatedly(each, times)

    threads = [threading.Thread(target=dump, args=pair) for pair in enumerate((target, other))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print(f"complete dumps: {complete} of {times} each")
    assert sum(complete) >= 2 * times * 98 // 100


@signals_interrupt_calls
def test_program_whose_exec_never_completes_is_refused(start_target):
    """exec completes only when the other thread, which this test traces, has been reaped. Until then, no
    tracer can attach."""
    target = start_target("exec_when_told", 1)
    [thread] = [tid for tid in threads_of(target.pid) if tid != target.pid]
    with traced(thread):
        target.stdin.write(b"x")
        target.stdin.flush()
        wait_for(lambda: process_stat(thread)[0] == "Z", "ended")
        assert refusal(target.pid) == "is stuck while executing another program"
    wait_for(lambda: target.stdout.readline() == b"ready\n", "started")
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


def test_process_whose_threads_come_and_go_is_dumped(start_target):
    target = start_target("churns")
    for _ in range(30):
        assert run_dcore(target.pid)[1] == ""
    assert_detached(target.pid)


def test_parent_that_waits_for_its_vfork_is_dumped_without_a_stop(start_target):
    target = start_target("vforks")
    wait_for(lambda: process_stat(target.pid)[0] == "D", "waiting")
    core, text = run_dcore(target.pid)
    assert "did not stop" in text
    assert tracer_of(target.pid) == 0
    registers = struct.unpack_from("<27Q", core, core.index(b"CORE\0\0\0\0", 64) + 8 + 112)
    assert Core(core).at(registers[19], 8) is not None      # the stack pointer points into the stack
    out, _ = target.communicate(timeout=PATIENCE)
    assert out == b"went on\n"


# The process is released when the dumper ends, and is never held for long.


def test_killed_dumper_releases_the_process(start_target, hold):
    target = start_target("full", 20)
    dumper = hold(target.pid)
    dumper.process.kill()
    dumper.process.wait()
    assert_detached(target.pid)
    assert run_dcore(target.pid)[1] == ""


def kill_dumper(pid, rng, longest, number):
    dumper = subprocess.Popen([DCORE, "-c", "/dev/null", str(pid)], stdin=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, env=without_leak_check())
    time.sleep(rng.uniform(0, longest))     # the moment is meant to be random
    dumper.send_signal(number)
    dumper.wait()


@contextlib.contextmanager
def stream_of_signals(pid):
    """Keeps sending signals. Yields a list whose only element is their number so far."""
    sent, ended = [0], threading.Event()

    def send():
        while not ended.wait(0.0002):
            queue_signals(pid, 1)
            sent[0] += 1

    thread = threading.Thread(target=send)
    thread.start()
    try:
        yield sent
    finally:
        ended.set()
        thread.join()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGKILL])
def test_dumper_that_is_killed_at_any_moment_does_no_harm(start_target, number):
    rng = random.Random(number)
    began = time.monotonic()
    busy, many = start_target("signals", 2), start_target("threads", 20)
    execs, stopped = start_target("execs", 4), start_target("threads", 2)
    stopped.send_signal(signal.SIGSTOP)
    run_dcore(many.pid)
    longest = (time.monotonic() - began) * 2
    targets = [busy, many, execs, stopped]
    with stream_of_signals(busy.pid) as sent:
        for i in range(100):
            kill_dumper(targets[i % 4].pid, rng, longest, number)
    for target in targets:
        assert target.poll() is None
        assert_detached(target.pid, "T" if target is stopped else "SRD")
    stopped.send_signal(signal.SIGCONT)
    assert sent[0] > 100 and busy.communicate(timeout=PATIENCE)[0] == f"0 {sent[0]}\n".encode()
    for target in (many, stopped):
        target.communicate(timeout=PATIENCE)
        assert target.returncode == 0


def test_blocking_call_survives_dumpers_that_are_killed_at_any_moment(start_target):
    rng = random.Random(2)
    target = start_target("epoll")
    wait_for(lambda: process_stat(target.pid)[0] == "S", "asleep")
    for _ in range(100):
        kill_dumper(target.pid, rng, 0.01, signal.SIGTERM)
    out, _ = target.communicate(b"x", timeout=PATIENCE)
    assert out == b"1 0\n"


def test_process_runs_while_the_dumper_waits_for_a_reader(start_target, tmp_path):
    target = start_target("signals", 1)
    os.mkfifo(tmp_path / "core")
    with dumping(target.pid, tmp_path / "core") as dumper:
        wait_for(lambda: process_stat(dumper.pid)[0] == "S", "waiting")
        target.send_signal(signal.SIGUSR1)
        wait_for(lambda: process_stat(target.pid)[0] == "S" and not pending_signals(target.pid), "handled")
        assert_detached(target.pid)
        content = (tmp_path / "core").read_bytes()
        assert len(content) == announced(dumper.stderr.read())[0]
    assert target.communicate(timeout=PATIENCE)[0] == b"1 0\n"


def test_dump_ends_when_its_reader_goes_away(start_target, stall):
    target = start_target("full", 20)
    dumper = stall(target.pid)
    dumper.process.stdout.close()
    assert dumper.process.wait(PATIENCE) == 1
    assert dumper.process.stderr.read().decode() == (
        f"dcore: {target.pid}: cannot write to standard output: Broken pipe\n"
    )
    assert_detached(target.pid)


def test_stalled_reader_does_not_hold_the_process(start_target, hold):
    target = start_target("full", 20)
    dumper = hold(target.pid)
    wait_for(lambda: tracer_of(target.pid) == 0, "released", seconds=10)
    assert dumper.process.poll() is None
    core, text = dumper.finish()
    assert len(core) == dumper.length and dumper.process.returncode == 0
    assert RELEASED_EARLY in text
    address = int(target.said, 16)
    assert Core(core).at(address, 20 << 20) == bytes((i // PAGE + i) & 0xFF for i in range(20 << 20))


def test_core_of_a_process_that_is_killed_has_the_announced_length(start_target, stall):
    target = start_target("full", 20)
    dumper = stall(target.pid)
    target.kill()
    target.wait()
    core, _ = dumper.finish()
    assert len(core) == dumper.length and dumper.process.returncode == 0
    assert core[-(10 << 20) : -(1 << 20)] == bytes(9 << 20)


def test_dump_of_its_own_reader_ends():
    began = time.monotonic()
    core, text = run_dcore(os.getpid())
    assert RELEASED_EARLY in text
    assert Core(core).loads and time.monotonic() - began < PATIENCE
    assert tracer_of(os.getpid()) == 0


def test_different_processes_can_be_dumped_at_once(start_target):
    targets = [start_target("full", 4) for _ in range(6)]
    found = {}

    def dump(target):
        found[target.pid] = Core(run_dcore(target.pid)[0]).at(int(target.said, 16), 4 << 20)

    threads = [threading.Thread(target=dump, args=(target,)) for target in targets]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    want = bytes((i // PAGE + i) & 0xFF for i in range(4 << 20))
    assert [found.get(target.pid) == want for target in targets] == [True] * 6

def stays_stopped(pid):
    """True if the process is stopped for longer than the dumper's polling interval."""
    return all(process_stat(pid)[0] in "tT" and time.sleep(0.01) is None for _ in range(20))


def send_to_thread(pid, tid, number):
    """A signal for the process might go to the thread that this test traces, and stay pending."""
    assert ctypes.CDLL(None).tgkill(pid, tid, number) == 0


def test_process_runs_until_its_tracer_is_gone_and_is_then_dumped(start_target):
    """This test traces one thread. The dumper is attached to the others, which still handle signals."""
    target = start_target("exec_when_told", 1)
    [thread] = [tid for tid in threads_of(target.pid) if tid != target.pid]
    with contextlib.ExitStack() as tracer:
        tracer.enter_context(traced(thread))
        with dumping(target.pid, "/dev/null") as dumper:
            wait_for(lambda: tracer_of(target.pid) == dumper.pid, "waiting")
            send_to_thread(target.pid, target.pid, signal.SIGWINCH)
            send_to_thread(target.pid, target.pid, signal.SIGSTOP)
            wait_for(lambda: stays_stopped(target.pid), "stopped")
            target.send_signal(signal.SIGCONT)
            wait_for(lambda: process_stat(target.pid)[0] == "S", "running again")
            assert dumper.poll() is None
            tracer.close()
            assert announced(dumper.stderr.read())[0] > 0
            assert dumper.wait(PATIENCE) == 0
    assert_detached(target.pid)

