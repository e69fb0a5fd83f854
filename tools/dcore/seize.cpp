#include "tools/dcore/seize.h"

#include <errno.h>
#include <setjmp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "common/monotonic.h"
#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "tools/dcore/proc_text.h"
#include "tools/dcore/process.h"
#include "tools/dcore/ticks.h"

namespace {

constexpr int refusal_limit = 20;  // a thread that starts another program refuses for a moment
constexpr long news_patience_ns = 10'000'000;
constexpr long tick_us = 100'000;

// Before the process is to stop: a thread that is only seized stops at each signal that it gets, and here
// goes on with it; or, if it was a stopping one, stays stopped as it would be without us.
void let_run(const thread_hold& hold) {
    for (const held_thread& thread : hold.threads) {
        int status = 0;
        if (hold.stopped_at_ms != 0 || look_at_thread(thread.tid, status) != thread_news::stopped) {
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

// A thread that starts another program (T) keeps tracers out of its process until the other threads of it
// have been reaped. So this is a deadlock: we seize A; T begins, which ends A; we seize B and wait for T; T
// waits for A to be reaped, which is for us to do. The end of A is announced by SIGCHLD, which interrupts the
// wait. Its handler reaps A; then the kernel goes on with the seizing by itself.
// What the handler looks at, which is not changed while the signal may come.
struct {
    const thread_hold* hold = nullptr;
    pid_t tid = 0;  // is being seized, and so may be ours already without being in the hold
} seizing;

void on_child(int) {
    int saved = errno;
    int unused = 0;
    look_at_thread(seizing.tid, unused);
    reap_ended(*seizing.hold);
    let_run(*seizing.hold);
    errno = saved;
}

// Where seizing is given up; the signal's handler leaves the kernel's wait by this.
struct {
    sigjmp_buf place;
    volatile sig_atomic_t is_open = 0;
    int64_t opens_at_ms = 0;
} way_out;

void on_tick(int) {
    if (way_out.is_open && monotonic_ms() >= way_out.opens_at_ms) {
        way_out.is_open = 0;
        siglongjmp(way_out.place, 1);
    }
}

// Ticks while it lives. SIGCHLD is blocked, but for the time in which a thread is seized.
struct seize_clock {
    explicit seize_clock(const thread_hold& hold) {
        seizing.hold = &hold;
        ticks_handle(SIGCHLD, on_child, SA_RESTART, SIG_BLOCK);
        ticks_handle(SIGALRM, on_tick, SA_RESTART, SIG_UNBLOCK);
        ticks_set(tick_us);
    }
    ~seize_clock() { ticks_set(0); }
};

// Returns 0, what the kernel said, or ETIMEDOUT.
int seize_one(pid_t tid, int64_t until_ms) {
    if (sigsetjmp(way_out.place, 1) != 0) {
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

void add(thread_hold& hold, pid_t tid, unsigned& fresh) {
    held_thread& thread = tid == hold.pid ? hold.threads.emplace_front() : hold.threads.emplace_back();
    thread.tid = tid;
    hold.known.insert(tid);
    fresh++;
}

// After another program was started its one thread has the process's id, whichever it had before. It is ours
// or not as it was, and runs, whatever the hold says of that id.
void look_at_held(thread_hold& hold, unsigned& fresh) {
    hold.known.clear();
    std::erase_if(hold.threads, [&](held_thread& thread) {
        int unused = 0;
        thread_news news = look_at_thread(thread.tid, unused);
        if (news == thread_news::none && thread.now == held_thread::state::stopped) {
            thread.now = held_thread::state::seized;
            fresh++;
        }
        return news == thread_news::gone;
    });
    for (const held_thread& thread : hold.threads) {
        hold.known.insert(thread.tid);
    }
}

// What to make of a thread that the kernel did not let us seize: 0 when it is ours already, or has ended.
int judge_refusal(thread_hold& hold, pid_t tid, int error, unsigned& fresh) {
    process_status status;
    if (error == ESRCH || has_ended(tid) || !process_parse_status(proc_text(tid, "status"), status)) {
        return 0;
    }
    if (error == EPERM && status.tracer == gettid()) {
        add(hold, tid, fresh);
        return 0;
    }
    hold.tracer = status.tracer;
    return error == EPERM && hold.tracer != 0 ? EBUSY : error;
}

int take(thread_hold& hold, pid_t tid, int64_t until_ms, unsigned& fresh) {
    int error = seize_one(tid, until_ms);
    if (error == 0) {
        add(hold, tid, fresh);
        return 0;
    }
    return error == ETIMEDOUT ? error : judge_refusal(hold, tid, error, fresh);
}

// Looks through the list of threads once.
int take_listed(thread_hold& hold, int64_t until_ms, unsigned& fresh) {
    unique_dir folder(opendir(proc_path(hold.pid, "task").text));
    if (!folder) {
        return errno == ENOENT ? ESRCH : errno;
    }
    while (dirent* entry = readdir(folder.get())) {
        auto tid = static_cast<pid_t>(strtol(entry->d_name, nullptr, 10));
        if (tid > 0 && !hold.known.contains(tid)) {
            if (int error = take(hold, tid, until_ms, fresh)) {
                return error;
            }
        }
    }
    return hold.threads.empty() ? EAGAIN : 0;
}

}  // namespace

int seize_new(thread_hold& hold, int64_t until_ms, unsigned& fresh) {
    seize_clock clock(hold);
    for (int refusals = 0;;) {
        reap_ended(hold);
        let_run(hold);
        look_at_held(hold, fresh);
        int error = take_listed(hold, until_ms, fresh);
        if (error == 0 || error == ESRCH || error == ETIMEDOUT) {
            return error;
        }
        if (error == EBUSY ? monotonic_ms() >= until_ms : ++refusals == refusal_limit) {
            return error == EAGAIN ? ESRCH : error;
        }
        await_news();
    }
}

thread_news look_at_thread(pid_t tid, int& status) {
    constexpr int at_once = WEXITED | WNOHANG | __WALL;
    siginfo_t news = {};
    if (waitid(P_PID, static_cast<id_t>(tid), &news, at_once | WSTOPPED | WNOWAIT) != 0) {
        return thread_news::gone;
    }
    if (news.si_pid == 0) {
        return thread_news::none;
    }
    if (news.si_code == CLD_TRAPPED || news.si_code == CLD_STOPPED) {
        status = news.si_status;
        return thread_news::stopped;
    }
    (void)waitid(P_PID, static_cast<id_t>(tid), &news, at_once);
    return thread_news::gone;
}

void reap_ended(const thread_hold& hold) {
    int unused = 0;
    for (const held_thread& thread : hold.threads) {
        if (thread.tid != hold.pid) {
            look_at_thread(thread.tid, unused);
        }
    }
    // The first thread can be reaped after the others; it is not in the hold if it ended long ago.
    look_at_thread(hold.pid, unused);
}

bool await_news() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    timespec patience = {0, news_patience_ns};
    return sigtimedwait(&child, nullptr, &patience) == SIGCHLD;
}

bool has_ended(pid_t tid) {
    std::string stat = proc_text(tid, "stat", 512);
    size_t name_end = stat.rfind(") ");
    return name_end == stat.npos || name_end + 2 == stat.size() || strchr("ZXx", stat[name_end + 2]);
}
