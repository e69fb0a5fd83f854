// Waiting in a resource trace, which ends at once when the trace's client goes away.
#pragma once

#include <poll.h>
#include <stdint.h>

// A monotonic clock in microseconds, and the moment `seconds` (0 or more) from now on it.
int64_t rtrace_now_us();
int64_t rtrace_deadline_us(int64_t seconds);

// What to put into the first entry of rtrace_poll's array for a client.
pollfd rtrace_client(int fd);

// Waits until `deadline_us` for one of `fds`, of which the first is the client. It looks at least once, also
// behind the deadline. Returns how many others are ready; 0 at the deadline; -1 when the client has closed
// its side (POLLRDHUP) or is gone, or poll failed.
int rtrace_poll(pollfd* fds, nfds_t count, int64_t deadline_us);
