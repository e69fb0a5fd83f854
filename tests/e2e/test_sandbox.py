"""tools/sandbox from outside: what a command sees in it, how it ends, and that nothing of it stays."""

import contextlib
import os
import pty
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
SANDBOX = str(ROOT / "tools" / "sandbox")
PYTHON = "/usr/bin/python3"
LIMIT_S = 20
NOBODY = 65534
DEVICE_FILES = [
    "/usr/sbin/oopslog",
    "/usr/sbin/gen_serverreport.sh",
    "/etc/ws/onvif/media/media.conf",
]

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="namespaces and mounts need root")
both_ways = pytest.mark.parametrize("options", [[], ["--no-overlay"]], ids=["overlay", "links"])


def run(*arguments, **more):
    more = {"stdin": subprocess.DEVNULL, "capture_output": True, "text": True, "timeout": LIMIT_S} | more
    if "input" in more:
        del more["stdin"]
    return subprocess.run([SANDBOX, *arguments], **more)


def output(*arguments, **more):
    done = run(*arguments, **more)
    assert done.returncode == 0, done.stderr
    return done.stdout


def wait_until(condition, seconds=LIMIT_S):
    end = time.monotonic() + seconds
    while not (result := condition()) and time.monotonic() < end:
        time.sleep(0.01)
    return result


def start_time(pid):
    """Together with the pid it names one process for good; None when it has ended."""
    try:
        fields = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None
    return None if fields[0] == "Z" else fields[19]


def pids():
    return [int(entry) for entry in os.listdir("/proc") if entry.isdigit()]


def with_marker(marker):
    found = []
    for pid in pids():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            if marker.encode() in Path(f"/proc/{pid}/cmdline").read_bytes():
                found.append(pid)
    return found


def sharing_mounts_of(pid):
    """(pid, start time) of all processes of the sandbox that this process is in, the supervisor too."""
    namespace = os.readlink(f"/proc/{pid}/ns/mnt")
    found = set()
    for other in pids():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError, PermissionError):
            if os.readlink(f"/proc/{other}/ns/mnt") == namespace:
                found.add((other, start_time(other)))
    return found


def in_mask(pid, mask, number):
    """mask: ShdPnd for signals that wait for the process, SigBlk for those that it blocks."""
    text = re.search(rf"^{mask}:\s*(\w+)", Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)[1]
    return bool(int(text, 16) & 1 << number - 1)


def make_marker():
    """Seconds to sleep that no other process on this machine was told."""
    return f"{86400 + os.getpid()}.{time.monotonic_ns() % 10**9:09d}"


class Running:
    """A sandbox with a command that has said "ready", and all processes that belong to it."""

    def __init__(self, script, marker, stdin=subprocess.DEVNULL):
        self.marker = marker
        self.machine_mounts = Path("/proc/self/mountinfo").read_text()
        self.process = subprocess.Popen([SANDBOX, "bash", "-c", script], stdin=stdin,
                                        stdout=subprocess.PIPE, text=True, start_new_session=True)

    def wait_until_ready(self):
        assert self.process.stdout.readline() == "ready\n"
        self.members = sharing_mounts_of(self.process.pid)
        assert len(self.members) >= 3   # supervisor, init, command

    def command_pid(self):
        init = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()[0]
        return int(Path(f"/proc/{init}/task/{init}/children").read_text().split()[0])

    def ends_with(self, status):
        assert self.process.wait(LIMIT_S) == status
        self.process.stdout.close()
        leftovers = wait_until(lambda: not self.leftovers()) or self.leftovers()
        assert leftovers is True
        assert Path("/proc/self/mountinfo").read_text() == self.machine_mounts

    def leftovers(self):
        alive = [member for member in self.members if start_time(member[0]) == member[1]]
        return alive + with_marker(self.marker)


@pytest.fixture
def running():
    """Starts sandboxes and makes sure that a failed test leaves none behind."""
    started = []

    def start(script, **more):
        marker = make_marker()
        started.append(Running(script.replace("MARKER", marker), marker, **more))
        started[-1].wait_until_ready()
        return started[-1]

    yield start
    for sandbox in started:
        if sandbox.process.poll() is None:
            sandbox.process.kill()
            sandbox.process.wait()


