// The worker thread that streams a system-call trace, and the thread that watches its browser.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>

struct strace_request {
    static constexpr int capacity = 512;
    pid_t pids[capacity];
    int pid_count;
    int client_fd;
    std::atomic<int> running;  // 1 from the start on, 0 when the trace is to stop
    std::atomic<int> noticed;  // the worker has seen that `running` is 0
    int stalled;               // the browser takes nothing any more; what is left of the text is dropped
    int over_fd;               // readable when the trace is over
    pthread_t thread;          // the worker
};

// How long a browser may take nothing while text is waiting for it; one that takes anything is served to the
// end, which can be seen down to 5 kB a second. The traced processes wait with the text.
constexpr int strace_stall_ms = 10000;
// The same for one that has asked for the end.
constexpr int strace_last_words_ms = 500;

// Thread entry; takes over the strace_request (from malloc) and its connection. The trace ends with its
// processes, or within a second when the browser closes the connection, sends anything or stalls.
void* run_strace_request(void* record);

// Thread entry; the strace_request is borrowed. Ends when the trace does, or when the browser has gone and
// the worker has noticed.
void* run_strace_watcher(void* record);
