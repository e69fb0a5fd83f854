// The programs whose output a resource trace records.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include "common/unique_fd.h"

struct rtrace_context;

constexpr int rtrace_apps_capacity = 4;

// How long a program may take to end after SIGTERM. After that it is killed.
constexpr int rtrace_app_patience_ms = 5000;

// One program: the source that selects it, the type of its records, and how it is started.
struct rtrace_app {
    static constexpr int words_capacity = 10;
    uint32_t source;
    uint32_t type;
    const char* argv[words_capacity];  // begins with the path, ends with a null
    const char* envp[words_capacity];  // the whole environment, ends with a null
    int interval_position;             // index of the argument that is the trace's interval; 0: none
};

// All programs, in the order in which they are started, read and ended.
extern const rtrace_app rtrace_app_table[rtrace_apps_capacity];

// The programs that one trace has started. One that could not be executed has exited with status 1; it is
// treated like one that prints nothing.
struct rtrace_apps {
    struct app {
        unique_fd read_end;   // of the pipe for its output
        unique_fd write_end;  // kept open, so that the pipe has no end of file
        pid_t pid = -1;       // below 1: not started
        uint32_t type = 0;
    };
    int count = 0;
    app apps[rtrace_apps_capacity];
};

// An empty block for rtrace_end_apps to free. Null if memory runs out.
rtrace_apps* rtrace_new_apps();

// Starts the programs that the context's mask selects, each with a pipe as its output and with this process's
// standard input and standard error. Stores the block through `block_out` and returns 0. Stores nothing if no
// program is selected, memory runs out, or a pipe cannot be created. In the last case the programs before it
// run until the trace ends, without being read; the context keeps them as `unread`.
int rtrace_start_apps(rtrace_context* context, rtrace_apps** block_out);

// Waits for one interval and records the output of the programs: deliberately at most one read of each, so
// that no program can flood the trace. False if a write fails, the client closes its side, or the interval is
// negative.
bool rtrace_read_apps(rtrace_context& context, const rtrace_apps& apps);

// Closes the pipes, then ends one program after the other with SIGTERM, after rtrace_app_patience_ms with
// SIGKILL, and reaps it. Frees the block. Returns 0, or -1 if either pointer is null.
int rtrace_end_apps(rtrace_context* context, rtrace_apps* block);
