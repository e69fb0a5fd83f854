// Handles the events of traced processes: reports them and resumes the processes.
#pragma once

#include "trace/strace_process.h"

// Begins to trace a process that is in its first stop: sets the ptrace options, reports `sig` unless it is 0
// and resumes the process with it. If either fails, detaches and drops the process. Returns success.
bool strace_start(strace_state* state, strace_process* process, int sig);

// Handles an event with wait status `status`, which happened at `state->event`. Ends the trace (`over`) if it
// is the exit of the last live process.
void strace_handle_event(strace_state* state, strace_process* process, int status);
