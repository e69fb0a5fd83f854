"""tools/sandbox from outside: its command line, what passes through to the command, and what the command
sees."""

import os
import re
import select
import shutil
import signal
import subprocess
import tempfile
from pathlib import Path

import pytest

from support.oops_image import NO_LOGS
from support.sandboxes import LIMIT_S, SANDBOX, make_marker, output, run
from support.under_test import ROOT

PYTHON = "/usr/bin/python3"
NOBODY = 65534
DEVICE_FILES = [
    "/usr/sbin/oopslog",
    "/usr/sbin/gen_serverreport.sh",
    "/etc/ws/onvif/media/media.conf",
]

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="needs root, to make namespaces and mounts")
both_ways = pytest.mark.parametrize("options", [[], ["--no-overlay"]], ids=["overlay", "links"])


# The command line.


def test_bad_command_line_prints_the_usage():
    for arguments in ([], ["--"], ["--net"], ["--unknown", "true"], ["--dcore"]):
        done = run(*arguments)
        assert done.returncode == 2
        assert "usage: sandbox" in done.stderr
        assert done.stdout == ""


def test_help_is_printed_with_status_0():
    done = run("--help")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith("usage: sandbox")


def test_another_user_is_told_in_one_sentence_that_it_needs_root():
    # A copy, because the other user may not be able to read the checkout.
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
def test_exit_status_is_that_of_the_command(status):
    done = run("sh", "-c", f"exit {status}")
    assert (done.returncode, done.stdout, done.stderr) == (status, "", "")


@needs_root
@pytest.mark.parametrize("name", ["KILL", "SEGV", "TERM", "INT"])
def test_status_of_a_killed_command_is_128_plus_the_signal(name):
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
def test_dcore_that_is_not_executable_is_refused(tmp_path):
    done = run("--dcore", str(tmp_path / "missing"), "true")
    assert done.returncode == 1
    assert done.stderr == f"sandbox: {tmp_path}/missing is not an executable file\n"


# What passes through to the command.


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
def test_signal_state_and_umask_are_the_same_as_outside():
    # bash, because some other shells change these
    script = "grep -E '^Sig(Blk|Ign)' /proc/self/status; umask"
    plain = subprocess.run(["bash", "-c", script], capture_output=True, text=True, umask=0o027, check=True)
    assert output("bash", "-c", script, umask=0o027) == plain.stdout


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
def test_working_directory_below_an_overlay_is_the_private_one():
    probe = f"probe-{make_marker()}"
    output("touch", probe, cwd="/var/tmp")
    assert not os.path.exists(f"/var/tmp/{probe}")


# What the command sees.


@needs_root
def test_only_processes_of_the_sandbox_are_visible():
    listing = output("ps", "-eo", "pid=,args=").splitlines()
    assert len(listing) == 2
    assert re.search(r"^ *1 .*supervise\.py", listing[0])
    assert re.search(r"^ *[2-9]\d* ps -eo", listing[1])


@needs_root
def test_process_1_does_not_repeat_the_command_line_of_the_command():
    assert output("sh", "-c", "cat /proc/1/cmdline; : unlikely-word").count("unlikely-word") == 0


@needs_root
def test_run_has_only_the_sandboxs_own_folders():
    before = sorted(os.listdir("/run"))
    inside = output("sh", "-c", "ls /run; test -d /var/run/dbg-cgi && touch /run/new /var/run/dbg-cgi/new")
    assert inside.split() == ["dbg-cgi", "lock", "log"]
    assert sorted(os.listdir("/run")) == before


@needs_root
@both_ways
def test_device_files_exist_only_in_the_sandbox(options):
    script = "for file; do test -s $file || exit 1; done; test -d /etc/conf.d && ls -A /etc/conf.d"
    assert output(*options, "sh", "-c", script, "sh", *DEVICE_FILES) == ""
    assert not [path for path in DEVICE_FILES + ["/etc/conf.d"] if os.path.exists(path)]


@needs_root
@both_ways
def test_device_programs_run_without_an_environment(options):
    log = run(*options, "env", "-i", "/usr/sbin/oopslog", "-r", "/dev/part/oops")
    assert (log.returncode, log.stdout, log.stderr) == (0, *(text.decode() for text in NO_LOGS))

    report = run(*options, "env", "-i", "/usr/sbin/gen_serverreport.sh")
    assert (report.returncode, report.stderr) == (0, "")
    assert report.stdout.startswith("Server report\n")
    assert "MemTotal:" in report.stdout
    assert report.stdout.endswith("----- End of report -----\n")


