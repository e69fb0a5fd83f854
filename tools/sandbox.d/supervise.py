"""The two processes around the command: a supervisor outside its PID namespace and the init inside.

unshare(1) runs this file in the new mount namespace. The supervisor has the process id that the caller knows.
It receives signals and returns the exit status. Its only child, init, is process 1 of the new PID namespace.
Init sets up the file system, starts the command, collects syslog messages and reaps orphans. When init ends,
the kernel kills all other processes in the namespace before it wakes the supervisor.

The supervisor writes to init through a pipe. A byte is the number of a signal for the command. End of file
means that the supervisor is gone.
"""

import marshal
import os
import select
import signal
import sys
import time

GRACE_S = 5  # from a signal until a command that ignores it is killed
SAME_SIGNAL_S = 0.02  # a signal to our process group reaches all its members well within this time
SI_KERNEL = 0x80  # the kernel sent the signal: someone pressed Ctrl-C at the terminal
RELAYED = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}


def complain(text):
    os.write(2, f"sandbox: {text}\n".encode(errors="surrogateescape"))


def exit_status(wait_status):
    code = os.waitstatus_to_exitcode(wait_status)
    return code if code >= 0 else 128 - code


def keep_only(kept):
    """Closes the caller's descriptors. A pipe must end when the command has closed its end."""
    null = os.open("/dev/null", os.O_RDWR)
    for number in range(3):
        os.dup2(null, number)
    low = 3
    for number in [*sorted(kept), os.sysconf("SC_OPEN_MAX")]:
        os.closerange(low, number)
        low = number + 1


# The supervisor.


def foreground_terminal():
    """A descriptor of our terminal if we are its foreground job, or None."""
    try:
        terminal = os.open("/dev/tty", os.O_RDWR | os.O_NOCTTY)
    except OSError:
        return None
    if os.tcgetpgrp(terminal) == os.getpgrp():
        return terminal
    os.close(terminal)
    return None


def take_back(terminal):
    """Makes our process group the foreground job again.

    A shell in the sandbox may have made its own group the foreground job. It cannot restore ours, which has
    no number in its PID namespace.
    """
    try:
        os.killpg(os.tcgetpgrp(terminal), 0)
    except ProcessLookupError:
        os.tcsetpgrp(terminal, os.getpgrp())
    except OSError:
        pass  # the terminal is gone


class Patience:
    """Decides when to kill the command. Ctrl-C sets no deadline, because the command may handle it."""

    def __init__(self):
        self.deadline = None
        self.reason = None
        self.interrupted = {True: None, False: None}  # time of the last SIGINT, typed at the terminal or not

    def seconds_left(self):
        return max(0.0, self.deadline - time.monotonic())

    def runs_out_at(self, number, typed):
        """Records a signal. Returns True if the command must be killed now."""
        now = time.monotonic()
        self.reason = self.reason or number
        if number == signal.SIGINT:
            before, self.interrupted[typed] = self.interrupted[typed], now
            if before is not None and now - before < GRACE_S:
                return True
        if not typed and self.deadline is None:
            self.deadline = now + GRACE_S
        return False


def kill_init(init, patience):
    os.kill(init, signal.SIGKILL)
    patience.deadline = None


def supervise(init, control, watched):
    """Waits for init and returns our exit status."""
    patience = Patience()
    killed = False
    while True:
        if patience.deadline is None:
            info = signal.sigwaitinfo(watched)
        else:
            info = signal.sigtimedwait(watched, patience.seconds_left())
        if info is not None and info.si_signo == signal.SIGCHLD:
            pid, status = os.waitpid(init, os.WNOHANG)
            if pid == init:
                return 128 + patience.reason if killed else exit_status(status)
        elif not killed:
            typed = info is not None and info.si_code == SI_KERNEL
            if info is None or patience.runs_out_at(info.si_signo, typed):
                kill_init(init, patience)
                killed = True
            else:
                tell_init(control, info.si_signo)


def tell_init(control, number):
    try:
        os.write(control, bytes([number]))
    except BrokenPipeError:
        pass  # init is ending


# Init, process 1 inside.


def start(command, environment, mask, umask):
    """Forks and runs the command. The exit status is 127 or 126 if that fails, as in shells and env(1)."""
    pid = os.fork()
    if pid != 0:
        return pid
    for number in (signal.SIGPIPE, signal.SIGXFSZ):   # Python ignores them, and exec would keep that
        signal.signal(number, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, mask)
    os.umask(umask)
    try:
        os.execvpe(command[0], command, environment)
    except OSError as error:
        complain(f"{command[0]}: {error.strerror}")
        os._exit(127 if isinstance(error, (FileNotFoundError, NotADirectoryError)) else 126)


