// Starts other programs with chosen standard descriptors.
//
// The program gets `fd_in`, `fd_out` and `fd_err` (all borrowed, any of them may be the same) as its standard
// descriptors. With `traceme`, its parent traces it and it stops at execve. Standard output is flushed before
// the fork, because a buffered line would be written twice. If the program cannot be started, the child
// writes perror("execve") to its standard error and exits with status 1. If fork fails, perror("fork") is
// written.
#pragma once

#include <sys/types.h>

// Starts `path` and returns its pid, for which the caller waits, or -1 if fork failed.
pid_t sys_run_envp_nowait(const char* path, char* const argv[], char* const envp[], int fd_in, int fd_out,
                          int fd_err, int traceme);

// The same with an empty environment, so `path` must be absolute.
pid_t sys_run_nowait(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme);

// Waits for the end of a child of the calling thread, as waitpid(2) does. Returns `pid` with the wait status
// in `*status`; 0 if the child has not ended and `flags` is WNOHANG; -1 if there is no such child. Unlike
// waitpid, it does not consume the child's stops, for which another thread that traces it may be waiting.
pid_t sys_wait_end(pid_t pid, int* status, int flags);

// Sends `sig` to a child of the calling thread and reaps it. Kills it after `patience_ms`.
void sys_end_child(pid_t pid, int sig, int patience_ms);

// Starts `path` with an empty environment and waits for it. Returns its exit code, 0 if a signal ended it. If
// fork fails, waits up to 2 seconds for any child of the caller and returns that child's exit code, or 0.
int sys_run(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme);