# The command line.


def test_without_a_command_it_prints_its_usage():
    for arguments in ([], ["--"], ["--net"], ["--unknown", "true"], ["--dcore"]):
        done = run(*arguments)
        assert done.returncode == 2
        assert "usage: sandbox" in done.stderr
        assert done.stdout == ""


def test_help_is_no_error():
    done = run("--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: sandbox")


def test_says_in_one_sentence_that_it_needs_root():
    # A copy, as another user may not be able to read the checkout.
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        copy = shutil.copy(SANDBOX, folder)
        user = {"user": NOBODY} if os.geteuid() == 0 else {}
        done = subprocess.run([copy, "true"], capture_output=True, text=True, timeout=LIMIT_S, **user)
    assert done.returncode == 1
    assert done.stdout == ""
    assert re.fullmatch(r"sandbox: needs root, [^.\n]*\.\n", done.stderr)


@needs_root
@pytest.mark.parametrize("status", [0, 1, 77, 255])
def test_exit_status_is_the_commands(status):
    done = run("sh", "-c", f"exit {status}")
    assert (done.returncode, done.stdout, done.stderr) == (status, "", "")


@needs_root
@pytest.mark.parametrize("name", ["KILL", "SEGV", "TERM", "INT"])
def test_status_of_a_killed_command_is_128_and_the_signal(name):
    done = run("sh", "-c", f"ulimit -c 0; kill -{name} $$")
    assert done.returncode == 128 + signal.Signals[f"SIG{name}"]


@needs_root
def test_command_that_cannot_be_run_is_reported(tmp_path):
    done = run("/nonexistent/command")
    assert done.returncode == 127
    assert done.stderr == "sandbox: /nonexistent/command: No such file or directory\n"
    (tmp_path / "plain").write_text("")
    assert run(str(tmp_path / "plain")).returncode == 126


@needs_root
def test_options_end_at_the_command():
    assert output("echo", "--net", "--help") == "--net --help\n"
    assert output("--", "echo", "--") == "--\n"


@needs_root
def test_dcore_that_is_no_program_is_refused(tmp_path):
    done = run("--dcore", str(tmp_path / "missing"), "true")
    assert done.returncode == 1
    assert "missing is no program" in done.stderr


# What passes through.


@needs_root
def test_standard_input_and_folder_pass_through(tmp_path):
    assert output("sh", "-c", "cat; pwd", input="some bytes\n", cwd=tmp_path) == f"some bytes\n{tmp_path}\n"


@needs_root
def test_environment_passes_through_unchanged():
    environment = {"PATH": os.environ["PATH"], "not.a-name": "b=c"}
    assert sorted(output("env", env=environment).splitlines()) == sorted(
        f"{name}={value}" for name, value in environment.items())
    assert output("/usr/bin/env", env={}) == ""


@needs_root
def test_signal_state_and_umask_are_as_without_the_sandbox():
    # bash, as some shells change these by themselves
    look = "grep -E '^Sig(Blk|Ign)' /proc/self/status; umask"
    plain = subprocess.run(["bash", "-c", look], capture_output=True, text=True, umask=0o027, check=True)
    assert output("bash", "-c", look, umask=0o027) == plain.stdout


