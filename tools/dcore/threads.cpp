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

#include "common/unique_fd.h"
#include "tools/dcore/proc_text.h"

namespace {

using state = held_thread::state;

// What the kernel has for its signals: 64 of them on most processors, 128 on MIPS.
constexpr size_t signal_set_size = (NSIG - 1 + 7) / 8;
constexpr int pending_peeked = 4;  // as many as one peek reads; more rarely wait
constexpr long look_again_ns = 10'000'000;

// True for a thread that is gone or only waits for its end to be noticed.
bool has_ended(pid_t tid) {
    std::string stat = proc_text(tid, "stat", 512);
    size_t name_end = stat.rfind(") ");
    return name_end == stat.npos || name_end + 2 == stat.size() || strchr("ZXx", stat[name_end + 2]);
}

// Seizes what of the process's threads is not held yet and counts it. Returns 0 or an errno.
int seize_new(thread_hold& hold, unsigned& fresh) {
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/task", hold.pid);
    unique_dir folder(opendir(path));
    if (!folder) {
        return errno == ENOENT ? ESRCH : errno;
    }
    fresh = 0;
    while (dirent* entry = readdir(folder.get())) {
        pid_t tid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        if (tid <= 0 || hold.known.contains(tid)) {
            continue;
        }
        if (ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0) {
            hold.known.insert(tid);
            hold.threads.emplace_back().tid = tid;
            fresh++;
        } else if (int refused = errno; refused != ESRCH && !has_ended(tid)) {
            return refused;
        }
    }
    return 0;
}

// Takes a thread's stop. Returns false when there will be none.
bool take_stop(held_thread& thread, int status) {
    if (!WIFSTOPPED(status)) {
        return false;
    }
    thread.now = state::stopped;
    thread.signal = (status >> 16) == 0 ? WSTOPSIG(status) : 0;
    return true;
}

// Waits until the thread stops. Returns false when it has ended instead; after `deadline_ms` it may still
// run.
bool await_stop(held_thread& thread, int64_t deadline_ms) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    for (;;) {
        int status = 0;
        pid_t found = waitpid(thread.tid, &status, __WALL | WNOHANG);
        if (found == thread.tid) {
            return take_stop(thread, status);
        }
        if (found < 0 && errno != EINTR) {
            return false;
        }
        if (monotonic_ms() >= deadline_ms) {
            return true;
        }
        timespec patience = {0, look_again_ns};
        if (sigtimedwait(&child, nullptr, &patience) < 0 && errno == EAGAIN && has_ended(thread.tid)) {
            return false;
        }
    }
}

// Stops those that run, and leaves only the living.
void stop_running(thread_hold& hold, int64_t deadline_ms) {
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::seized) {
            (void)ptrace(PTRACE_INTERRUPT, thread.tid, nullptr,
                         nullptr);  // one that has ended is noticed below
        }
    }
    std::erase_if(hold.threads, [deadline_ms](held_thread& thread) {
        return thread.now == state::seized && !await_stop(thread, deadline_ms);
    });
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

// Stops and ends announce themselves by SIGCHLD, which is waited for.
void expect_stops() {
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &usual, nullptr);
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    sigprocmask(SIG_BLOCK, &child, nullptr);
}

// One that never stopped may have done so by now.
void look_for_stop(held_thread& thread) {
    int status = 0;
    pid_t found = waitpid(thread.tid, &status, __WALL | WNOHANG);
    if ((found == thread.tid && !take_stop(thread, status)) || (found < 0 && errno == ECHILD)) {
        thread.now = state::let_go;
    }
}

}  // namespace

thread_hold::~thread_hold() {
    threads_let_go(*this);
}

int threads_seize(pid_t pid, thread_hold& hold) {
    expect_stops();
    hold.pid = pid;
    unsigned fresh = 0;
    do {
        if (int error = seize_new(hold, fresh)) {
            return error;
        }
    } while (fresh > 0);
    return hold.threads.empty() ? ESRCH : 0;
}

int threads_stop(thread_hold& hold) {
    hold.stopped_at_ms = monotonic_ms();
    unsigned fresh = 0;
    do {
        stop_running(hold, hold.stopped_at_ms + thread_stop_limit_ms);
        if (int error = seize_new(hold, fresh)) {
            return error;
        }
    } while (fresh > 0);
    return hold.threads.empty() ? ESRCH : read_all(hold);
}

void threads_let_go(thread_hold& hold) {
    for (held_thread& thread : hold.threads) {
        if (thread.now == state::seized) {
            look_for_stop(thread);
        }
        if (thread.now == state::stopped) {
            // One that has been killed is no longer in its stop; its end is still to come or to be noticed.
            bool went = ptrace(PTRACE_DETACH, thread.tid, nullptr, thread.signal) == 0;
            thread.now = went ? state::let_go : state::seized;
        }
    }
}

void threads_bury(thread_hold& hold) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    timespec now = {};
    if (sigtimedwait(&child, nullptr, &now) != SIGCHLD) {
        return;
    }
    // The first thread's end counts when the others have been noticed.
    for (auto thread = hold.threads.rbegin(); thread != hold.threads.rend(); ++thread) {
        int status = 0;
        if (thread->now != state::let_go && waitpid(thread->tid, &status, __WALL | WNOHANG) == thread->tid &&
            !take_stop(*thread, status)) {
            thread->now = state::let_go;
        }
    }
}

bool threads_all_let_go(const thread_hold& hold) {
    return std::ranges::all_of(hold.threads,
                               [](const held_thread& thread) { return thread.now == state::let_go; });
}

size_t threads_regset(const held_thread& thread, unsigned type, void* out, size_t size) {
    iovec room = {out, size};
    bool there = thread.now == state::stopped && ptrace(PTRACE_GETREGSET, thread.tid, type, &room) == 0;
    return there ? room.iov_len : 0;
}

int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}
