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

// The same with a timeout: a process in an uninterruptible sleep does not stop until it wakes up. Returns
// `pid` and sets `*status` to the wait status of its stop or end; -1 as above; 0 after `patience_ms`. On a
// timeout, the stop signal has been taken back (trace_take_back_stop) and the first stop is still to come.
pid_t trace_attach_within(pid_t pid, int patience_ms, int* status);

// Detaches a stopped or running process and delivers `sig` (0: none). A running process is stopped first;
// signals that it receives before that stop are lost, unless `sig` is SIGSTOP. A process that was stopped and
// is a child of the caller is then waited for until it ends, except for a first thread that ended before the
// others of its process. A signal for the caller ends that wait.
void trace_detach_sig(pid_t pid, int sig);
void trace_detach(pid_t pid);  // with signal 0

// True if the calling thread traces `pid`. After an exec, an id may belong to another thread of the same
// process, and that thread may not be traced.
bool trace_is_ours(pid_t pid);

// The state of a thread at one moment.
struct trace_view {
    char state = '\0';          // as in /proc/PID/stat; 0: no such thread
    pid_t tgid = 0;             // the process that it belongs to
    pid_t tracer = 0;           // the thread that traces it, or 0
    bool stop_pending = false;  // a SIGSTOP is pending
};
trace_view trace_look(pid_t pid);

// Sends a stop signal to one thread; its tracer sees the stop, the rest of its process runs on. Returns what
// kill(2) would. If the tracer ends before it has waited for the stop, the whole process stays stopped.
// Callers prevent that with ending_held.
int trace_stop_thread(pid_t pid);

// Replaces a pending stop signal by a SIGCONT. A traced thread stops for that too, but an untraced one only
// runs on.
void trace_take_back_stop(pid_t pid);

// True if the thread stopped for a SIGCONT that this program sent.
bool trace_is_own_sigcont(pid_t pid, int status);

// Examines the first stop after an attach, with wait status `status`. Returns the signal to deliver when the
// process is resumed (0: none). Sets `*stop_due` to whether the attach's stop signal is still pending because
// another signal, or a stop that the process was already in, came first.
int trace_first_signal(pid_t pid, int status, bool* stop_due);

// Detaches a stopped process and delivers `sig` (0: none). False if the process is not stopped or not traced
// by the calling thread.
bool trace_detach_stopped(pid_t pid, int sig);

// Sets PTRACE_O_ options. Returns 0, or -1 after printing "PTRACE_CONT failed ..." (deliberately the name of
// another request).
int trace_setoptions(pid_t pid, long options);

// Resume a stopped process, to run freely or to its next system call, and deliver `sig` (0: none). Try up to
// trace_resume_attempts times without a pause and report each failure. Return ptrace's last result.
constexpr int trace_resume_attempts = 4;
int trace_cont(pid_t pid, int sig);
int trace_syscall(pid_t pid, int sig);