@needs_root
def test_pipe_ends_when_the_command_closes_its_side():
    process = subprocess.Popen([SANDBOX, "sh", "-c", "echo said; exec >&- 2>&-; read wait"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0)
    try:
        assert process.stdout.readline() == b"said\n"
        assert select.select([process.stdout], [], [], LIMIT_S)[0]
        assert process.stdout.read() == b""
        assert process.poll() is None
    finally:
        process.stdin.close()
        assert process.wait(LIMIT_S) == 1
        process.stdout.close()


@needs_root
def test_extra_descriptors_reach_the_command_and_no_others():
    reader, writer = os.pipe()
    names = output("bash", "-c", f"ls /proc/self/fd; echo over >&{writer}", pass_fds=[writer])
    os.close(writer)
    with open(reader) as file:
        assert file.read() == "over\n"
    used_by_ls = "3" if writer != 3 else "4"
    assert set(names.split()) == {"0", "1", "2", used_by_ls, str(writer)}


@needs_root
def test_folder_below_an_overlay_is_the_private_one():
    probe = f"probe-{make_marker()}"
    output("touch", probe, cwd="/var/tmp")
    assert not os.path.exists(f"/var/tmp/{probe}")


# What the command sees.


@needs_root
def test_only_its_own_processes_are_visible():
    listing = output("ps", "-eo", "pid=,args=").splitlines()
    assert len(listing) == 2
    assert re.search(r"^ *1 .*supervise\.py", listing[0])
    assert re.search(r"^ *[2-9]\d* ps -eo", listing[1])


@needs_root
def test_its_own_command_line_is_not_repeated_in_process_1():
    assert output("sh", "-c", "cat /proc/1/cmdline; : unlikely-word").count("unlikely-word") == 0


@needs_root
def test_run_is_empty_but_for_its_own():
    before = sorted(os.listdir("/run"))
    inside = output("sh", "-c", "ls /run; test -d /var/run/dbg-cgi && touch /run/new /var/run/dbg-cgi/new")
    assert inside.split() == ["dbg-cgi", "lock", "log"]
    assert sorted(os.listdir("/run")) == before


@needs_root
@both_ways
def test_device_files_are_there_and_not_on_the_machine(options):
    script = "for file; do test -s $file || exit 1; done; test -d /etc/conf.d && ls -A /etc/conf.d"
    assert output(*options, "sh", "-c", script, "sh", *DEVICE_FILES) == ""
    assert not [path for path in DEVICE_FILES + ["/etc/conf.d"] if os.path.exists(path)]


@needs_root
@both_ways
def test_device_programs_run_without_an_environment(options):
    script = "exec env -i /usr/sbin/oopslog -r /dev/part/oops"
    done = run(*options, "sh", "-c", script)
    assert done.returncode == 0
    assert done.stdout.count("Log Entry ") == 2
    assert done.stderr == "Last log is at position 1 with count 2\n"

    report = run(*options, "env", "-i", "/usr/sbin/gen_serverreport.sh")
    assert (report.returncode, report.stderr) == (0, "")
    assert report.stdout.startswith("Server report\n")
    assert "MemTotal:" in report.stdout
    assert report.stdout.endswith("----- End of report -----\n")


@needs_root
def test_dcore_is_there_when_asked_for(tmp_path):
    program = tmp_path / "my-dcore"
    program.write_text("#!/bin/sh\necho dumped $*\n")
    program.chmod(0o755)
    for options in (["--dcore", "my-dcore"], ["--no-overlay", "--dcore", str(program)]):
        assert output(*options, "/usr/bin/dcore", "-c", "9", cwd=tmp_path) == "dumped -c 9\n"
    assert run("test", "-e", "/usr/bin/dcore").returncode == int(not os.path.exists("/usr/bin/dcore"))


@needs_root
@both_ways
def test_machine_files_are_visible_and_names_are_found(options):
    script = "getent passwd root; getent hosts localhost >&2; ls /usr/sbin /var"
    done = run(*options, "sh", "-c", script)
    assert done.returncode == 0
    assert done.stdout.startswith("root:")
    assert "localhost" in done.stderr
    for name in os.listdir("/usr/sbin") + os.listdir("/var"):
        assert f"{name}\n" in done.stdout


@needs_root
@both_ways
def test_writes_do_not_reach_the_machine(options):
    probe = f"probe-{make_marker()}"
    paths = [f"{folder}/{probe}" for folder in ("/usr/sbin", "/etc", "/etc/conf.d", "/var/tmp", "/dev",
                                                "/dev/shm", "/run", "/var/spool/storage/SD_DISK/dumps",
                                                "/var/volatile/tmp/dumps")]
    script = 'for path; do mkdir -p "${path%/*}" && echo x > "$path" && test -s "$path" || exit 1; done'
    output(*options, "sh", "-c", script, "sh", *paths)
    assert not [path for path in paths if os.path.exists(path)]
    assert not os.path.exists("/etc/conf.d")


@needs_root
def test_machine_files_can_be_changed_in_an_overlay_only():
    before = Path("/etc/passwd").read_bytes()
    assert output("sh", "-c", "echo x > /etc/passwd; rm -r /etc/profile; cat /etc/passwd") == "x\n"
    assert Path("/etc/passwd").read_bytes() == before
    assert os.path.exists("/etc/profile")


@needs_root
def test_machine_files_behind_links_are_read_only():
    before = os.stat("/etc/passwd").st_mtime_ns
    assert run("--no-overlay", "touch", "/etc/passwd").returncode == 1
    assert os.stat("/etc/passwd").st_mtime_ns == before


@needs_root
@both_ways
@pytest.mark.parametrize("name", ["kernel/core_pattern", "net/ipv4/ip_forward"])
def test_kernel_settings_are_read_only(options, name):
    assert run(*options, "sh", "-c", f"exec 9>>/proc/sys/{name}").returncode == 2


@needs_root
def test_own_network_has_only_lo_and_it_is_up():
    script = "ls /proc/sys/net/ipv4/conf; ip -o link; echo 1 > /proc/sys/net/ipv4/ip_forward"
    before = Path("/proc/sys/net/ipv4/ip_forward").read_text()
    lines = output("--net", "sh", "-c", script).splitlines()
    assert lines[:3] == ["all", "default", "lo"]
    assert len([line for line in lines if "lo: <LOOPBACK,UP,LOWER_UP>" in line]) == 1
    assert Path("/proc/sys/net/ipv4/ip_forward").read_text() == before


@needs_root
def test_network_is_the_machines_by_default():
    assert output("readlink", "/proc/self/ns/net").strip() == os.readlink("/proc/self/ns/net")


@needs_root
def test_new_terminals_can_be_opened():
    assert output(PYTHON, "-c", "import os; print(os.ttyname(os.openpty()[1]))").startswith("/dev/pts/")


# Folders that have something mounted below them.


def in_other_mounts(script):
    """The script runs where its mounts are seen by nobody else; $0 is the sandbox."""
    done = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-ec", script, SANDBOX],
                          capture_output=True, text=True, timeout=LIMIT_S, stdin=subprocess.DEVNULL)
    assert done.returncode == 0, done.stderr
    return done.stdout


