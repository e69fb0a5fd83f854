// The tracing engine: system calls, signals and exits of a set of processes as text.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// What a trace reports.
constexpr uint32_t strace_calls = 1;    // system calls
constexpr uint32_t strace_signals = 2;  // signals
constexpr uint32_t strace_exits = 4;    // stops at the exit of a process
constexpr uint32_t strace_fds = 8;      // open descriptors of a process that exits or is let go at the end
constexpr uint32_t strace_everything = static_cast<uint32_t>(-1);

// What on_exit is told about.
constexpr int strace_exit_stop = 1;  // the process is about to be gone; the code is as waitpid reports it
constexpr int strace_exit_call = 2;  // the process calls exit or exit_group; the code is the call's argument

// How long a process may take to stop when it is attached to; one that takes longer, since it sleeps where no
// signal reaches it, joins the trace when it does stop.
constexpr int strace_attach_patience_ms = 200;

// Size of the work buffer that a trace makes for itself.
constexpr int strace_buffer_size = 4096;

struct strace_names;

// One trace, owned by the caller.
struct strace_ctx {
    // Gets every finished piece of text; the lines of system calls at which several processes stopped
    // together may come as one, before the next wait, when the processes may have gone on already. Called
    // with length 0 after every wait, behind each process that did not stop when it was attached to, and
    // while the trace waits for its turn, as a poll, whose result 0 ends the trace. May be null. The final
    // pieces, and the lists of descriptors, still come after that.
    int32_t (*write)(void* cookie, const char* text, int length);
    // Told of exits, in the tracing thread with the process stopped; may be null. `extra` is null.
    void (*on_exit)(strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra);
    void* cookie;         // for both; a descriptor number in the place of a pointer will do
    strace_names* names;  // set by do_strace for its duration
    uint32_t flags;       // what is reported
    pid_t* pids;          // entries become -1 when their process is gone or was not traced; -1 is skipped.
                          // A thread that calls exec takes the number of its process, and so does its entry
    int32_t nr_pids;
    int32_t seconds;   // time limit; none when below 1
    int32_t attached;  // not 0: the processes are children of the caller that stopped for it as their tracer
    char* buf;         // work buffer from malloc, freed by do_strace; null: it makes its own
    int32_t bufsize;
};

// While a stop signal is on its way to a process, which is so for a moment when it is attached to and when it
// is let go, the end of this program by a signal is held (ending_held): the signal would stop the process for
// good.
//
// Traces until the processes are gone, the time is up or the callback asks to stop, and lets those go that
// are left. Nothing is returned; a process that can't be traced is left out. Only one trace runs at a time in
// this program: others wait. The time limit is a child of the calling thread that runs /bin/sleep; without it
// there is no trace. The end of a child of the calling thread is left to be waited for by its caller when it
// is the last process of the trace; the trace may wait for the end of one before.
void do_strace(strace_ctx* ctx);

// Formats into the work buffer and writes the result out. Returns its length; what is below 1, or has no room
// in the buffer, is returned without being written.
int strace_printf(strace_ctx* ctx, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Reports the exit of `pid`, of one of the kinds above. The work buffer keeps what is in it.
void strace_exit(strace_ctx* ctx, pid_t pid, int kind, int code, void* extra);

// Writes the list of a process's open descriptors, one a line with its description, under a heading.
void strace_show_fdinfo_all(strace_ctx* ctx, pid_t pid);
