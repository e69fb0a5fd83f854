// The state of a trace of one process, for tests of code that needs no running trace.
#pragma once

#include <string.h>

#include "trace/strace_process.h"

struct one_process_trace {
    strace_ctx ctx;
    strace_state state;

    // `pid` is the context's list.
    one_process_trace(pid_t* pid, const char* name) : ctx(context_of(pid)), state(&ctx) {
        strcpy(process().name, name);
        ctx.names = &state;
    }
    one_process_trace(const one_process_trace&) = delete;
    one_process_trace& operator=(const one_process_trace&) = delete;

    strace_process& process() { return state.processes()[0]; }

private:
    static strace_ctx context_of(pid_t* pid) {
        strace_ctx made = {};
        made.pids = pid;
        made.nr_pids = 1;
        return made;
    }
};
