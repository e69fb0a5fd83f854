// Letting the processes of a trace go.
#include <signal.h>
#include <stdint.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "common/deadline.h"
#include "common/ending.h"
#include "trace/ptrace_data.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_process.h"

namespace {

constexpr useconds_t shortest_pause_us = 10;
constexpr useconds_t longest_pause_us = 5000;
constexpr int patience_ms = 3000;      // for all processes together
constexpr int stop_patience_ms = 200;  // for the stop of one
constexpr int least_patience_ms = 20;  // the same when the others have used all the patience up
constexpr int looks_at_a_sleeper = 3;
constexpr int looks_at_an_end = 12;  // with the pauses between them, some 20 ms

// One process on its way to its stop.
struct release {
    strace_ctx* ctx;
    int index;
    bool stop_sent = false;  // a stop signal is, or may be, on its way
    int looks = 0;           // how often it was seen in a state in which no signal stops it

    pid_t pid() const { return ctx->pids[index]; }
    strace_process& process() const { return ctx->names->processes[index]; }
};

enum class outcome { coming, free, later };

bool is_stop_pending(const release& r) {
    return r.stop_sent && trace_look(r.pid()).stop_pending;
}

// Lets a stopped process go on with `sig`. Returns whether it is free: not while a stop signal is still to
// come, which would remain. A SIGCONT may have discarded that one.
bool go_on(const release* r, int sig) {
    if (!is_stop_pending(*r)) {
        return trace_detach_stopped(r->pid(), sig);
    }
    (void)ptrace(PTRACE_CONT, r->pid(), nullptr, ptrace_data(sig));
    return false;
}

// Deals with a stop. Returns whether the process is free.
bool settle(const release* r, int status) {
    int sig = strace_signal_of_stop(&r->process(), r->pid(), status);
    if (sig == SIGSTOP && r->stop_sent) {
        return trace_detach_stopped(r->pid(), 0);
    }
    // At its end no signal reaches it, and that end is its parent's to see.
    return status >> 16 == PTRACE_EVENT_EXIT ? trace_detach_stopped(r->pid(), 0) : go_on(r, sig);
}

// Keeps an event in mind that came while another process was waited for.
void keep_event(strace_ctx* ctx, int index, int status) {
    strace_process& process = ctx->names->processes[index];
    if (WIFSTOPPED(status)) {
        process.stopped = true;
        process.undelivered = strace_signal_of_stop(&process, ctx->pids[index], status);
    } else {
        ctx->pids[index] = -1;
    }
}

// Waits for a thread that is no longer there under its number. One that calls exec takes its process's.
pid_t wait_for_exec(release* r, int* status) {
    const pid_t number = r->process().process;
    if (number < 1 || number == r->pid()) {
        return -1;
    }
    pid_t got = waitpid(number, status, WNOHANG | trace_wait_flags);
    int index = got > 0 ? strace_index_of_event(r->ctx, got, *status) : strace_index(r->ctx, number);
    if (got == 0 && (index < 0 || r->ctx->names->processes[index].released)) {
        r->ctx->pids[r->index] = number;  // the stop of its exec is still to come
        return 0;
    }
    if (got > 0 && index >= 0 && index != r->index) {
        keep_event(r->ctx, index, *status);
    }
    return got > 0 && index == r->index ? got : -1;
}

// Waits once, without blocking.
outcome wait_once(release* r) {
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(r->pid(), &status, WNOHANG | trace_wait_flags);
        if (pid < 0) {
            pid = wait_for_exec(r, &status);
        }
        if (pid == 0) {
            return outcome::coming;
        }
        if (pid < 0 || !WIFSTOPPED(status)) {
            r->ctx->pids[r->index] = -1;
            return outcome::free;
        }
        if (settle(r, status)) {
            return outcome::free;
        }
    }
}

// Sends the stop signal to a process that is seen running.
outcome stop_if_running(release* r) {
    const trace_view view = trace_look(r->pid());
    if (view.tracer != gettid()) {
        // A thread that nobody traces has taken its number, or it has ended.
        r->ctx->pids[r->index] = -1;
        return outcome::free;
    }
    switch (view.state) {
        case 't':  // somebody else's wait has taken its stop
            return ++r->looks > looks_at_a_sleeper && trace_detach_stopped(r->pid(), 0) ? outcome::free
                                                                                        : outcome::coming;
        case 'Z':  // a first thread that ended before the others: its end comes after theirs
            return ++r->looks > looks_at_an_end ? outcome::free : outcome::coming;
        case 'D':
            return ++r->looks > looks_at_a_sleeper ? outcome::later : outcome::coming;
        default:
            r->stop_sent = trace_stop_thread(r->pid()) == 0;
            return outcome::coming;
    }
}

// Takes the stop signal back from a process that did not stop in time.
outcome take_back(release* r) {
    if (!r->stop_sent) {
        return outcome::later;
    }
    trace_take_back_stop(r->pid());
    r->process().sigcont_due = true;
    if (wait_once(r) == outcome::free) {  // the signal had arrived
        return outcome::free;
    }
    return !is_stop_pending(*r) && trace_detach_stopped(r->pid(), 0) ? outcome::free : outcome::later;
}

outcome bring_to_a_stop(release* r, int patience) {
    const deadline end(patience);
    for (useconds_t pause = shortest_pause_us;; pause = std::min(2 * pause, longest_pause_us)) {
        outcome now = wait_once(r);
        if (now == outcome::coming && !r->stop_sent) {
            now = stop_if_running(r);
        }
        if (now != outcome::coming) {
            return now;
        }
        if (end.is_over()) {
            return take_back(r);
        }
        usleep(pause);
    }
}

bool release_within(strace_ctx* ctx, int index, int patience) {
    const ending_held held;
    release r = {.ctx = ctx, .index = index};
    strace_process& process = r.process();
    r.stop_sent = std::exchange(process.attach_stop_due, false);
    if (std::exchange(process.stopped, false) && go_on(&r, process.undelivered)) {
        return true;
    }
    return bring_to_a_stop(&r, patience) == outcome::free;
}

// The end of a child is the caller's to see; a signal for the caller ends the wait.
void wait_for_children(strace_ctx* ctx) {
    for (int i = 0; i < ctx->names->count; i++) {
        int status;
        if (ctx->pids[i] != -1 && waitpid(ctx->pids[i], &status, trace_wait_flags) > 0) {
            ctx->pids[i] = -1;
        }
    }
}

// Lets go whatever can be. Returns how many could not.
int release_each(strace_ctx* ctx, bool stopped_only, const deadline& end) {
    int left = 0;
    for (int i = 0; i < ctx->names->count; i++) {
        strace_process& process = ctx->names->processes[i];
        if (ctx->pids[i] == -1 || process.released || (stopped_only && !process.stopped)) {
            continue;
        }
        int patience = std::clamp(end.left_ms(), least_patience_ms, stop_patience_ms);
        process.released = release_within(ctx, i, patience) || ctx->pids[i] == -1;
        left += !process.released;
    }
    return left;
}

}  // namespace

bool strace_release(strace_ctx* ctx, int index) {
    return release_within(ctx, index, stop_patience_ms);
}

void strace_release_all(strace_ctx* ctx) {
    const deadline end(patience_ms);
    (void)release_each(ctx, true, end);
    while (release_each(ctx, false, end) > 0 && !end.is_over()) {
        usleep(longest_pause_us);
    }
    if (ctx->attached) {
        wait_for_children(ctx);
    }
}
