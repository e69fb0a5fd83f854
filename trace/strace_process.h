// What the engine knows of the processes of its trace.
#pragma once

#include "common/unique_fd.h"
#include "proc/socket_cache.h"
#include "trace/arch.h"
#include "trace/strace.h"

struct strace_process {
    char name[32];         // short name, ended by a NUL
    bool in_syscall;       // between the entry and the exit of a system call
    bool own_child;        // of this program, whose end somebody else in it waits for
    bool joining;          // attached to, the first stop still to come
    bool attach_stop_due;  // the stop signal of the attach is still to come
    bool sigcont_due;      // that signal was taken back, and the SIGCONT in its place is still to come
    bool ready;            // has an event that is not dealt with
    int event;             // the wait status of the last one
    bool stopped;          // waited for and not resumed
    pid_t process;         // the process that this thread belongs to
    int fd_dir;            // its descriptor directory, while it is held open; else -1
    bool released;         // let go, or given up
    int undelivered;       // the signal with which it stopped, while it is so
    arch_regs entry;       // registers of the last entry
    arch_regs ret;         // and of the last exit
};

struct strace_names {
    int count = 0;
    unique_malloc<strace_process> processes;  // one for each of the context's pids, and a blank one behind
    unique_malloc<int> ready;                 // positions of the processes with an event
    unique_socket_cache sockets;
    unique_malloc<char> pending;  // text that is to be written, strace_buffer_size bytes; null: none is kept
    int pending_length = 0;
};

// With more processes than this, their descriptor directories are not held open.
constexpr int strace_held_dirs = 16;

// Passes text to the caller behind what is pending. Returns what the callback returned, 0 without one.
int32_t strace_write(strace_ctx* ctx, const char* text, int length);

// Keeps text for the next strace_write_pending, or writes it: lines of processes that stopped at the same
// time cost one write.
void strace_write_later(strace_ctx* ctx, const char* text, int length);
void strace_write_pending(strace_ctx* ctx);

// Describes a descriptor of `pid` as proc_fdinfo_lookup does.
int strace_describe_fd(const strace_ctx* ctx, pid_t pid, int fd, char* buf, size_t len);

// The table entry of `pid`; the blank one, whose name is empty, when it is not in the list.
strace_process* strace_find(const strace_ctx* ctx, pid_t pid);

// The position of `pid` in the context's list; -1 when it is not there.
int strace_index(const strace_ctx* ctx, pid_t pid);

// The position of the process whose wait status is `status`, as strace_index. When it is the stop of an exec,
// the thread that called it has taken the number of its process: its entry takes the number as well, and the
// entry that had it is gone, as the thread is.
int strace_index_of_event(strace_ctx* ctx, pid_t pid, int status);

// The signal that a process which stopped with `status` is to get as it goes on; 0 for none.
int strace_signal_of_stop(strace_process* process, pid_t pid, int status);

// Lets one process go. Stops it first if it is running; the stop signal of an attach may be on its way to it.
// Returns false when it does not stop, since no signal reaches it: no stop signal is on its way then. The
// entry becomes -1 when the process has ended.
bool strace_release(strace_ctx* ctx, int index);

// Lets all processes of the list go that are still traced: those that are stopped at once, the others one at
// a time, so that the end of this program at any moment leaves no more than one stopped. A process that
// sleeps where no signal reaches it, such as the parent of a vfork, is waited for when the others are free,
// for 3 seconds at most: then only the end of the calling thread sets it free.
void strace_release_all(strace_ctx* ctx);