@needs_root
def test_mounted_file_stays_visible_and_is_not_written_to(tmp_path):
    hosts = tmp_path / "hosts"
    hosts.write_text("192.0.2.7 mounted-name\n")
    mount = f"mount --bind {hosts} /etc/hosts; "
    assert in_other_mounts(mount + '$0 sh -c "getent hosts mounted-name; echo x > /etc/hosts"').split() == [
        "192.0.2.7", "mounted-name"]
    assert "mounted-name" in in_other_mounts(mount + '$0 --no-overlay getent hosts mounted-name')
    in_other_mounts(mount + '$0 --no-overlay sh -c "! echo x 2>/dev/null > /etc/hosts"')
    assert hosts.read_text() == "192.0.2.7 mounted-name\n"


@needs_root
def test_mounted_folder_stays_visible_and_is_not_written_to(tmp_path):
    (tmp_path / "there").write_text("old\n")
    mount = f"mount --bind {tmp_path} /var/tmp; "
    change = 'sh -c "cd /var/tmp; cat there; echo new > there; cat there"'
    assert in_other_mounts(f"{mount} $0 {change}") == "old\nnew\n"
    assert in_other_mounts(mount + '$0 --no-overlay cat /var/tmp/there') == "old\n"
    in_other_mounts(mount + '$0 --no-overlay sh -c "! echo x 2>/dev/null > /var/tmp/there"')
    assert [path.name for path in tmp_path.iterdir()] == ["there"]
    assert (tmp_path / "there").read_text() == "old\n"


@needs_root
@both_ways
def test_resolver_configuration_in_run_is_carried_over(options):
    set_up = """
        mount -t tmpfs none /etc; mount -t tmpfs none /run
        mkdir /run/resolver; echo nameserver 192.0.2.1 > /run/resolver/conf
        ln -s ../run/resolver/conf /etc/resolv.conf
    """
    seen = in_other_mounts(f"{set_up} $0 {' '.join(options)} cat /etc/resolv.conf")
    assert seen == "nameserver 192.0.2.1\n"


