// Streams a system-call trace to a browser: a worker thread traces, a second thread watches the connection.
#pragma once

#include <pthread.h>
#include <stdint.h>
#include <sys/types.h>

#include <atomic>

#include "common/unique_fd.h"

struct strace_request {
    static constexpr int capacity = 512;
    pid_t pids[capacity] = {};
    int pid_count = 0;
    bool timed = false;  // the trace has times (strace_ctx), and its file a name that tells what it is
    unique_fd client;    // the browser's connection
    std::atomic<int> running = 1;  // 0 once the trace is to end
    std::atomic<int> noticed = 0;  // 1 once the worker has seen that `running` is 0
    size_t piece_used = 0;         // bytes sent of the current piece
    int stalled = 0;               // 1 once the browser has stalled; the rest of the text is dropped
    unique_fd over;                // readable when the trace is over
    pthread_t thread = {};         // the worker
};

// A browser that takes no byte for this long while text is waiting has stalled, and its trace ends: the
// traced processes stand still meanwhile. Any progress counts. The kernel reports progress in steps, so only
// browsers that read 5 kB a second or more are certain to be served to the end.
constexpr int strace_stall_ms = 10000;
// The same limit after the browser has ended the trace.
constexpr int strace_last_words_ms = 500;

// Thread entry. Takes over the strace_request (from worker_new_record). The trace ends with its
// processes, when the browser stalls, or within a second after the browser closes the connection or sends
// anything.
void* run_strace_request(void* record);

// Thread entry; borrows the strace_request. Ends with the trace, or once the worker has noticed that the
// browser is gone.
void* run_strace_watcher(void* record);
