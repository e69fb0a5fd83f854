// Waiting in a resource trace, which ends at once when the trace's client goes away.
#pragma once

#include <poll.h>

#include "common/deadline.h"

// What to put into the first entry of rtrace_poll's array for a client.
pollfd rtrace_client(int fd);

// Waits until `end` for one of `fds`, of which the first is the client. Polls at least once, even after the
// deadline. Returns how many others are ready; 0 at the deadline; -1 when the client has closed its side
// (POLLRDHUP) or is gone, or poll failed.
int rtrace_poll(pollfd* fds, nfds_t count, const deadline& end);
