#include "trace/strace_release.h"

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "common/deadline.h"
#include "common/ending.h"
#include "trace/ptrace_data.h"
#include "trace/ptrace_ops.h"
#include "trace/strace_event.h"

namespace {

constexpr useconds_t shortest_pause_us = 10;
constexpr useconds_t longest_pause_us = 5000;
constexpr int least_patience_ms = 20;  // for one process after the time for all has run out
constexpr int sleeper_checks = 3;
constexpr int zombie_checks = 12;  // some 20 ms with the pauses between them

// The detach of one process.
struct release {
    strace_state* state;
    strace_process* process;
    int checks = 0;  // how often it was seen in a state in which no signal stops it

    pid_t pid() const { return process->pid(); }
};

enum class outcome { waiting, detached, later };

bool is_stop_pending(const strace_process& process) {
    return process.stop_due && trace_look(process.pid()).stop_pending;
}

// Detaches a stopped process and delivers `sig`. While a stop signal of ours is pending, only resumes it: the
// signal would stop the process after the detach. (A SIGCONT may have discarded the signal.) Returns whether
// the process is detached.
bool detach_or_resume(strace_process* process, int sig) {
    process->stopped = false;
    if (!is_stop_pending(*process)) {
        return trace_detach_stopped(process->pid(), sig);
    }
    (void)ptrace(PTRACE_CONT, process->pid(), nullptr, ptrace_data(sig));
    return false;
}

// Handles an event of a process that is to be detached. Returns true once it is detached or has ended.
bool handle_event(strace_process* process, int status) {
    const strace_event event = strace_take_event(process, status);
    switch (event.kind) {
        case strace_event_kind::exited:
        case strace_event_kind::killed:
            return true;
        case strace_event_kind::own_stop:
        case strace_event_kind::exit_stop:  // no signal reaches it any more; its end is for its parent
            process->stopped = false;
            return trace_detach_stopped(process->pid(), 0);
        default:
            return detach_or_resume(process, event.signal);
    }
}

// Waits for a thread whose id is gone. If it called exec, it has its process's id now. Returns what waitpid
// returned for that id; -1 if the thread has ended.
pid_t wait_for_exec(const release& r, int* status) {
    const pid_t tgid = r.process->tgid;
    if (tgid < 1 || tgid == r.pid()) {
        return -1;
    }
    pid_t got = waitpid(tgid, status, WNOHANG | trace_wait_flags);
    strace_process* holder =
        got > 0 ? strace_find_by_event(r.state, got, *status) : strace_find(*r.state, tgid);
    if (got == 0 && (!holder || holder->released)) {
        *r.process->entry = tgid;  // its exec stop is still to come
        return 0;
    }
    if (got > 0 && holder && holder != r.process) {
        strace_keep_event(holder, *status);
    }
    return got > 0 && holder == r.process ? got : -1;
}

// Handles the events that have happened.
outcome handle_events(const release& r) {
    for (;;) {
        int status = 0;
        pid_t pid = waitpid(r.pid(), &status, WNOHANG | trace_wait_flags);
        if (pid < 0) {
            pid = wait_for_exec(r, &status);
        }
        if (pid == 0) {
            return outcome::waiting;
        }
        if (pid < 0) {
            r.process->drop();
            return outcome::detached;
        }
        if (handle_event(r.process, status)) {
            return outcome::detached;
        }
    }
}

// Sends the stop signal if the process is running.
outcome stop_if_running(release* r) {
    const trace_view view = trace_look(r->pid());
    if (view.tracer != gettid()) {
        // It has ended, or an exec has given its id to a thread that is not traced.
        r->process->drop();
        return outcome::detached;
    }
    switch (view.state) {
        case 't':  // another thread's waitpid has taken its stop
            return ++r->checks > sleeper_checks && trace_detach_stopped(r->pid(), 0) ? outcome::detached
                                                                                     : outcome::waiting;
        case 'Z':  // a first thread that ended before the others: the kernel reports its end after theirs
            return ++r->checks > zombie_checks ? outcome::detached : outcome::waiting;
        case 'D':
            return ++r->checks > sleeper_checks ? outcome::later : outcome::waiting;
        default:
            r->process->stop_due = trace_stop_thread(r->pid()) == 0;
            return outcome::waiting;
    }
}

// Takes the stop signal back from a process that did not stop in time.
outcome take_back_stop(const release& r) {
    strace_process* process = r.process;
    if (!process->stop_due) {
        return outcome::later;
    }
    trace_take_back_stop(process->pid());
    process->sigcont_due = true;
    if (handle_events(r) == outcome::detached) {  // the signal had arrived before
        return outcome::detached;
    }
    const bool pending = is_stop_pending(*process);
    process->stop_due = false;
    return !pending && trace_detach_stopped(process->pid(), 0) ? outcome::detached : outcome::later;
}

outcome stop_and_detach(release* r, int patience_ms) {
    const deadline end(patience_ms);
    for (useconds_t pause = shortest_pause_us;; pause = std::min(2 * pause, longest_pause_us)) {
        outcome now = handle_events(*r);
        if (now == outcome::waiting && !r->process->stop_due) {
            now = stop_if_running(r);
        }
        if (now != outcome::waiting) {
            return now;
        }
        if (end.is_over()) {
            return take_back_stop(*r);
        }
        usleep(pause);
    }
}

bool release_within(strace_state* state, strace_process* process, int patience_ms) {
    const ending_held held;
    if (process->stopped && detach_or_resume(process, process->undelivered)) {
        return true;
    }
    release r = {state, process};
    return stop_and_detach(&r, patience_ms) == outcome::detached;
}

// The caller reaps its children, which it expects to have ended. A signal for the caller ends the wait.
void wait_for_children(const strace_state& state) {
    for (strace_process& process : state.processes()) {
        int status;
        if (!process.is_dropped() && waitpid(process.pid(), &status, trace_wait_flags) > 0) {
            process.drop();
        }
    }
}

// Detaches each process that can be detached. Returns whether others remain.
bool release_each(strace_state* state, bool stopped_only, const deadline& end) {
    bool some_remain = false;
    for (strace_process& process : state->processes()) {
        if (process.is_dropped() || process.released || (stopped_only && !process.stopped)) {
            continue;
        }
        int patience_ms = std::clamp(end.left_ms(), least_patience_ms, strace_stop_patience_ms);
        process.released = release_within(state, &process, patience_ms) || process.is_dropped();
        some_remain = some_remain || !process.released;
    }
    return some_remain;
}

}  // namespace

bool strace_release(strace_state* state, strace_process* process) {
    return release_within(state, process, strace_stop_patience_ms);
}

void strace_release_all(strace_state* state) {
    const deadline end(strace_release_patience_ms);
    (void)release_each(state, true, end);
    while (release_each(state, false, end) && !end.is_over()) {
        usleep(longest_pause_us);
    }
    if (state->ctx->attached) {
        wait_for_children(*state);
    }
}
