// Waits of a resource trace. They end at once when the trace's client closes its side.
#pragma once

#include <poll.h>

#include "common/deadline.h"

// The first entry of rtrace_poll's array: the client.
pollfd rtrace_client(int fd);

// Waits until `end` for one of `fds`, the first of which is the client. Polls at least once, even after the
// deadline. Returns how many of the others are ready; 0 at the deadline; -1 if the client has closed its side
// (POLLRDHUP or an error) or poll fails.
int rtrace_poll(pollfd* fds, nfds_t count, const deadline& end);
