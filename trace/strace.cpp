#include "trace/strace.h"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "common/sys_run.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_attach.h"
#include "trace/strace_event.h"
#include "trace/strace_handle.h"
#include "trace/strace_process.h"
#include "trace/strace_release.h"
#include "trace/strace_report.h"

namespace {

constexpr useconds_t turn_poll_us = 20000;  // between two attempts to begin while another trace runs
constexpr int timer_patience_ms = 100;      // then SIGKILL: the timer inherits an ignored SIGINT

pthread_mutex_t strace_lock = PTHREAD_MUTEX_INITIALIZER;

// Waits until no other trace runs, then takes the lock. Returns false if the caller ends its trace before.
bool take_turn(strace_ctx* ctx) {
    while (pthread_mutex_trylock(&strace_lock) != 0) {
        if (!strace_poll_caller(ctx)) {
            return false;
        }
        usleep(turn_poll_us);
    }
    return true;
}

bool start_timer(strace_state* state) {
    if (state->ctx->seconds < 1) {
        return true;
    }
    char number[20];
    snprintf(number, sizeof number, "%d", state->ctx->seconds);
    char program[] = "/bin/sleep";
    char* const argv[] = {program, number, nullptr};
    state->timer = sys_run_nowait(program, argv, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 0);
    return state->timer > 0;
}

void end_timer(const strace_state& state) {
    if (state.timer > 0) {
        sys_end_child(state.timer, SIGINT, timer_patience_ms);
    }
}

void note_event(strace_state* state, pid_t pid, int status) {
    if (pid == state->timer) {
        state->timer = strace_state::no_timer;
        state->over = true;
        return;
    }
    strace_process* process = strace_find_by_event(state, pid, status);
    if (!process) {
        return;
    }
    if (state->ctx->nr_pids < 0) {
        printf("pid=%d i=%d, nr_pids=%d\n", pid, -1, state->ctx->nr_pids);
        strace_keep_event(process, status);
        return;
    }
    // A second event means that the process was killed in its stop. Only its end is handled.
    process->status = status;
    process->stopped_at = state->event;
    if (!process->ready) {
        process->ready = true;
        process->next_ready = nullptr;
        *std::exchange(state->ready_end, &process->next_ready) = process;
        state->ready_count++;
    }
}

// Waits once, polls the caller and notes the event. Returns whether there was an event.
bool wait_once(strace_state* state, int flags) {
    int status = 0;
    pid_t pid = waitpid(-1, &status, flags | trace_wait_flags);
    if (pid == 0) {
        return false;
    }
    int error = errno;
    strace_take_time(state);
    state->over = state->over || !strace_poll_caller(state->ctx);
    if (pid > 0) {
        note_event(state, pid, status);
    } else if (error == ECHILD) {
        state->over = true;
    } else if (error == EINTR) {
        state->over = state->over || !strace_poll_caller(state->ctx);
    }
    return pid > 0;
}

// Collects all events that have happened. waitpid returns the first process in the kernel's list that has an
// event. If each were handled at once, busy processes at the front of the list could keep the others and the
// timer from ever being returned.
void collect_events(strace_state* state) {
    bool more = wait_once(state, 0);
    while (more && !state->over && state->ready_count < state->live + (state->timer > 0)) {
        more = wait_once(state, WNOHANG);
    }
}

void handle_events(strace_state* state) {
    for (strace_process* process = state->first_ready; process; process = process->next_ready) {
        process->ready = false;
        if (process->is_dropped()) {
            continue;  // another thread's exec has taken its id
        }
        if (state->over) {
            strace_keep_event(process, process->status);
        } else {
            state->event = process->stopped_at;
            strace_handle_event(state, process, process->status);
        }
    }
    state->first_ready = nullptr;
    state->ready_end = &state->first_ready;
    state->ready_count = 0;
}

void run(strace_state* state) {
    while (!state->over) {
        collect_events(state);
        handle_events(state);
        strace_write_pending(state->ctx);
    }
}

void trace(strace_state* state) {
    strace_ctx* ctx = state->ctx;
    strace_attach_all(state);
    strace_write_pending(ctx);
    if (state->live == 0) {
        return;
    }
    if (!state->over && start_timer(state)) {
        run(state);
    }
    end_timer(*state);
    strace_take_time(state);
    for (const strace_process& process : state->processes()) {
        if (!process.is_dropped() && (ctx->flags & strace_fds)) {
            strace_show_fdinfo_all(ctx, process.pid());
        }
    }
    strace_release_all(state);
}

bool has_buffer(strace_ctx* ctx) {
    if (ctx->buf && ctx->bufsize > 0) {
        return true;
    }
    free(ctx->buf);
    ctx->buf = static_cast<char*>(malloc(strace_buffer_size));
    ctx->bufsize = strace_buffer_size;
    return ctx->buf != nullptr;
}

}  // namespace

void do_strace(strace_ctx* ctx) {
    strace_state state(ctx);
    if (state.is_complete() && has_buffer(ctx) && take_turn(ctx)) {
        ctx->names = &state;
        trace(&state);
        ctx->names = nullptr;
        pthread_mutex_unlock(&strace_lock);
    }
    free(ctx->buf);
    ctx->buf = nullptr;
    ctx->bufsize = 0;
}
