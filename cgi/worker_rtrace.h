// The worker thread that streams a resource trace.
#pragma once

#include <stdint.h>

struct rtrace_request {
    int client_fd;
    int32_t interval;  // seconds; -1 when the request's was invalid
    uint32_t mask;     // sources
};

// Thread entry; takes over the rtrace_request (from malloc) and its connection. The trace ends when the
// browser goes, which is noticed within a second also between two samples.
void* run_rtrace_request(void* record);