def open_log():
    import socket  # not at the top: the import takes milliseconds, and the supervisor does not need it

    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
    log.bind("/dev/log")
    os.chmod("/dev/log", 0o666)
    return log


def collect(log, log_file):
    """Writes one line for each message. Newlines inside a message are written as \\n."""
    while True:
        try:
            message = log.recv(65536)
        except BlockingIOError:
            return
        line = message.rstrip(b"\0\n").replace(b"\n", b"\\n") + b"\n"
        try:
            with open(log_file, "ab", buffering=0) as file:
                file.write(line)
        except OSError:
            pass  # the command has made the file unusable


def reap(command_pid):
    """Reaps all ended processes. Returns the wait status of the command if it is one of them."""
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return None
        if pid == 0:
            return None
        if pid == command_pid:
            return status


def reached_group(number):
    """True if init has received the signal, too, because it was sent to the whole process group."""
    info = signal.sigtimedwait({number}, SAME_SIGNAL_S)
    return info is not None and info.si_pid == 0  # 0: the sender is outside the namespace


def pass_on(number, command_pid):
    """Sends a signal to the command, unless the command has received it as a member of our process group."""
    reached = reached_group(number)
    if not reached or os.getpgid(command_pid) != os.getpgid(0):
        os.kill(command_pid, number)


def attend(command_pid, control, log, log_file, woken):
    """Handles signals, messages and orphans until the command or the supervisor ends."""
    poll = select.poll()
    for number in (control, log.fileno(), woken):
        poll.register(number, select.POLLIN)
    while True:
        for number, _ in poll.poll():
            if number == log.fileno():
                collect(log, log_file)
            elif number == woken:
                os.read(woken, 4096)
                status = reap(command_pid)
                if status is not None:
                    return exit_status(status)
            else:
                wanted = os.read(control, 1)
                if not wanted:
                    return 128 + signal.SIGKILL
                pass_on(wanted[0], command_pid)


def wake_at_children_end():
    woken, waker = os.pipe2(os.O_CLOEXEC | os.O_NONBLOCK)
    signal.set_wakeup_fd(waker, warn_on_full_buffer=False)
    signal.signal(signal.SIGCHLD, lambda number, frame: None)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGCHLD})
    return woken, waker


def bring_lo_up():
    import fcntl
    import socket
    import struct

    set_flags, up_and_running = 0x8914, 0x41    # SIOCSIFFLAGS, IFF_UP | IFF_RUNNING
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, set_flags, struct.pack("16sh22x", b"lo", up_and_running))


def enter_again(folder):
    """Enters the caller's working directory again, which may now be below an overlay."""
    try:
        os.chdir(folder)
    except OSError as error:
        complain(f"{folder} is not in the sandbox ({error.strerror}); starting in /")
        os.chdir("/")


def run_init(options, command, environment, mask, control):
    """Never returns."""
    import folders
    import linux

    try:
        linux.die_with_parent(signal.SIGKILL)
        umask = os.umask(0o022)
        here = os.getcwd()
        folders.set_up(options["dcore"], options["overlay"], options["net"])
        if options["net"]:
            bring_lo_up()
        enter_again(here)
        log = open_log()
    except OSError as error:
        complain(error.strerror or error)
        os._exit(1)
    woken, waker = wake_at_children_end()
    pid = start(command, environment, mask, umask)
    keep_only([control, log.fileno(), woken, waker])
    os.chdir("/")
    os._exit(attend(pid, control, log, folders.LOG_FILE, woken))


def read_task():
    """Options, command, its environment and signal mask, from the descriptor whose number is the argument."""
    with open(int(sys.argv[1]), "rb") as file:
        file.seek(0)
        return marshal.load(file)


def main():
    ignored = {number for number in RELAYED if signal.getsignal(number) == signal.SIG_IGN}
    watched = (RELAYED - ignored) | {signal.SIGCHLD}
    signal.pthread_sigmask(signal.SIG_BLOCK, watched | {signal.SIGTTOU})
    for number in watched:
        signal.signal(number, signal.SIG_DFL)
    sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
    options, command, environment, mask = read_task()
    from_supervisor, control = os.pipe()
    init = os.fork()
    if init == 0:
        os.close(control)
        run_init(options, command, environment, mask, from_supervisor)
    terminal = foreground_terminal()
    keep_only([control] + ([] if terminal is None else [terminal]))
    os.chdir("/")
    status = supervise(init, control, watched)
    if terminal is not None:
        take_back(terminal)
    os._exit(status)


main()
