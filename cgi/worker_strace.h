// The worker thread that streams a system-call trace.
#pragma once

#include <pthread.h>
#include <sys/types.h>

struct strace_request {
    static constexpr int capacity = 512;
    pid_t pids[capacity];
    int pid_count;
    int client_fd;
    int running;  // 1 from the start on, 0 when the trace is to stop
    pthread_t thread;
};

// Thread entry; takes over the strace_request (from malloc) and its connection.
void* run_strace_request(void* record);
