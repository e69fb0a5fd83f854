// Detaches the processes of a trace.
#pragma once

#include "trace/strace_process.h"

// How long one process may take to stop for its detach.
constexpr int strace_stop_patience_ms = 200;

// How long strace_release_all tries, for all processes together.
constexpr int strace_release_patience_ms = 3000;

// Detaches one process. Stops it first if it is running; a stop signal of the attach may still be pending.
// Returns false if it does not stop within strace_stop_patience_ms (uninterruptible sleep); no stop signal is
// pending then. The entry becomes -1 if the process has ended.
bool strace_release(strace_state* state, strace_process* process);

// Detaches all processes that are still traced: first the stopped ones, then the others one at a time. So
// this program, whenever it ends, leaves at most one of them stopped. A process in an uninterruptible sleep,
// such as the parent of a vfork, is tried again until strace_release_patience_ms have passed. If it still
// does not stop, the kernel detaches it when the calling thread ends.
//
// If the processes are children of the caller (`attached`), waits for their ends as well.
void strace_release_all(strace_state* state);
