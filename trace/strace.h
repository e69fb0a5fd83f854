// The tracing engine: system calls, signals and exits of a set of processes as text.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// What a trace reports.
constexpr uint32_t strace_calls = 1;    // system calls
constexpr uint32_t strace_signals = 2;  // signals
constexpr uint32_t strace_exits = 4;    // stops at the exit of a process
constexpr uint32_t strace_fds = 8;      // open descriptors of a process that exits or is detached at the end
constexpr uint32_t strace_everything = static_cast<uint32_t>(-1);

// What on_exit is told about.
constexpr int strace_exit_stop = 1;  // the process is exiting; the code is the status that waitpid reports
constexpr int strace_exit_call = 2;  // the process calls exit or exit_group; the code is the call's argument

// How long an attach waits for the process to stop. A process in an uninterruptible sleep takes longer; it
// joins the trace when it stops.
constexpr int strace_attach_patience_ms = 200;

// Size of the work buffer if the caller provides none.
constexpr int strace_buffer_size = 4096;

struct strace_state;

// One trace, owned by the caller.
struct strace_ctx {
    // Gets every finished piece of text. Lines of processes that stopped together may come in one call, after
    // the processes were resumed. A call with length 0 is a poll, and its result 0 ends the trace; it is made
    // after every wait, after each process that did not stop in time when attached to, and while the trace
    // waits for its turn. The last pieces and the lists of descriptors still come after the trace was ended.
    // May be null.
    int32_t (*write)(void* cookie, const char* text, int length);
    // Called at exits, in the tracing thread with the process stopped; may be null. `extra` is null.
    void (*on_exit)(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra);
    void* cookie;         // passed to both; may be a descriptor number cast to a pointer
    strace_state* names;  // set by do_strace for its duration
    uint32_t flags;       // what is reported
    pid_t* pids;  // an entry becomes -1 when its process ends or cannot be traced; -1 is skipped. When a
                  // thread calls exec, it gets its process's id, and so does its entry
    int32_t nr_pids;
    int32_t seconds;   // time limit; none when below 1
    int32_t attached;  // not 0: the processes are children of the caller and already stopped for it as their
                       // tracer
    char* buf;         // work buffer from malloc, freed by do_strace; null: do_strace allocates one
    int32_t bufsize;
};

// Traces until the processes have ended, the time is up or the callback ends the trace, then detaches the
// remaining ones. A process that cannot be traced is left out. Only one trace runs at a time in this program;
// others wait. The time limit is a child that runs /bin/sleep; if it cannot be started, there is no trace. If
// a traced process is a child of the calling thread, the caller reaps it only if it is the last process of
// the trace; the trace may reap others.
//
// While a stop signal sent by the trace is pending (during an attach or a detach), signals do not end this
// program (ending_held): the pending signal would leave the process stopped for good.
void do_strace(strace_ctx* ctx);

// Formats into the work buffer and writes the result. Returns its length. A result below 1, or one that does
// not fit in the buffer, is not written.
int strace_printf(strace_ctx* ctx, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Reports the exit of `pid`; `kind` is one of the above. Does not change the work buffer.
void strace_exit(strace_ctx* ctx, pid_t pid, int kind, int code, void* extra);

// Writes a heading and the list of a process's open descriptors, one per line with its description.
void strace_show_fdinfo_all(strace_ctx* ctx, pid_t pid);