@needs_root
def test_dcore_option_installs_the_dumper(tmp_path):
    program = tmp_path / "my-dcore"
    program.write_text("#!/bin/sh\necho dumped $*\n")
    program.chmod(0o755)
    for options in (["--dcore", "my-dcore"], ["--no-overlay", "--dcore", str(program)]):
        assert output(*options, "/usr/bin/dcore", "-c", "9", cwd=tmp_path) == "dumped -c 9\n"
    assert run("test", "-e", "/usr/bin/dcore").returncode == int(not os.path.exists("/usr/bin/dcore"))


@needs_root
@both_ways
def test_machine_files_are_visible_and_names_are_resolved(options):
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
def test_overlay_lets_machine_files_change_in_the_sandbox_only():
    before = Path("/etc/passwd").read_bytes()
    assert output("sh", "-c", "echo x > /etc/passwd; rm -r /etc/profile; cat /etc/passwd") == "x\n"
    assert Path("/etc/passwd").read_bytes() == before
    assert os.path.exists("/etc/profile")


@needs_root
def test_links_lead_to_read_only_machine_files():
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


# Folders with mounts below them.


def in_other_mounts(script):
    """Runs a script, whose mounts only it sees. $0 is the sandbox."""
    done = subprocess.run(["unshare", "--mount", "--propagation", "private", "sh", "-ec", script, SANDBOX],
                          capture_output=True, text=True, timeout=LIMIT_S, stdin=subprocess.DEVNULL)
    assert done.returncode == 0, done.stderr
    return done.stdout


@needs_root
def test_mounted_file_stays_visible_and_unchanged(tmp_path):
    hosts = tmp_path / "hosts"
    hosts.write_text("192.0.2.7 mounted-name\n")
    mount = f"mount --bind {hosts} /etc/hosts; "
    assert in_other_mounts(mount + '$0 sh -c "getent hosts mounted-name; echo x > /etc/hosts"').split() == [
        "192.0.2.7", "mounted-name"]
    assert "mounted-name" in in_other_mounts(mount + '$0 --no-overlay getent hosts mounted-name')
    in_other_mounts(mount + '$0 --no-overlay sh -c "! echo x 2>/dev/null > /etc/hosts"')
    assert hosts.read_text() == "192.0.2.7 mounted-name\n"


@needs_root
def test_mounted_folder_stays_visible_and_unchanged(tmp_path):
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
def test_resolver_configuration_in_run_stays_readable(options):
    set_up = """
        mount -t tmpfs none /etc; mount -t tmpfs none /run
        mkdir /run/resolver; echo nameserver 192.0.2.1 > /run/resolver/conf
        ln -s ../run/resolver/conf /etc/resolv.conf
    """
    seen = in_other_mounts(f"{set_up} $0 {' '.join(options)} cat /etc/resolv.conf")
    assert seen == "nameserver 192.0.2.1\n"


@needs_root
def test_sandbox_runs_in_a_sandbox():
    script = f"{SANDBOX} {SANDBOX} sh -c 'ps -e -o args= | grep -c .; ls /usr/sbin/oopslog; exit 5'"
    done = run("sh", "-c", script)
    assert done.stdout.splitlines()[-1] == "/usr/sbin/oopslog"
    assert (done.returncode, done.stderr) == (5, "")


@needs_root
def test_sandbox_leaves_no_file_in_tmp():
    # An empty /tmp for the test. The checkout, which may be below the machine's /tmp, is mounted on /mnt.
    inside = f'mount --bind "{ROOT}" /mnt; mount -t tmpfs none /tmp; cd /; '
    command = "/mnt/tools/sandbox sh -c 'logger x; /usr/sbin/oopslog -r /x >/run/out 2>&1; touch /tmp/only'"
    assert in_other_mounts(inside + command + "; ls -A /tmp") == "only\n"


@needs_root
def test_sandbox_leaves_no_file_in_the_checkout():
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
def test_log_exists_before_the_command_starts():
    assert output("cat", "/run/log/messages") == ""
    assert output("sh", "-c", "test -S /dev/log && echo socket") == "socket\n"
