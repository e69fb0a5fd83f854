#include "common/sys_run.h"

#include <poll.h>
#include <stdio.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int standard_fds = 3;
constexpr int any_child_patience_ms = 2000;
constexpr int any_child_pause_ms = 10;

[[noreturn]] void run_child(const char* path, char* const argv[], char* const envp[],
                            const int (&given)[standard_fds], int traceme) {
    for (int fd = 0; fd < standard_fds; fd++) {
        if (given[fd] != fd) {
            close(fd);
        }
    }
    for (int fd = 0; fd < standard_fds; fd++) {
        dup2(given[fd], fd);
    }
    if (traceme) {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    }
    execve(path, argv, envp);
    perror("execve");
    // Not exit(): the copy of the parent's buffers and exit handlers is not this process's to run.
    _exit(1);
}

// Waits for any child of the caller, but not for ever: one of them may be waiting for the caller in turn.
void wait_for_any(int* status) {
    for (int waited_ms = 0; waited_ms < any_child_patience_ms; waited_ms += any_child_pause_ms) {
        if (waitpid(-1, status, WNOHANG) != 0) {
            return;
        }
        poll(nullptr, 0, any_child_pause_ms);
    }
}

}  // namespace

pid_t sys_run_envp_nowait(const char* path, char* const argv[], char* const envp[], int fd_in, int fd_out,
                          int fd_err, int traceme) {
    fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
        run_child(path, argv, envp, {fd_in, fd_out, fd_err}, traceme);
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

int sys_run(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme) {
    int status = 1;
    pid_t pid = sys_run_nowait(path, argv, fd_in, fd_out, fd_err, traceme);
    if (pid < 0) {
        wait_for_any(&status);
    } else {
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    return (status >> 8) & 0xff;
}
