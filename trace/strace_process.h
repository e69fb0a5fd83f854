// The state of a trace and of its processes.
#pragma once

#include <sys/types.h>

#include <span>

#include "common/unique_fd.h"
#include "proc/socket_cache.h"
#include "trace/arch.h"
#include "trace/strace.h"
#include "trace/strace_time.h"

// One thread of the context's list. Here, as in strace.h, each is called a process.
struct strace_process {
    pid_t* entry = nullptr;    // its entry in the context's list
    char name[32] = "";        // short name, ends in a NUL
    pid_t tgid = 0;            // the process that this thread belongs to; 0: not known yet
    bool own_child = false;    // a child of this program, reaped by another part of it
    bool joining = false;      // attached to, but not yet in its first stop
    bool stop_due = false;     // a stop signal sent by the trace may still be pending
    bool sigcont_due = false;  // a SIGCONT that replaced such a stop signal may still be pending
    bool stopped = false;      // in a stop, not resumed
    bool ready = false;        // in the queue of those with an event to handle
    strace_process* next_ready = nullptr;
    bool released = false;        // detached or given up
    bool in_syscall = false;      // between the entry and the exit of a system call
    int status = 0;               // the wait status of the event to handle
    int undelivered = 0;          // the signal to deliver when it is resumed after a kept event
    unique_fd fd_dir;             // its descriptor directory, if held open
    strace_time stopped_at = {};  // in a timed trace: the time of the event to handle
    timespec entered_at = {};     // likewise, of the call's entry; monotonic
    arch_regs entry_regs = {};
    arch_regs exit_regs = {};

    pid_t pid() const { return *entry; }
    bool is_dropped() const { return *entry == -1; }
    // The process has ended or is no longer traced.
    void drop() { *entry = -1; }
};

// One trace, for the duration of do_strace. Owns what it opens.
struct strace_state {
    explicit strace_state(strace_ctx* traced);
    strace_state(const strace_state&) = delete;
    strace_state& operator=(const strace_state&) = delete;
    ~strace_state();

    // False if memory ran out; such a state cannot be used.
    bool is_complete() const { return memory != nullptr; }
    std::span<strace_process> processes() const { return {memory.get(), count}; }

    static constexpr pid_t no_timer = -1;

    strace_ctx* ctx;  // borrowed
    size_t count;
    malloc_array<strace_process> memory;  // `count` processes, in the order of the context's list
    unique_socket_cache sockets;
    malloc_array<char> pending;  // text not yet written, strace_buffer_size bytes; null: nothing is buffered
    int pending_length = 0;
    strace_process* first_ready = nullptr;  // the queue, in the order of the events
    strace_process** ready_end = &first_ready;
    int ready_count = 0;
    int live = 0;  // processes that are traced and have not ended
    pid_t timer = no_timer;
    bool over = false;  // no more events are handled
    // Of a timed trace.
    strace_time event = {};  // of the event that is being reported
    strace_minute minute;
    bool mid_line = false;  // the text so far does not end in a newline
};

// In a timed trace, sets the time of the event to the current time. To be called right after a wait.
void strace_take_time(strace_state* state);

// The process with this id, or null.
strace_process* strace_find(const strace_state& state, pid_t pid);

// The process that waitpid returned with `status`, or null. If the status is that of an exec, the thread that
// called exec now has its process's id: its entry gets that id. The entry that had the id before becomes -1.
strace_process* strace_find_by_event(strace_state* state, pid_t pid, int status);
