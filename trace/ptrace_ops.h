// Taking hold of a process with ptrace(2), resuming it and letting it go.
//
// All calls are for the thread that attached (or is the parent of a child that asked to be traced), and wait
// for this thread's own children and tracees only. Messages go to standard output.
#pragma once

#include <sys/types.h>

// How waitpid is to be called for tracees: threads as well as processes, and nobody else's children.
extern const int trace_wait_flags;

// Attaches to `pid` and waits for its first stop, whatever it is. Returns `pid`, or -1, silently, when the
// process can't be attached to or no stop of it can be waited for; it is then let go again.
pid_t trace_attach(pid_t pid);

// The same for a caller that can't wait for ever: a process that sleeps where no signal reaches it stops only
// later. Returns `pid` with the wait status in `*status`, which may also be that of its end; 0 when
// `patience_ms` have passed: the stop signal has been taken back then (see below), and the first stop is
// still to come; -1 as above.
pid_t trace_attach_within(pid_t pid, int patience_ms, int* status);

// Lets a process go that may be stopped or running, delivering `sig` (0: none) as it goes on. One that runs
// is stopped first; signals that it meets on its way to that stop are lost, unless it is for SIGSTOP itself.
// Then waits for the process once more, which for a child of the caller means until it ends; not so for a
// first thread that has ended before the others of its process.
void trace_detach_sig(pid_t pid, int sig);
void trace_detach(pid_t pid);  // with signal 0

// Whether `pid` is traced by the calling thread. A process number may pass to another thread of its process,
// which is not traced: by an exec.
bool trace_is_ours(pid_t pid);

// What is known of a thread at one moment.
struct trace_view {
    char state = '\0';          // proc(5), "stat"; 0: there is no such thread
    pid_t process = 0;          // the process that it belongs to
    pid_t tracer = 0;           // the thread that traces it; 0: none
    bool stop_pending = false;  // a stop signal has been sent and has not arrived
};
trace_view trace_look(pid_t pid);

// Brings one thread to a stop that is not a stop of its process; returns kill(2)'s result. Until the stop has
// been waited for, the end of the tracer leaves the process stopped for good: hold the end (ending_held).
int trace_stop_thread(pid_t pid);

// Takes a stop signal back that has not arrived. A SIGCONT is sent in its place: while the thread is traced
// it makes it stop as well, and when the tracer has gone it stops nobody.
void trace_take_back_stop(pid_t pid);

// Whether the thread is in a stop for a SIGCONT that this program sent.
bool trace_is_own_sigcont(pid_t pid, int status);

// The first stop of a process that was attached to, whose wait status is `status`. Returns the signal that is
// to be delivered as it goes on, 0 for none; sets `*stop_due` when the stop signal of the attach is still to
// come, since another signal, or a stop that the process was in, came first.
int trace_first_signal(pid_t pid, int status, bool* stop_due);

// PTRACE_DETACH of a stopped process, which gets `sig` (0: none); false when it is not stopped, or not ours.
bool trace_detach_stopped(pid_t pid, int sig);

// Sets PTRACE_O_ bits. Returns 0, or -1 after "PTRACE_CONT failed ..." (the words are that of another
// request; deliberate).
int trace_setoptions(pid_t pid, long options);

// Resume a stopped process, to run on or to the next system call, delivering `sig` (0: none). Up to 4
// attempts at once, each failed one reported; the result of the last.
int trace_cont(pid_t pid, int sig);
int trace_syscall(pid_t pid, int sig);
