#include "tools/dcore/seize.h"

#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <unistd.h>

#include <algorithm>

#include "common/monotonic.h"
#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "tools/dcore/proc_text.h"
#include "tools/dcore/process.h"
#include "tools/dcore/thread_events.h"
#include "tools/dcore/ticks.h"

namespace {

constexpr int refusal_limit = 20;  // a thread that is starting another program refuses for a moment
constexpr long tick_us = 100'000;

// A seized thread stops at each signal. Before threads_stop(), this delivers the signal and resumes the
// thread; a stopping signal leaves it stopped, as without a tracer.
void resume_signalled(const thread_hold& hold) {
    for (const held_thread& thread : hold.threads) {
        int status = 0;
        if (hold.stopped_at_ms != 0 || thread_poll(thread.tid, &status) != thread_event::stopped) {
            continue;
        }
        int event = status >> 8, number = status & 0xff;
        if (event == PTRACE_EVENT_STOP && number != SIGTRAP) {
            ptrace(PTRACE_LISTEN, thread.tid, nullptr, nullptr);
        } else {
            ptrace(PTRACE_CONT, thread.tid, nullptr, event == 0 ? number : 0);
        }
    }
}

// A thread T that is starting another program keeps tracers out until the other threads of its process have
// been reaped. Without the handler below, this sequence would deadlock: the dumper seizes A; T begins, which
// ends A; the dumper seizes B and waits in the kernel for T; T waits until the dumper reaps A. SIGCHLD
// announces the end of A and interrupts the wait. The handler reaps A, and the kernel then restarts the call
// that seizes B. The handler's data does not change while the signal is unblocked.
struct {
    const thread_hold* hold = nullptr;
    pid_t tid = 0;  // being seized: it may be traced already, but not in the hold
} seizing;

void on_child(int) {
    int saved = errno;
    int unused = 0;
    thread_poll(seizing.tid, &unused);
    seize_reap_ended(*seizing.hold);
    resume_signalled(*seizing.hold);
    errno = saved;
}

// From `opens_at_ms` on, the handler of SIGALRM uses this jump to leave a PTRACE_SEIZE that blocks.
struct {
    sigjmp_buf target;
    volatile sig_atomic_t is_open = 0;
    int64_t opens_at_ms = 0;
} way_out;

void on_tick(int) {
    if (way_out.is_open && monotonic_ms() >= way_out.opens_at_ms) {
        way_out.is_open = 0;
        siglongjmp(way_out.target, 1);
    }
}

// Owns the timer, and blocks SIGCHLD except in seize_one().
class seize_clock {
public:
    explicit seize_clock(const thread_hold& hold) {
        seizing.hold = &hold;
        ticks_handle(SIGCHLD, on_child, SA_RESTART, SIG_BLOCK);
        ticks_handle(SIGALRM, on_tick, SA_RESTART, SIG_UNBLOCK);
        ticks_set(tick_us);
    }
    ~seize_clock() { ticks_set(0); }
    seize_clock(const seize_clock&) = delete;
    seize_clock& operator=(const seize_clock&) = delete;
};

// Returns 0, the kernel's errno, or ETIMEDOUT.
int seize_one(pid_t tid, int64_t until_ms) {
    if (sigsetjmp(way_out.target, 1) != 0) {
        return ETIMEDOUT;
    }
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    seizing.tid = tid;
    way_out.opens_at_ms = until_ms;
    way_out.is_open = 1;
    sigprocmask(SIG_UNBLOCK, &child, nullptr);
    int error = ptrace(PTRACE_SEIZE, tid, nullptr, nullptr) == 0 ? 0 : errno;
    sigprocmask(SIG_BLOCK, &child, nullptr);
    way_out.is_open = 0;
    return error;
}

void add(thread_hold* hold, pid_t tid, unsigned* fresh) {
    held_thread& thread = tid == hold->pid ? hold->threads.emplace_front() : hold->threads.emplace_back();
    thread.tid = tid;
    hold->known.insert(tid);
    (*fresh)++;
}

// When a thread starts another program, it takes the id of the first thread. It stays traced, or not, as it
// was, and it runs, even if the hold lists the old owner of the id as stopped.
void update_held(thread_hold* hold, unsigned* fresh) {
    hold->known.clear();
    std::erase_if(hold->threads, [&](held_thread& thread) {
        int unused = 0;
        thread_event event = thread_poll(thread.tid, &unused);
        if (event == thread_event::none && thread.now == held_thread::state::stopped) {
            thread.now = held_thread::state::seized;
            (*fresh)++;
        }
        return event == thread_event::gone;
    });
    for (const held_thread& thread : hold->threads) {
        hold->known.insert(thread.tid);
    }
}

// Returns the error for a thread that could not be seized: 0 if it is held already, or has ended.
int check_refusal(thread_hold* hold, pid_t tid, int error, unsigned* fresh) {
    process_status status;
    if (error == ESRCH || thread_has_ended(tid) || !process_parse_status(proc_text(tid, "status"), &status)) {
        return 0;
    }
    if (error == EPERM && status.tracer == gettid()) {
        add(hold, tid, fresh);
        return 0;
    }
    hold->tracer = status.tracer;
    return error == EPERM && hold->tracer != 0 ? EBUSY : error;
}

int seize_and_add(thread_hold* hold, pid_t tid, int64_t until_ms, unsigned* fresh) {
    int error = seize_one(tid, until_ms);
    if (error == 0) {
        add(hold, tid, fresh);
        return 0;
    }
    return error == ETIMEDOUT ? error : check_refusal(hold, tid, error, fresh);
}

// Goes through the list of threads once.
int seize_listed(thread_hold* hold, int64_t until_ms, unsigned* fresh) {
    unique_dir folder(opendir(proc_path(hold->pid, "task").text));
    if (!folder) {
        return errno == ENOENT ? ESRCH : errno;
    }
    while (dirent* entry = readdir(folder.get())) {
        auto tid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        if (tid > 0 && !hold->known.contains(tid)) {
            if (int error = seize_and_add(hold, tid, until_ms, fresh)) {
                return error;
            }
        }
    }
    return hold->threads.empty() ? EAGAIN : 0;
}

}  // namespace

int seize_new(thread_hold* hold, int64_t until_ms, unsigned* fresh) {
    seize_clock clock(*hold);
    for (int refusals = 0;;) {
        seize_reap_ended(*hold);
        resume_signalled(*hold);
        update_held(hold, fresh);
        int error = seize_listed(hold, until_ms, fresh);
        if (error == 0 || error == ESRCH || error == ETIMEDOUT) {
            return error;
        }
        if (error == EBUSY ? monotonic_ms() >= until_ms : ++refusals == refusal_limit) {
            return error == EAGAIN ? ESRCH : error;
        }
        thread_await_event();
    }
}

void seize_reap_ended(const thread_hold& hold) {
    int unused = 0;
    for (const held_thread& thread : hold.threads) {
        if (thread.tid != hold.pid) {
            thread_poll(thread.tid, &unused);
        }
    }
    // The first thread can be reaped only after the others. If it ended long ago, it is not in the hold.
    thread_poll(hold.pid, &unused);
}
