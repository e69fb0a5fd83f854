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
#include "tools/dcore/proc_text.h"
#include "tools/dcore/seize.h"

namespace {

using state = held_thread::state;

// What the kernel has for its signals: 64 of them on most processors, 128 on MIPS.
constexpr size_t signal_set_size = (NSIG - 1 + 7) / 8;
constexpr int enough_quiet_looks =
    2;  // the kernel's list of threads ends early when one ends that is being listed
constexpr int pending_peeked = 4;  // as many as one peek reads; more rarely wait

// Returns false when there will be no stop.
bool look_for_stop(held_thread& thread) {
    int status = 0;
    switch (look_at_thread(thread.tid, status)) {
        case thread_news::none:
            return true;
        case thread_news::gone:
            return false;
        case thread_news::stopped:
            break;
    }
    thread.now = state::stopped;
    thread.signal = status >> 8 == 0 ? status : 0;
    return true;
}

// Waits until the thread stops. Returns false when it has ended instead; after `deadline_ms` it may still
// run.
bool await_stop(const thread_hold& hold, held_thread& thread, int64_t deadline_ms) {
    while (look_for_stop(thread)) {
        if (thread.now == state::stopped || monotonic_ms() >= deadline_ms) {
            return true;
        }
        if (!await_news()) {
            if (has_ended(thread.tid)) {
                return false;
            }
            reap_ended(
                hold);  // if this one starts another program, it stops when the others have been reaped
        }
    }
    return false;
}

// Stops those that run, and leaves only the living.
void stop_running(thread_hold& hold, int64_t deadline_ms) {
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::seized) {
            (void)ptrace(PTRACE_INTERRUPT, thread.tid, nullptr,
                         nullptr);  // one that has ended is noticed below
        }
    }
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::seized && !await_stop(hold, thread, deadline_ms)) {
            thread.now = state::let_go;
        }
    }
    std::erase_if(hold.threads, [](const held_thread& thread) { return thread.now == state::let_go; });
}

// The signals in the queue of a thread, or in that of its process; `first` becomes the first of them.
uint64_t read_pending(pid_t tid, unsigned which, siginfo_t* first) {
    siginfo_t waiting[pending_peeked] = {};
    __ptrace_peeksiginfo_args wanted = {};
    wanted.flags = which;
    wanted.nr = pending_peeked;
    long count = ptrace(PTRACE_PEEKSIGINFO, tid, &wanted, waiting);
    uint64_t signals = 0;
    for (long i = 0; i < count; i++) {
        if (waiting[i].si_signo >= 1 && waiting[i].si_signo <= 64) {
            signals |= 1ull << (waiting[i].si_signo - 1);
        }
    }
    if (first && count > 0) {
        *first = waiting[0];
    }
    return signals;
}

// Returns 0, or EMEDIUMTYPE. A thread that was killed a moment ago has no registers, which is no error.
int read_stopped(held_thread& thread) {
    core_word words[arch_general_count + 1];
    iovec room = {words, sizeof words};
    if (ptrace(PTRACE_GETREGSET, thread.tid, NT_PRSTATUS, &room) != 0) {
        return 0;
    }
    if (room.iov_len != sizeof thread.registers) {
        return EMEDIUMTYPE;
    }
    memcpy(&thread.registers, words, sizeof thread.registers);
    thread.has_registers = true;
    if (thread.signal == 0) {
        arch_keep_call(thread.tid, thread.registers);
    }
    unsigned char blocked[signal_set_size] = {};
    if (ptrace(PTRACE_GETSIGMASK, thread.tid, sizeof blocked, blocked) == 0) {
        memcpy(&thread.blocked, blocked, sizeof thread.blocked);
    }
    thread.pending = read_pending(thread.tid, 0, nullptr);
    return 0;
}

// Of a thread that does not stop the kernel shows where it is as long as it waits: the last two numbers.
void read_position(held_thread& thread) {
    std::string text = proc_text(thread.tid, "syscall", 512);
    std::string_view rest = text;
    rest = rest.substr(0, rest.find('\n'));
    uint64_t numbers[2] = {};
    for (unsigned i = 0; !rest.empty(); i++) {
        std::string_view word = take_word(rest);
        numbers[0] = numbers[1];
        if (take_prefix(word, "0x") && !take_number(word, numbers[1], 16)) {
            return;
        }
    }
    arch_set_position(thread.registers, static_cast<core_word>(numbers[0]),
                      static_cast<core_word>(numbers[1]));
}

int read_all(thread_hold& hold) {
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::stopped) {
            if (int error = read_stopped(thread)) {
                return error;
            }
        } else {
            read_position(thread);
        }
    }
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::stopped) {
            read_pending(thread.tid, PTRACE_PEEKSIGINFO_SHARED, &hold.pending);
            break;
        }
    }
    return 0;
}

// Holds back what would end us: a call that a stop has interrupted is not yet kept.
struct end_is_held_back {
    end_is_held_back() {
        sigset_t ends;
        sigemptyset(&ends);
        for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
            sigaddset(&ends, number);
        }
        sigprocmask(SIG_BLOCK, &ends, &before);
    }
    ~end_is_held_back() { sigprocmask(SIG_SETMASK, &before, nullptr); }
    sigset_t before;
};

bool all_are(const thread_hold& hold, state wanted) {
    return std::ranges::all_of(hold.threads, [=](const held_thread& thread) { return thread.now == wanted; });
}

}  // namespace

thread_hold::~thread_hold() {
    threads_let_go(*this);
}

int threads_seize(pid_t pid, thread_hold& hold) {
    hold.pid = pid;
    unsigned fresh = 0;
    return seize_new(hold, monotonic_ms() + seize_patience_ms, fresh);
}

int threads_stop(thread_hold& hold) {
    end_is_held_back until_all_is_kept;
    hold.stopped_at_ms = monotonic_ms();
    int64_t deadline_ms = hold.stopped_at_ms + thread_stop_limit_ms;
    for (int quiet_looks = 0; quiet_looks < enough_quiet_looks;) {
        stop_running(hold, deadline_ms);
        unsigned fresh = 0;
        if (int error = seize_new(hold, deadline_ms, fresh)) {
            return error;
        }
        quiet_looks = fresh == 0 ? quiet_looks + 1 : 0;
    }
    return read_all(hold);
}

void threads_let_go(thread_hold& hold) {
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::seized && !look_for_stop(thread)) {
            thread.now = state::let_go;
        }
        if (thread.now == state::stopped) {
            // One that has been killed is no longer in its stop; its end is still to come or to be noticed.
            bool went = ptrace(PTRACE_DETACH, thread.tid, nullptr, thread.signal) == 0;
            thread.now = went ? state::let_go : state::seized;
        }
    }
}

void threads_reap_killed(thread_hold& hold) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    timespec now = {};
    if (sigtimedwait(&child, nullptr, &now) != SIGCHLD) {
        return;
    }
    reap_ended(hold);
    int unused = 0;
    for (held_thread& thread : hold.threads) {
        if (thread.now != state::let_go && look_at_thread(thread.tid, unused) == thread_news::gone) {
            thread.now = state::let_go;
        }
    }
}

bool threads_all_stopped(const thread_hold& hold) {
    return all_are(hold, state::stopped);
}

bool threads_all_let_go(const thread_hold& hold) {
    return all_are(hold, state::let_go);
}

size_t threads_regset(const held_thread& thread, unsigned type, void* out, size_t size) {
    iovec room = {out, size};
    bool there = thread.now == state::stopped && ptrace(PTRACE_GETREGSET, thread.tid, type, &room) == 0;
    return there ? room.iov_len : 0;
}
