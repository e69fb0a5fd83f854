// The programs that a resource trace starts for what they print.
#pragma once

#include <stdint.h>
#include <sys/types.h>

struct rtrace_context;

constexpr int rtrace_apps_capacity = 4;

// How long a program may take to end by itself after SIGTERM; then it is killed.
constexpr int rtrace_app_patience_ms = 5000;

// One program: the source that selects it, the type of its records, and how it is started.
struct rtrace_app {
    static constexpr int words_capacity = 10;
    uint32_t source;
    uint32_t type;
    const char* argv[words_capacity];  // the first is the path; ended by a null
    const char* envp[words_capacity];  // all of its environment; ended by a null
    int interval_position;             // the argument that the trace's interval replaces; 0: none
};

// All there are, in the order in which they are started, read and ended.
extern const rtrace_app rtrace_app_table[rtrace_apps_capacity];

// The programs of one trace that have been started. One that could not be executed ended with status 1 and
// is like one that prints nothing.
struct rtrace_apps {
    int count;
    int pipes[rtrace_apps_capacity][2];  // owned: where its output is read, where it writes
    pid_t pids[rtrace_apps_capacity];    // -1 when there is no process
    uint32_t types[rtrace_apps_capacity];
};

// Starts what the context's mask selects, each with its output in a pipe and this process's standard input
// and standard error, and stores the block (from calloc) through `block_out`. Returns 0. Nothing is stored
// when nothing is selected, there is no memory, or a pipe can't be made. In the last case the programs before
// it are left running, unread, until the trace ends: they are kept as the context's `unread`.
int rtrace_start_apps(rtrace_context* context, rtrace_apps** block_out);

// Waits for one interval and writes what the programs print meanwhile: at most one read's worth of each,
// deliberately, so that one that floods waits for the next call. False when a write failed, the client went,
// or the interval is negative.
bool rtrace_read_apps(rtrace_context& context, const rtrace_apps& apps);

// Closes the pipes, then ends each program in turn with SIGTERM, after rtrace_app_patience_ms with SIGKILL,
// and reaps it. Frees the block. Returns 0, or -1 when either is null.
int rtrace_end_apps(rtrace_context* context, rtrace_apps* block);
