// How a trace ends, and how often it polls its caller then.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/tracees.h"

namespace {

// Counts how often a trace polls its caller after `pid` has been reaped.
class polls_after_end {
public:
    polls_after_end(traced_text* trace, pid_t pid) {
        trace->goes_on = [this, pid](const traced_text& now) {
            count_ += now.polls > seen_ && state_of(pid) == '-';
            seen_ = now.polls;
            return true;
        };
    }
    polls_after_end(const polls_after_end&) = delete;
    polls_after_end& operator=(const polls_after_end&) = delete;
    int count() const { return count_; }

private:
    int seen_ = 0;
    int count_ = 0;
};

// The same for a trace of one process that does `work`.
template <typename Work>
int polls_after_end_of(Work work) {
    traced_child child(work, 0);
    child.trace.ctx.seconds = -1;
    polls_after_end polls(&child.trace, child.pid());
    child.run();
    child.child.was_reaped();
    return polls.count();
}

}  // namespace

TEST(do_strace, polls_once_more_after_the_end_of_the_last_process_if_it_was_killed) {
    EXPECT_EQ(polls_after_end_of([] { return 3; }), 1);
    EXPECT_EQ(polls_after_end_of([] { return raise(SIGKILL); }), 2);
}

TEST(do_strace, process_that_cannot_be_resumed_still_counts_as_live) {
    gated_child doomed([] { return raise(SIGUSR1); });
    gated_child other([] { return 0; });
    pid_t pid = doomed.pid();
    traced_text trace({pid, other.pid()}, strace_signals);
    polls_after_end polls(&trace, other.pid());
    trace.goes_on = [&, count = trace.goes_on, killed = false](const traced_text& now) mutable {
        if (!killed && now.has("SIGUSR1")) {  // the signal is reported, but the process is not resumed yet
            killed = true;
            kill(pid, SIGKILL);
            EXPECT_TRUE(eventually([pid] { return state_of(pid) == 'Z'; })) << state_of(pid);
        } else if (killed && now.pids[0] == -1 && other.gate.in) {
            other.open_gate();
            other.gate.in.reset();
        }
        return count(now);
    };
    std::thread opener([&] {
        EXPECT_TRUE(eventually([&] { return is_traced(pid) && is_traced(other.pid()); }));
        doomed.open_gate();
        eventually([pid] { return state_of(pid) == '-'; });
        kill(other.pid(), SIGCONT);  // an event: the poll after it opens the gate
    });
    std::string said = capture_stdout([&trace] { trace.run(); });
    opener.join();
    EXPECT_NE(said.find("WARNING: ptrace SYSCALL failed! " + std::to_string(pid) + "\n"), std::string::npos);
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{-1, -1}));
    EXPECT_EQ(polls.count(), 2);
    doomed.child.was_reaped();
    other.child.was_reaped();
}

TEST(do_strace, polls_twice_if_a_signal_interrupts_the_wait) {
    scoped_signal handler(SIGUSR1, count_signal);
    tracee sleeper(sleep_for_ever);
    ASSERT_TRUE(sleeper.asleep());
    std::atomic<int> polls{0};
    std::atomic<bool> over{false};
    std::atomic<pid_t> tid{0};
    traced_text trace({sleeper.pid()}, 0);
    trace.goes_on = [&](const traced_text&) {
        polls++;
        return !over;
    };
    std::thread tracer([&] {
        tid = thread_id();
        trace.run();
    });
    // The first poll follows the stop at the sleeper's restarted call; it makes no other.
    EXPECT_TRUE(eventually([&] { return polls >= 1 && sleeper.asleep(); }));
    for (int i = 0; i < 5; i++) {
        EXPECT_TRUE(eventually([&] { return thread_state(tid) == 'S'; }));
        int before = polls;
        interrupt_asleep(tid, SIGUSR1);
        EXPECT_TRUE(eventually([&] { return polls > before && thread_state(tid) == 'S'; }));
        EXPECT_EQ(polls, before + 2);
    }
    over = true;
    interrupt_asleep(tid, SIGUSR1);
    tracer.join();
    expect_free(sleeper.pid());
}

TEST(do_strace, interrupts_the_timer_with_sigint) {
    // Not a child of this program, so the timer's death is the only one that it is notified of.
    stranger busy(call_for_ever);
    scoped_death_watch watch;
    traced_text trace({busy.pid()});
    trace.ctx.seconds = 100;
    trace.goes_on = [](const traced_text&) { return false; };
    trace.run();
    EXPECT_EQ(last_death, SIGINT);
    EXPECT_TRUE(has_no_children());
    expect_free(busy.pid());
}

TEST(do_strace, without_a_callback_traces_to_the_end_silently) {
    static std::vector<int> codes;
    codes.clear();
    traced_child child([] {
        raise(SIGWINCH);
        return 3;
    });
    child.trace.ctx.write = nullptr;
    child.trace.ctx.on_exit = [](strace_ctx*, void*, pid_t, int, int code, void*) { codes.push_back(code); };
    EXPECT_EQ(capture_stdout([&child] { EXPECT_EQ(child.run(), ""); }), "");
    EXPECT_EQ(codes, (std::vector<int>{3, 3 << 8}));
    EXPECT_EQ(child.trace.pids[0], -1);
    EXPECT_TRUE(exited_with(child.child.end(), 3));
}

TEST(do_strace, without_a_callback_ends_at_the_time_limit_and_detaches_the_processes) {
    tracee sleeper(sleep_for_ever);
    traced_text trace({sleeper.pid()});
    trace.ctx.write = nullptr;
    trace.ctx.seconds = 1;
    trace.run();
    EXPECT_EQ(trace.pids[0], sleeper.pid());
    expect_free(sleeper.pid());
}
