// The worker thread that streams a resource trace.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"

struct rtrace_request {
    unique_fd client;
    int32_t interval = 0;  // seconds; -1 if the request's was invalid
    uint32_t mask = 0;     // sources
};

// Thread entry; takes over the rtrace_request (from worker_new_record). The trace ends within a second after
// the browser has closed the connection, even between two samples.
void* run_rtrace_request(void* record);
