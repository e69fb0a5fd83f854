#include "common/sys_run.h"

#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "common/deadline.h"

namespace {

constexpr int standard_fds = 3;
constexpr int any_child_patience_ms = 2000;
constexpr int any_child_pause_ms = 10;
constexpr int traced_child_pause_ms = 10;
constexpr int longest_end_pause_ms = 50;

[[noreturn]] void run_child(const char* path, char* const argv[], char* const envp[],
                            const int (&given)[standard_fds], bool is_traced, pid_t parent) {
    for (int fd = 0; fd < standard_fds; fd++) {
        if (given[fd] != fd) {
            close(fd);
        }
    }
    for (int fd = 0; fd < standard_fds; fd++) {
        dup2(given[fd], fd);
    }
    if (is_traced) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        if (getppid() != parent) {
            // The parent died before the request. The tracer is then the new parent, which would leave this
            // process stopped.
            _exit(1);
        }
    }
    execve(path, argv, envp);
    perror("execve");
    // exit() would write the parent's buffers again and run its exit handlers.
    _exit(1);
}

// Waits for any child of the caller, for a limited time: a child may in turn be waiting for the caller.
void wait_for_any(int* status) {
    for (int waited_ms = 0; waited_ms < any_child_patience_ms; waited_ms += any_child_pause_ms) {
        if (waitpid(-1, status, WNOHANG | __WNOTHREAD) != 0) {
            return;
        }
        poll(nullptr, 0, any_child_pause_ms);
    }
}

}  // namespace

pid_t sys_run_envp_nowait(const char* path, char* const argv[], char* const envp[], int fd_in, int fd_out,
                          int fd_err, int traceme) {
    fflush(stdout);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        run_child(path, argv, envp, {fd_in, fd_out, fd_err}, traceme != 0, parent);
    }
    if (pid < 0) {
        perror("fork");
    }
    return pid;
}

pid_t sys_run_nowait(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme) {
    char* const no_environment[] = {nullptr};
    return sys_run_envp_nowait(path, argv, no_environment, fd_in, fd_out, fd_err, traceme);
}

pid_t sys_wait_end(pid_t pid, int* status, int flags) {
    for (;;) {
        siginfo_t info = {};
        if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | flags) != 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (info.si_code == CLD_EXITED || info.si_code == CLD_KILLED || info.si_code == CLD_DUMPED) {
            return waitpid(pid, status, 0);
        }
        if (flags != 0) {
            return 0;
        }
        poll(nullptr, 0, traced_child_pause_ms);
    }
}

void sys_end_child(pid_t pid, int sig, int patience_ms) {
    int status;
    kill(pid, sig);
    const deadline patience(patience_ms);
    for (int pause_ms = 1;; pause_ms = std::min(2 * pause_ms, longest_end_pause_ms)) {
        if (sys_wait_end(pid, &status, WNOHANG) != 0) {
            return;
        }
        if (patience.is_over()) {
            break;
        }
        poll(nullptr, 0, pause_ms);
    }
    kill(pid, SIGKILL);
    (void)sys_wait_end(pid, &status, 0);
}

int sys_run(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme) {
    int status = 1;
    pid_t pid = sys_run_nowait(path, argv, fd_in, fd_out, fd_err, traceme);
    if (pid < 0) {
        wait_for_any(&status);
    } else if (traceme) {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {  // its first stop
        }
    } else {
        (void)sys_wait_end(pid, &status, 0);
    }
    return (status >> 8) & 0xff;
}
