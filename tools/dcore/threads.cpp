#include "tools/dcore/threads.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>

#include <algorithm>

#include "common/monotonic.h"
#include "tools/dcore/registers.h"
#include "tools/dcore/seize.h"
#include "tools/dcore/thread_events.h"

namespace {

using state = held_thread::state;

// One round is not enough: the kernel's list of threads ends early when the thread being listed ends.
constexpr int quiet_rounds = 2;

// Returns false if the thread will never stop.
bool check_stop(held_thread* thread) {
    int status = 0;
    switch (thread_poll(thread->tid, &status)) {
        case thread_event::none:
            return true;
        case thread_event::gone:
            return false;
        case thread_event::stopped:
            break;
    }
    thread->now = state::stopped;
    thread->signal = status >> 8 == 0 ? status : 0;
    return true;
}

// Waits until the thread stops, or until `deadline_ms`. Returns false if it has ended instead.
bool await_stop(held_thread* thread, const thread_hold& hold, int64_t deadline_ms) {
    while (check_stop(thread)) {
        if (thread->now == state::stopped || monotonic_ms() >= deadline_ms) {
            return true;
        }
        if (!thread_await_event()) {
            if (thread_has_ended(thread->tid)) {
                return false;
            }
            // A thread that is starting another program stops only after the others have been reaped.
            seize_reap_ended(hold);
        }
    }
    return false;
}

// Stops the running threads, and drops those that have ended.
void stop_running(thread_hold* hold, int64_t deadline_ms) {
    for (held_thread& thread : hold->threads) {
        if (thread.now == state::seized) {
            (void)ptrace(PTRACE_INTERRUPT, thread.tid, nullptr, nullptr);  // fails if it has ended: see below
        }
    }
    for (held_thread& thread : hold->threads) {
        if (thread.now == state::seized && !await_stop(&thread, *hold, deadline_ms)) {
            thread.now = state::detached;
        }
    }
    std::erase_if(hold->threads, [](const held_thread& thread) { return thread.now == state::detached; });
}

// Blocks signals that end this program. It must not end between the stop of a thread and arch_keep_call(), or
// the interrupted call would fail.
class ending_blocked {
public:
    ending_blocked() {
        sigset_t ends;
        sigemptyset(&ends);
        for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            sigaddset(&ends, number);
        }
        sigprocmask(SIG_BLOCK, &ends, &before_);
    }
    ~ending_blocked() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    ending_blocked(const ending_blocked&) = delete;
    ending_blocked& operator=(const ending_blocked&) = delete;

private:
    sigset_t before_;
};

bool all_are(const thread_hold& hold, state wanted) {
    return std::ranges::all_of(hold.threads, [=](const held_thread& thread) { return thread.now == wanted; });
}

}  // namespace

thread_hold::~thread_hold() {
    threads_detach(this);
}

int threads_seize(thread_hold* hold, pid_t pid) {
    hold->pid = pid;
    unsigned fresh = 0;
    return seize_new(hold, monotonic_ms() + seize_patience_ms, &fresh);
}

int threads_stop(thread_hold* hold) {
    ending_blocked until_calls_are_kept;
    hold->stopped_at_ms = monotonic_ms();
    int64_t deadline_ms = hold->stopped_at_ms + thread_stop_limit_ms;
    for (int quiet = 0; quiet < quiet_rounds;) {
        stop_running(hold, deadline_ms);
        unsigned fresh = 0;
        if (int error = seize_new(hold, deadline_ms, &fresh)) {
            return error;
        }
        quiet = fresh == 0 ? quiet + 1 : 0;
    }
    return registers_read_all(hold);
}

void threads_detach(thread_hold* hold) {
    for (held_thread& thread : hold->threads) {
        if (thread.now == state::seized && !check_stop(&thread)) {
            thread.now = state::detached;
        }
        if (thread.now == state::stopped) {
            // This fails for a thread that was killed, since it is no longer stopped. It is reaped later.
            bool is_detached = ptrace(PTRACE_DETACH, thread.tid, nullptr, thread.signal) == 0;
            thread.now = is_detached ? state::detached : state::seized;
        }
    }
}

void threads_reap_killed(thread_hold* hold) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    timespec now = {};
    if (sigtimedwait(&child, nullptr, &now) != SIGCHLD) {
        return;
    }
    seize_reap_ended(*hold);
    int unused = 0;
    for (held_thread& thread : hold->threads) {
        if (thread.now != state::detached && thread_poll(thread.tid, &unused) == thread_event::gone) {
            thread.now = state::detached;
        }
    }
}

bool threads_all_stopped(const thread_hold& hold) {
    return all_are(hold, state::stopped);
}

bool threads_all_detached(const thread_hold& hold) {
    return all_are(hold, state::detached);
}
