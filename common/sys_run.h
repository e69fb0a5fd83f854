// Starting other programs with chosen standard descriptors.
//
// The program gets `fd_in`, `fd_out` and `fd_err` (all borrowed, any of them may be the same) as its standard
// descriptors. With `traceme` it stops at its execve for a tracer that is its parent. What the caller has
// buffered for standard output is flushed before the fork, so that no line comes out twice. When the program
// can't be started, the child writes perror("execve") to its standard error and ends with status 1; when the
// fork fails, perror("fork") is written.
#pragma once

#include <sys/types.h>

// Starts `path` and returns its pid at once (the caller waits for it), or -1 when there is no child.
pid_t sys_run_envp_nowait(const char* path, char* const argv[], char* const envp[], int fd_in, int fd_out,
                          int fd_err, int traceme);

// The same with an empty environment, so `path` must be absolute.
pid_t sys_run_nowait(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme);

// Waits for the end of a child of the calling thread, as waitpid(2) does: returns `pid` with the wait status
// in `*status`; 0 when the child has not ended and `flags` is WNOHANG, not 0; -1 when there is no such child.
// Unlike waitpid, it leaves the stops of the child alone when another thread of this program traces it.
pid_t sys_wait_end(pid_t pid, int* status, int flags);

// Ends a child of the calling thread with the signal `sig`, after `patience_ms` with SIGKILL, and waits for
// it.
void sys_end_child(pid_t pid, int sig, int patience_ms);

// Starts `path` with an empty environment and waits for it. Returns its exit code; 0 also after death by a
// signal. When the fork fails, waits up to 2 seconds for any child of the caller and
// takes its exit code (0 when there is none).
int sys_run(const char* path, char* const argv[], int fd_in, int fd_out, int fd_err, int traceme);