@needs_root
def test_sandbox_in_a_sandbox():
    script = f"{SANDBOX} {SANDBOX} sh -c 'ps -e -o args= | grep -c .; ls /usr/sbin/oopslog; exit 5'"
    done = run("sh", "-c", script)
    assert done.stdout.splitlines()[-1] == "/usr/sbin/oopslog"
    assert (done.returncode, done.stderr) == (5, "")


@needs_root
def test_no_file_in_tmp():
    # An empty /tmp of the test's own; the checkout may lie in the machine's and so moves away.
    inside = f'mount --bind "{ROOT}" /mnt; mount -t tmpfs none /tmp; cd /; '
    command = "/mnt/tools/sandbox sh -c 'logger x; /usr/sbin/oopslog -r /x >/run/out 2>&1; touch /tmp/only'"
    assert in_other_mounts(inside + command + "; ls -A /tmp") == "only\n"


@needs_root
def test_checkout_gets_no_new_file():
    before = sorted(ROOT.glob("tools/**/*"))
    output("true")
    assert sorted(ROOT.glob("tools/**/*")) == before


# Syslog.

LOG_AND_WAIT = """
import sys, syslog, time
syslog.openlog("probe", syslog.LOG_PID, syslog.LOG_DAEMON)
syslog.syslog(syslog.LOG_WARNING, "first")
syslog.syslog(syslog.LOG_ERR, "two\\nlines")
for n in range(2000):
    syslog.syslog(syslog.LOG_INFO, f"number {n}")
end = time.monotonic() + 15
while "number 1999" not in (text := open("/run/log/messages").read()) and time.monotonic() < end:
    time.sleep(0.01)
sys.stdout.write(text)
"""


@needs_root
def test_syslog_messages_can_be_read():
    lines = output(PYTHON, "-c", LOG_AND_WAIT).splitlines()
    assert len(lines) == 2002
    assert re.fullmatch(r"<28>\w{3} [ \d]\d \d\d:\d\d:\d\d probe\[\d+\]: first", lines[0])
    assert re.fullmatch(r"<27>.* probe\[\d+\]: two\\nlines", lines[1])
    assert [line.rpartition(" ")[2] for line in lines[2:]] == [str(n) for n in range(2000)]


@needs_root
def test_log_is_there_before_the_command_starts():
    assert output("cat", "/run/log/messages") == ""
    assert output("sh", "-c", "test -S /dev/log && echo socket") == "socket\n"


# The end.


@needs_root
@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_signal_during_the_start_ends_it_quietly(name):
    # From the moment on when Python itself has started; the moments after that are the point here.
    for milliseconds in range(0, 50, 5):
        marker = make_marker()
        process = subprocess.Popen([SANDBOX, "sleep", marker], stderr=subprocess.PIPE)
        assert wait_until(lambda: in_mask(process.pid, "SigBlk", signal.SIGHUP))
        wait_until(lambda: False, milliseconds / 1000)
        process.send_signal(signal.Signals[name])
        assert process.communicate(timeout=LIMIT_S)[1] == b""
        assert process.returncode == 128 + signal.Signals[name]
        assert wait_until(lambda: not with_marker(marker))


@needs_root
def test_nothing_stays_after_a_normal_end(running):
    sandbox = running("sleep MARKER & echo ready; read line; exit 9", stdin=subprocess.PIPE)
    sandbox.process.stdin.close()
    sandbox.ends_with(9)


@needs_root
def test_nothing_stays_of_a_daemon(running):
    daemon = "setsid -f bash -c \"trap '' HUP INT TERM; echo ready; sleep MARKER; sleep MARKER\""
    sandbox = running(f"{daemon}; read line; exit 0", stdin=subprocess.PIPE)
    sandbox.process.stdin.close()
    sandbox.ends_with(0)


