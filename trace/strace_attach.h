// Attaches to the processes of a trace.
#pragma once

#include "trace/strace_process.h"

// Attaches to the processes of the context's list and resumes them. Drops those that cannot be traced. Asks
// the caller after each process that did not stop in time (strace_attach_patience_ms); if it ends the trace,
// the remaining processes are dropped.
void strace_attach_all(strace_state* state);

// Asks the caller through its callback whether the trace goes on.
bool strace_poll_caller(strace_ctx* ctx);
