// Holding all threads of a process still, and their registers.
//
// The threads are seized, not attached to: no signal is sent to any of them, and what stops them is no signal
// either. The kernel lets all of them go on when the thread that seized them ends, however it ends.
// Everything here is for that one thread.
#pragma once

#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <deque>
#include <set>

#include "tools/dcore/arch.h"

struct held_thread {
    enum class state {
        seized,  // runs, or is on its way to its stop
        stopped,
        let_go,
    };
    pid_t tid = 0;
    state now = state::seized;
    int signal = 0;              // was on its way to the thread, which gets it when it is let go
    bool has_registers = false;  // else only stack pointer and program counter, when even those are known
    arch_registers registers = {};
    uint64_t pending = 0, blocked = 0;  // signals, the lowest bit is signal 1
};

struct thread_hold {
    pid_t pid = 0;
    std::deque<held_thread> threads;  // the first thread of the process first
    std::set<pid_t> known;            // their ids
    pid_t tracer = 0;                 // who kept us out, after EBUSY
    int64_t stopped_at_ms = 0;        // monotonic; when the first of them was told to stop
    siginfo_t pending = {};           // the first signal that waits for the process, all zeros for none

    ~thread_hold();  // lets go
};

// Seizes every thread of `pid`, all of which run on. Waits for another tracer to go, and for a program that
// is being started, for `seize_patience_ms` each. Returns 0, or the errno of the first thread that could not
// be seized; those before it stay seized, and run, until the caller ends:
//   ESRCH      there is no thread left
//   EBUSY      another process traces one of them: hold.tracer
//   ETIMEDOUT  one of them is starting another program, which keeps tracers out
//   another    the kernel's own reason
// Uses SIGCHLD and SIGALRM, and reaps children of the calling thread.
constexpr int64_t seize_patience_ms = 6000;
int threads_seize(pid_t pid, thread_hold& hold);

// Stops them all, with those that have begun meanwhile, and reads their registers. A thread that does not
// stop within `thread_stop_limit_ms`, as it waits for a device or for its child, counts as standing still
// where it is. Signals that end this program take effect afterwards. Returns 0; what threads_seize() returns;
// EMEDIUMTYPE when the registers are those of another kind of processor, as those of a 32-bit program on a
// 64-bit machine are.
int threads_stop(thread_hold& hold);
constexpr int64_t thread_stop_limit_ms = 1000;

bool threads_all_stopped(const thread_hold& hold);

// Lets every thread go on that is stopped. Call again while threads_all_let_go() is false: a thread that was
// slow to stop may have done so in between.
void threads_let_go(thread_hold& hold);
bool threads_all_let_go(const thread_hold& hold);

// Reaps threads that were killed in our hold: until then the parent of their process waits for its end in
// vain. To be called again and again while the process is held.
void threads_reap_killed(thread_hold& hold);

// Reads a further set of registers of a stopped thread into `out`. Returns how many bytes it has, at most
// `size`; 0 when the processor has no such set or the thread is no longer stopped.
size_t threads_regset(const held_thread& thread, unsigned type, void* out, size_t size);
