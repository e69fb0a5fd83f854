// Stops all threads of a process, and detaches them again.
//
// The threads are seized, not attached: neither seizing nor stopping sends a signal. The kernel resumes all
// of them when the thread that seized them ends in any way. That thread must make all the calls below.
#pragma once

#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <set>

#include "tools/dcore/arch.h"

struct held_thread {
    enum class state {
        seized,  // running, or about to stop
        stopped,
        detached,
    };
    pid_t tid = 0;
    state now = state::seized;
    int signal = 0;              // pending delivery when the thread stopped; delivered when it is detached
    bool has_registers = false;  // if false, only stack pointer and program counter may be known
    arch_registers registers = {};
    uint64_t pending = 0, blocked = 0;  // signals; the lowest bit is signal 1
};

struct thread_hold {
    pid_t pid = 0;
    std::deque<held_thread> threads;  // the first thread of the process first
    std::set<pid_t> known;            // their ids
    pid_t tracer = 0;                 // the other tracer, after EBUSY
    int64_t stopped_at_ms = 0;        // monotonic; when the first thread was told to stop
    siginfo_t pending = {};           // the first pending signal of the process; all zeros: none

    ~thread_hold();  // detaches the threads
};

// Seizes all threads of `pid`, which run on. Waits up to `seize_patience_ms` each for another tracer to
// detach and for a thread that is starting another program. Returns 0, or the errno of the first thread that
// could not be seized. The threads before it then stay seized, and run, until the caller ends.
//   ESRCH      no thread is left
//   EBUSY      another process traces a thread: hold->tracer
//   ETIMEDOUT  a thread is starting another program, which keeps tracers out
//   other      the kernel's reason
// Uses SIGCHLD and SIGALRM, and reaps children of the calling thread.
constexpr int64_t seize_patience_ms = 6000;
int threads_seize(thread_hold* hold, pid_t pid);

// Stops all threads, including new ones, and reads their registers. A thread that does not stop within
// `thread_stop_limit_ms`, because it waits for a device or for its child, is treated as stopped where it is.
// Delays signals that end this program. Returns 0, an error of threads_seize(), or EMEDIUMTYPE if the
// registers are those of another kind of processor (a 32-bit program on a 64-bit machine).
int threads_stop(thread_hold* hold);
constexpr int64_t thread_stop_limit_ms = 1000;

bool threads_all_stopped(const thread_hold& hold);

// Detaches every stopped thread. Must be called again while threads_all_detached() is false: a thread that
// was slow may have stopped meanwhile.
void threads_detach(thread_hold* hold);
bool threads_all_detached(const thread_hold& hold);

// Reaps threads that were killed while they were held. Must be called repeatedly while the process is held:
// until its killed threads are reaped, the parent of the process does not learn of its end.
void threads_reap_killed(thread_hold* hold);
