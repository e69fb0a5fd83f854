// Stops and ends of single threads that this thread traces.
#pragma once

#include <sys/types.h>

enum class thread_event {
    none,
    stopped,
    gone,  // ended and now reaped, or not traced by this thread
};

// Returns the event of a thread, without waiting. A stop stays in the kernel's record, so that a signal that
// was about to be delivered reaches the thread even if the dumper is killed. For a stop, `*status` is the
// ptrace event times 256 plus the signal.
thread_event thread_poll(pid_t tid, int* status);

// Waits up to 10 ms for SIGCHLD, which announces the stop or end of a traced thread. Returns false if none
// came.
bool thread_await_event();

// True for a thread that has ended, whether it has been reaped or not.
bool thread_has_ended(pid_t tid);
