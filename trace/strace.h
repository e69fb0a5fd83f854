// The tracing engine: system calls, signals and exits of a set of processes as text.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Flags: what a trace reports.
constexpr uint32_t strace_calls = 1;    // system calls
constexpr uint32_t strace_signals = 2;  // signals
constexpr uint32_t strace_exits = 4;    // stops at the exit of a process
constexpr uint32_t strace_fds = 8;      // open descriptors, at exits and at the end of the trace
constexpr uint32_t strace_everything = static_cast<uint32_t>(-1);

// The kinds of exit that on_exit reports.
constexpr int strace_exit_stop = 1;  // the process is exiting; the code is the status that waitpid reports
constexpr int strace_exit_call = 2;  // the process calls exit or exit_group; the code is the call's argument

// How long an attach waits for the process to stop. A process in an uninterruptible sleep may take longer; it
// then joins the trace when it stops.
constexpr int strace_attach_patience_ms = 200;

// Size of the work buffer if the caller provides none.
constexpr int strace_buffer_size = 4096;

struct strace_state;

// One trace, owned by the caller.
struct strace_ctx {
    // Receives the text. Lines of processes that stopped together may come in one call, after the processes
    // were resumed. A call with length 0 is a poll; if it returns 0, the trace ends. The caller is polled
    // after every wait (twice if a signal interrupted it), after each attach that timed out, and while
    // another trace runs. Text that was already collected and the lists of descriptors still follow. May be
    // null.
    int32_t (*write)(void* cookie, const char* text, int length);
    // Called at exits, in the tracing thread, while the process is stopped. `extra` is null. May be null.
    void (*on_exit)(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra);
    void* cookie;         // passed to both; may be a descriptor number cast to a pointer
    strace_state* names;  // set by do_strace for its duration
    uint32_t flags;       // see above
    // The processes, or single threads. An entry becomes -1 when its process ends or cannot be traced; -1 is
    // skipped. A thread that calls exec takes its process's id, and so does its entry.
    pid_t* pids;
    int32_t nr_pids;
    int32_t seconds;   // time limit; below 1: none
    int32_t attached;  // not 0: the processes are children of the caller, traced by it and stopped
    char* buf;         // work buffer from malloc, freed by do_strace; null: do_strace allocates one
    int32_t bufsize;   // if below 1, do_strace replaces the buffer
    // Not 0: a timed trace. Each line that is not empty begins with the local time at which its process
    // stopped, "HH:MM:SS.uuuuuu ", and a line with a call's result ends in " <S.uuuuuu>", the seconds from
    // the entry's stop to the exit's. The times do not count towards the size of the work buffer.
    int32_t timed;
};

// Traces until the processes have ended, the time is up or the callback ends the trace, then detaches the
// remaining processes. A process that cannot be traced is skipped. Only one trace runs at a time in this
// program; others wait. The time limit is a child that runs /bin/sleep; if it cannot be started, nothing is
// traced. If a traced process is a child of the calling thread, the trace may reap it. With strace_exits, the
// last process of the trace is left for the caller to reap, unless `attached` is set.
//
// While a stop signal sent by the trace is pending (during an attach or a detach), signals do not end this
// program (ending_held): the pending signal would leave the process stopped for good.
void do_strace(strace_ctx* ctx);

// Formats into the work buffer and writes the text. Returns its length as vsnprintf does. Text that does not
// fit in the buffer is not written.
int strace_printf(strace_ctx* ctx, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Reports the exit of `pid`: lists its descriptors (strace_fds) and calls on_exit. `kind` is one of the
// above. For strace_exit_stop, `code` is replaced by the kernel's. Does not change the work buffer.
void strace_exit(strace_ctx* ctx, pid_t pid, int kind, int code, void* extra);

// Writes a heading and a process's open descriptors, one line for each with its description. Only while
// do_strace runs.
void strace_show_fdinfo_all(strace_ctx* ctx, pid_t pid);
