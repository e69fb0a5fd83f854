// Making a process's threads ours, without stopping them. For the one thread that holds them.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "tools/dcore/threads.h"

// Seizes the threads of hold.pid that are not in the hold yet, and drops from it those that are no longer
// ours. Waits until `until_ms` (monotonic) for another tracer to go, and for a program that is being started.
// Adds to `fresh` how many were seized, or run although they had stopped. Returns 0 with at least one thread
// in the hold, or
//   ESRCH      there is no thread that has not ended
//   EBUSY      another process traces one: hold.tracer
//   ETIMEDOUT  one is starting another program, which keeps tracers out, and did not come to an end of it
//   another errno: what the kernel said
int seize_new(thread_hold& hold, int64_t until_ms, unsigned& fresh);

enum class thread_news {
    none,
    stopped,
    gone,  // has ended, and is reaped; or is not ours
};

// What there is to know of a thread that we trace. A stop stays in the kernel's record: if we are killed, a
// signal that was on its way to the thread still reaches it. `status`: the event that stopped it, times 256,
// and the signal.
thread_news look_at_thread(pid_t tid, int& status);

// Reaps the threads that have ended. One that starts another program waits for that.
void reap_ended(const thread_hold& hold);

// Waits a moment for one of ours to stop or to end. False when nothing was announced.
bool await_news();

// True for a thread that is gone or only waits to be reaped.
bool has_ended(pid_t tid);
