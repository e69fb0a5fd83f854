// Seizes a process's threads, which run on.
#pragma once

#include <stdint.h>

#include "tools/dcore/threads.h"

// Seizes the threads of hold->pid that are not held yet, and drops threads that are no longer traced by the
// calling thread. Waits until `until_ms` (monotonic) for another tracer to detach, and for a thread that is
// starting another program. Adds to `*fresh` the number of threads that were newly seized, or that run again
// after a stop. Returns 0 with at least one held thread, or an error of threads_seize().
int seize_new(thread_hold* hold, int64_t until_ms, unsigned* fresh);

// Reaps threads that have ended. A thread that is starting another program waits for this.
void seize_reap_ended(const thread_hold& hold);
