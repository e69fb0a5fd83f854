// The tracing engine.
#pragma once

#include <stdint.h>
#include <sys/types.h>

// Everything that do_strace can report.
constexpr uint32_t strace_everything = static_cast<uint32_t>(-1);

// One trace, owned by the caller.
struct strace_ctx {
    // Gets every finished piece of text; called with length 0 after every wait as a poll, whose result 0 ends
    // the trace.
    int32_t (*write)(void* cookie, const char* text, int length);
    void* cookie;
    uint32_t flags;
    pid_t* pids;  // entries become -1 when their process is gone or could not be traced
    int32_t nr_pids;
    int32_t seconds;  // time limit; none when below 1
};

// Traces until the processes are gone, the time is up or the callback asks to stop.
void do_strace(strace_ctx* ctx);
