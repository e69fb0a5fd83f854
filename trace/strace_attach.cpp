#include "trace/strace_attach.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "common/deadline.h"
#include "common/ending.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_handle.h"

namespace {

constexpr useconds_t shortest_pause_us = 10;
constexpr useconds_t longest_pause_us = 1000;

// Waits until the stop signal of an attach has arrived, if the process stopped for something else first. It
// may do so several times. After strace_attach_patience_ms the signal is taken back.
void await_attach_stop(strace_state* state, strace_process* process) {
    const deadline patience(strace_attach_patience_ms);
    for (useconds_t pause = shortest_pause_us; !process->is_dropped() && process->stop_due;) {
        int status = 0;
        pid_t got = waitpid(process->pid(), &status, WNOHANG | trace_wait_flags);
        if (got > 0) {
            strace_take_time(state);
            strace_handle_event(state, process, status);
        } else if (process->sigcont_due || got < 0) {
            process->stop_due = false;
        } else if (patience.is_over()) {
            // The signal may arrive just before it is taken back: wait once more.
            trace_take_back_stop(process->pid());
            process->sigcont_due = true;
        } else {
            usleep(pause);
            pause = std::min(2 * pause, longest_pause_us);
        }
    }
}

// Attaches to one process. No stop signal is pending for it afterwards.
void attach(strace_state* state, strace_process* process) {
    const ending_held held;
    int status = 0;
    pid_t got = trace_attach_within(process->pid(), strace_attach_patience_ms, &status);
    strace_take_time(state);
    if (got < 0 || (got > 0 && !WIFSTOPPED(status))) {
        process->drop();
        return;
    }
    process->joining = true;
    state->live++;
    if (got == 0) {
        process->sigcont_due = true;
        return;
    }
    process->stop_due = true;
    strace_handle_event(state, process, status);
    await_attach_stop(state, process);
}

void join(strace_state* state, strace_process* process) {
    if (state->ctx->attached) {
        state->live += strace_start(state, process, 0);
    } else {
        attach(state, process);
    }
}

}  // namespace

bool strace_poll_caller(strace_ctx* ctx) {
    return !ctx->write || ctx->write(ctx->cookie, ctx->buf, 0) != 0;
}

void strace_attach_all(strace_state* state) {
    for (strace_process& process : state->processes()) {
        if (process.is_dropped()) {
            continue;
        }
        if (state->over) {
            process.drop();
            continue;
        }
        join(state, &process);
        // An exit of the last process so far does not end the trace: others are still to join.
        state->over = process.joining && !strace_poll_caller(state->ctx);
    }
}
