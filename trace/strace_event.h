// What the wait status of a traced process means.
#pragma once

#include "trace/strace_process.h"

enum class strace_event_kind {
    exited,
    killed,
    first_stop,    // of a process that was attached to
    system_call,   // entry or exit
    exit_stop,     // the process is at its exit (PTRACE_O_TRACEEXIT)
    exec_stop,     // the process has called exec (PTRACE_O_TRACEEXEC)
    trap,          // a SIGTRAP for the process
    own_stop,      // a stop signal sent by the trace
    own_sigcont,   // a SIGCONT sent by the trace in place of a stop signal
    other_signal,  // any other signal for the process
};

struct strace_event {
    strace_event_kind kind;
    int signal = 0;  // to be delivered when the process is resumed; 0: none
};

// Turns the wait status of a process into an event, and notes in `process` what has changed with it: the
// process has ended (its entry becomes -1) or is stopped, has joined the trace, or has taken a signal that
// was due.
strace_event strace_take_event(strace_process* process, int status);

// The same for an event that is not handled: keeps the signal for the time when the process is detached.
void strace_keep_event(strace_process* process, int status);