@needs_root
def test_nothing_stays_after_the_command_is_killed(running):
    sandbox = running("sleep MARKER & echo ready; read line", stdin=subprocess.PIPE)
    os.kill(sandbox.command_pid(), signal.SIGKILL)
    sandbox.ends_with(128 + signal.SIGKILL)


@needs_root
def test_nothing_stays_after_the_sandbox_is_killed(running):
    sandbox = running("trap '' HUP INT TERM; sleep MARKER & echo ready; sleep MARKER; sleep MARKER")
    sandbox.process.kill()
    sandbox.ends_with(-signal.SIGKILL)


@needs_root
@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_signal_to_the_sandbox_reaches_the_command(running, name):
    sandbox = running("sleep MARKER & echo ready; exec sleep MARKER")
    sandbox.process.send_signal(signal.Signals[name])
    sandbox.ends_with(128 + signal.Signals[name])


@needs_root
@pytest.mark.parametrize("name", ["SIGINT", "SIGTERM", "SIGHUP"])
def test_command_may_clean_up(running, name):
    sandbox = running(f"trap 'exit 33' {name}; sleep MARKER & echo ready; wait")
    sandbox.process.send_signal(signal.Signals[name])
    sandbox.ends_with(33)


COUNTING = r"""exec /usr/bin/python3 -uc '
import signal
def say(number, frame):
    print(signal.Signals(number).name)
    if number == signal.SIGHUP:
        raise SystemExit(4)
signal.signal(signal.SIGINT, say)
signal.signal(signal.SIGHUP, say)
print("ready")
while True:
    signal.pause()
' MARKER"""


@needs_root
def test_signal_to_the_process_group_arrives_once(running):
    sandbox = running(COUNTING)
    os.killpg(sandbox.process.pid, signal.SIGINT)
    assert sandbox.process.stdout.readline() == "SIGINT\n"
    sandbox.process.send_signal(signal.SIGHUP)
    assert sandbox.process.stdout.read() == "SIGHUP\n"
    sandbox.ends_with(4)


@needs_root
def test_second_interrupt_ends_at_once(running):
    sandbox = running(COUNTING)
    begin = time.monotonic()
    sandbox.process.send_signal(signal.SIGINT)
    assert sandbox.process.stdout.readline() == "SIGINT\n"
    sandbox.process.send_signal(signal.SIGINT)
    sandbox.ends_with(128 + signal.SIGINT)
    assert time.monotonic() - begin < 4


@needs_root
def test_command_that_does_not_heed_a_signal_has_five_seconds(running):
    sandbox = running("trap '' TERM; echo ready; while :; do sleep MARKER; done")
    begin = time.monotonic()
    sandbox.process.send_signal(signal.SIGTERM)
    sandbox.ends_with(128 + signal.SIGTERM)
    assert time.monotonic() - begin > 4.9


