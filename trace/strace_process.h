// The engine's state for each process of a trace.
#pragma once

#include <signal.h>

#include "common/unique_fd.h"
#include "proc/socket_cache.h"
#include "trace/arch.h"
#include "trace/strace.h"

struct strace_process {
    char name[32];         // short name, ends in a NUL
    bool in_syscall;       // between the entry and the exit of a system call
    bool own_child;        // a child of this program that another part of it reaps
    bool joining;          // attached to, but not yet in its first stop
    bool attach_stop_due;  // the attach's stop signal is still pending
    bool sigcont_due;      // that signal was replaced by a SIGCONT, which is still pending
    bool ready;            // has an event that was not handled yet
    int event;             // the wait status of its last event
    bool stopped;          // in a stop, not resumed
    pid_t process;         // the process that this thread belongs to
    int fd_dir;            // its descriptor directory, if held open; else -1
    bool released;         // detached or given up
    int undelivered;       // the signal it stopped with, to be delivered when it is resumed
    arch_regs entry;       // registers at the last entry
    arch_regs ret;         // registers at the last exit
};

struct strace_names {
    int count = 0;
    malloc_array<strace_process> processes;  // one for each of the context's pids, then a blank one
    malloc_array<int> ready;                 // positions of the processes with an event
    unique_socket_cache sockets;
    malloc_array<char> pending;  // text not yet written, strace_buffer_size bytes; null: nothing is buffered
    int pending_length = 0;
};

// Descriptor directories are held open only for traces of at most this many processes.
constexpr int strace_held_dirs = 16;

// Writes the pending text, then `text`, through the callback. Returns the callback's result; 0 without a
// callback.
int32_t strace_write(strace_ctx* ctx, const char* text, int length);

// Buffers text for the next strace_write_pending, or writes it at once if there is no buffer. Lines of
// processes that stopped together are then one write.
void strace_write_later(strace_ctx* ctx, const char* text, int length);
void strace_write_pending(strace_ctx* ctx);

// Describes a descriptor of `pid` as proc_fdinfo_lookup does.
int strace_describe_fd(const strace_ctx* ctx, pid_t pid, int fd, char* buf, size_t len);

// The signal of a stop at a system call (PTRACE_O_TRACESYSGOOD).
constexpr int strace_syscall_stop = SIGTRAP | 0x80;

// The table entry of `pid`; the blank one, whose name is empty, if `pid` is not in the list.
strace_process* strace_find(const strace_ctx* ctx, pid_t pid);

// The position of `pid` in the context's list, or -1.
int strace_index(const strace_ctx* ctx, pid_t pid);

// The position of the process that waitpid returned with `status`, or -1. If the status is an exec's stop,
// the thread that called exec now has its process's id: its entry gets that id, and the entry that had the id
// before becomes -1.
int strace_index_of_event(strace_ctx* ctx, pid_t pid, int status);

// The signal to deliver when a process that stopped with `status` is resumed; 0: none.
int strace_signal_of_stop(strace_process* process, pid_t pid, int status);

// Detaches one process. Stops it first if it is running; an attach's stop signal may be pending. Returns
// false if it does not stop (uninterruptible sleep); no stop signal is pending then. The entry becomes -1 if
// the process has ended.
bool strace_release(strace_ctx* ctx, int index);

// Detaches all processes that are still traced: first the stopped ones, then the others one at a time, so
// that this program leaves at most one stopped whenever it ends. A process in an uninterruptible sleep, such
// as the parent of a vfork, comes last, with at most 3 seconds for all of them; one that never stops is
// detached by the end of the calling thread.
void strace_release_all(strace_ctx* ctx);
