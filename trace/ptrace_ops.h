// Attaches to processes with ptrace(2), resumes and detaches them.
//
// All calls must come from the thread that attached, or from the parent of a child that called
// PTRACE_TRACEME. They wait only for this thread's own children and tracees. Messages go to standard output.
#pragma once

#include <sys/types.h>

// The flags of waitpid for tracees: threads as well as processes, but no children of other threads.
extern const int trace_wait_flags;

// Attaches to `pid` and waits for its first stop of any kind. Returns `pid`, or -1 without a message if the
// attach or the wait fails; the process is then detached again.
pid_t trace_attach(pid_t pid);

// The same with a timeout, since a process in an uninterruptible sleep stops only later. Returns `pid` with
// the wait status, which may be that of its end, in `*status`; -1 as above; 0 after `patience_ms`. In the
// last case the stop signal was taken back (see below) and the first stop is still to come.
pid_t trace_attach_within(pid_t pid, int patience_ms, int* status);

// Detaches a stopped or running process and delivers `sig` (0: none). A running process is stopped first;
// signals that arrive before that stop are lost, unless `sig` is SIGSTOP. Then waits for the process once
// more: for a child of the caller until it ends, except for a first thread that has ended before the others
// of its process.
void trace_detach_sig(pid_t pid, int sig);
void trace_detach(pid_t pid);  // with signal 0

// Whether `pid` is traced by the calling thread. After an exec, a process id may belong to another thread of
// the process, which is not traced.
bool trace_is_ours(pid_t pid);

// The state of a thread at one moment.
struct trace_view {
    char state = '\0';          // proc(5), "stat"; 0: there is no such thread
    pid_t tgid = 0;             // the process that it belongs to
    pid_t tracer = 0;           // the thread that traces it; 0: none
    bool stop_pending = false;  // a SIGSTOP is pending
};
trace_view trace_look(pid_t pid);

// Stops one thread without stopping its process. Returns kill(2)'s result. If the tracer ends before it has
// waited for this stop, the process stays stopped for good, so hold the end meanwhile (ending_held).
int trace_stop_thread(pid_t pid);

// Replaces a pending stop signal by a SIGCONT. It makes a traced thread stop too, but is harmless once the
// tracer is gone.
void trace_take_back_stop(pid_t pid);

// Whether the thread has stopped for a SIGCONT that this program sent.
bool trace_is_own_sigcont(pid_t pid, int status);

// Examines the first stop after an attach, with wait status `status`. Returns the signal to deliver when the
// process is resumed (0: none). Sets `*stop_due` if the attach's stop signal is still pending, because
// another signal, or a stop that the process was already in, came first.
int trace_first_signal(pid_t pid, int status, bool* stop_due);

// Detaches a stopped process and delivers `sig` (0: none). False if it is not stopped or not ours.
bool trace_detach_stopped(pid_t pid, int sig);

// Sets PTRACE_O_ options. Returns 0, or -1 after printing "PTRACE_CONT failed ..." (deliberately the name of
// another request).
int trace_setoptions(pid_t pid, long options);

// Resume a stopped process, to run on or to its next system call, and deliver `sig` (0: none). Up to 4
// attempts without a pause; each failed one is reported. Return the result of the last.
int trace_cont(pid_t pid, int sig);
int trace_syscall(pid_t pid, int sig);