@needs_root
def test_signal_that_the_caller_ignores_stays_ignored():
    script = f"trap '' HUP; exec {SANDBOX} bash -c 'echo $$; kill -HUP $$; read line; echo on'"
    process = subprocess.Popen(["bash", "-c", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               text=True)
    process.stdout.readline()
    process.send_signal(signal.SIGHUP)
    assert process.communicate("\n", LIMIT_S)[0] == "on\n"
    assert process.returncode == 0


@needs_root
def test_signals_from_inside_do_not_end_process_1():
    assert output("sh", "-c", "kill -TERM 1; kill -INT 1; kill -KILL 1; kill -STOP 1; echo on") == "on\n"


ORPHANS = """
import glob, subprocess, time
subprocess.run(["sh", "-c", "for i in 1 2 3 4 5 6 7 8 9; do (sleep 0.05 & ) ; done"])
end = time.monotonic() + 15
count = lambda: len(glob.glob("/proc/[0-9]*"))
while count() > 2 and time.monotonic() < end:
    time.sleep(0.01)
print(count())
"""


@needs_root
def test_orphans_are_reaped():
    assert output(PYTHON, "-c", ORPHANS) == "2\n"


# At a terminal.


class Terminal:
    """A program at a terminal of its own, with what it wrote there."""

    def __init__(self, *arguments):
        self.text = ""
        self.status = None
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.environ["PS1"] = "prompt> "
            os.execv(arguments[0], arguments)

    def read_some(self):
        if not select.select([self.terminal], [], [], 0.1)[0]:
            return
        with contextlib.suppress(OSError):  # EIO: no process has the terminal open any more
            self.text += os.read(self.terminal, 65536).decode()

    def expect(self, text):
        """Forgets what came up to and with the text."""
        end = time.monotonic() + LIMIT_S
        while text not in self.text:
            assert time.monotonic() < end, self.text
            self.read_some()
        self.text = self.text.partition(text)[2]

    def type(self, text):
        os.write(self.terminal, text.encode())

    def has_ended(self):
        self.read_some()
        pid, status = os.waitpid(self.pid, os.WNOHANG)
        if pid:
            self.status = os.waitstatus_to_exitcode(status)
        return bool(pid)

    def ends_with(self, status):
        assert wait_until(self.has_ended), self.text
        assert self.status == status, self.text

    def close(self):
        if self.status is None:
            os.kill(self.pid, signal.SIGKILL)
            os.waitpid(self.pid, 0)
        os.close(self.terminal)


@pytest.fixture
def at_terminal():
    opened = []

    def start(*arguments):
        opened.append(Terminal(*arguments))
        return opened[-1]

    yield start
    for terminal in opened:
        terminal.close()


@needs_root
def test_ctrl_c_ends_the_command_and_leaves_nothing(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", f"sleep {marker} & echo ready; sleep {marker}")
    terminal.expect("ready")
    members = sharing_mounts_of(terminal.pid)
    assert len(members) >= 4
    terminal.type("\x03")
    terminal.ends_with(130)
    assert wait_until(lambda: not with_marker(marker))
    assert not [pid for pid, since in members if start_time(pid) == since]


@needs_root
def test_ctrl_c_arrives_once_and_the_second_ends_everything(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", COUNTING.replace("MARKER", marker))
    terminal.expect("ready")
    terminal.type("\x03")
    terminal.expect("SIGINT")
    assert wait_until(lambda: not in_mask(terminal.pid, "ShdPnd", signal.SIGINT))  # or two make one
    terminal.type("\x03")
    terminal.ends_with(130)
    assert wait_until(lambda: not with_marker(marker))


@needs_root
def test_interactive_shell_has_job_control(at_terminal):
    terminal = at_terminal(SANDBOX, "bash", "--norc", "--noprofile", "-i")
    terminal.expect("prompt> ")
    terminal.type("echo $((6 * 7)); tty\n")
    terminal.expect("42\r\n/dev/pts/")
    terminal.type("bash -c 'echo up; cat'\n")
    terminal.expect("up\r\n")
    terminal.type("back\n")
    terminal.expect("back\r\nback\r\n")
    terminal.type("\x1a")
    terminal.expect("Stopped")
    terminal.expect("prompt> ")
    terminal.type("fg\n")
    terminal.expect("cat'\r\n")
    terminal.type("again\n")
    terminal.expect("again\r\nagain\r\n")
    terminal.type("\x03")
    terminal.expect("prompt> ")
    terminal.type("exit 3\n")
    terminal.ends_with(3)


@needs_root
def test_caller_has_its_terminal_back_after_a_shell(at_terminal):
    script = f"{SANDBOX} bash --norc --noprofile -i; echo status $?; read line; echo got $line"
    terminal = at_terminal("/bin/sh", "-c", script)
    terminal.expect("prompt> ")
    terminal.type("exit 6\n")
    terminal.expect("status 6")
    terminal.type("a word\n")
    terminal.expect("got a word")
    terminal.ends_with(0)


@needs_root
def test_hang_up_of_the_terminal_ends_everything(at_terminal):
    marker = make_marker()
    terminal = at_terminal(SANDBOX, "bash", "-c", f"sleep {marker} & echo ready; sleep {marker}")
    terminal.expect("ready")
    os.close(terminal.terminal)
    terminal.terminal = os.open("/dev/null", os.O_RDONLY)
    terminal.ends_with(128 + signal.SIGHUP)
    assert wait_until(lambda: not with_marker(marker))
