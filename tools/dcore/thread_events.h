// Reports when threads that the calling thread traces stop or end.
#pragma once

#include <sys/types.h>

enum class thread_event {
    none,
    stopped,
    gone,  // ended and now reaped, or not traced by the calling thread
};

// Returns the event of a thread, without waiting. Does not consume a stop: if the dumper is killed, a signal
// that was about to be delivered still reaches the thread. For a stop, `*status` becomes the ptrace event
// times 256 plus the signal.
thread_event thread_poll(pid_t tid, int* status);

// Waits up to 10 ms for SIGCHLD, which announces the stop or end of a traced thread. Returns false
// if it timed out.
bool thread_await_event();

// True for a thread that has ended, whether it has been reaped or not.
bool thread_has_ended(pid_t tid);
