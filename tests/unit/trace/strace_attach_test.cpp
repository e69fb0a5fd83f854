#include "trace/strace_attach.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/tracees.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

}  // namespace

TEST(strace_attach, drops_processes_that_cannot_be_traced) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    traced_text trace({gone, getpid(), 0, -7});
    EXPECT_EQ(capture_stdout([&trace] { trace.run(); }), "");
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{-1, -1, -1, -1}));
}

TEST(strace_attach, traces_the_others_if_one_cannot_be_traced) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    tracee busy(call_for_ever);
    traced_text trace({gone, -1, busy.pid(), getpid()}, strace_calls);
    trace.goes_on = [](const traced_text& now) { return !now.has("getppid("); };
    trace.run();
    EXPECT_TRUE(trace.has("[" + std::to_string(busy.pid()) + " "));
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{-1, -1, busy.pid(), -1}));
    expect_free(busy.pid());
}

TEST(strace_attach, stopped_process_stays_stopped_after_the_trace) {
    for (int sig : {SIGSTOP, SIGTSTP}) {
        tracee sleeper([] {
            setpgid(0, 0);  // SIGTSTP stops no process of an orphaned process group
            return sleep_for_ever();
        });
        ASSERT_TRUE(sleeper.asleep());
        kill(sleeper.pid(), sig);
        int status;
        ASSERT_EQ(waitpid(sleeper.pid(), &status, WUNTRACED), sleeper.pid());
        traced_text trace({sleeper.pid()});
        trace.ctx.seconds = 1;
        trace.run();
        EXPECT_FALSE(trace.has("SIGNAL")) << trace.text;
        EXPECT_FALSE(is_traced(sleeper.pid()));
        EXPECT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) == 'T'; }))
            << state_of(sleeper.pid());
        kill(sleeper.pid(), SIGCONT);
        expect_free(sleeper.pid());
    }
}

TEST(strace_attach, process_may_exit_during_the_attach) {
    std::mt19937 random(7);
    for (int i = 0; i < effort(200, 100); i++) {
        useconds_t delay = random() % 300;
        tracee ending([delay] {
            usleep(delay);
            return 0;
        });
        traced_text trace({ending.pid()});
        trace.ctx.seconds = 20;
        capture_stdout([&trace] { trace.run(); });
        ending.end_if_left();
        EXPECT_TRUE(has_no_children());
    }
}

TEST(strace_attach, traces_a_vfork_child_while_its_parent_is_attached_to) {
    test_pipe gate;
    test_pipe report;
    tracee parent([&gate, &report] {
        if (vfork() == 0) {
            pid_t self = static_cast<pid_t>(syscall(SYS_getpid));
            char byte;
            (void)!write(report.in.get(), &self, sizeof self);
            (void)!read(gate.out.get(), &byte, 1);
            _exit(0);
        }
        return sleep_for_ever();
    });
    pid_t child = -1;
    ASSERT_EQ(read(report.out.get(), &child, sizeof child), static_cast<ssize_t>(sizeof child));
    ASSERT_TRUE(eventually([child] { return state_of(child) == 'S'; }));
    // The child is attached to first. It stops at its next call during the attach to its parent, which sleeps
    // until the child ends.
    traced_text trace({child, parent.pid()}, strace_calls);
    std::thread opener([&gate, &parent] {
        eventually([&parent] { return is_traced(parent.pid()); });
        (void)!write(gate.in.get(), "x", 1);
    });
    trace.goes_on = [&trace](const traced_text&) { return !trace.has("exit_group("); };
    trace.ctx.seconds = 20;
    auto start = clock_type::now();
    trace.run();
    opener.join();
    EXPECT_LT(clock_type::now() - start, 10s);
    expect_free(parent.pid());
}

TEST(strace_attach, caller_may_end_the_trace_between_attaches) {
    SKIP_WITHOUT_VFORK();
    unreachable_tracee first;
    unreachable_tracee second;
    tracee third(sleep_for_ever);
    traced_text trace({first.pid(), second.pid(), third.pid()});
    trace.ctx.seconds = 20;
    std::string attached;
    trace.goes_on = [&](const traced_text& now) {
        if (attached.empty() && now.polls == 1) {
            for (pid_t pid : {first.pid(), second.pid(), third.pid()}) {
                attached += is_traced(pid) ? '1' : '0';
            }
        }
        return false;
    };
    auto start = clock_type::now();
    // The kernel detaches the first process when the tracing thread ends.
    std::thread([&trace] { trace.run(); }).join();
    EXPECT_LT(clock_type::now() - start, 10s);
    EXPECT_EQ(attached, "100");
    EXPECT_EQ(trace.polls, 1);
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{first.pid(), -1, -1}));
    EXPECT_EQ(trace.count(" open fds:\n"), 1u) << trace.text;
    // join() may return before the kernel has detached for the thread.
    EXPECT_TRUE(eventually([&first] { return !is_traced(first.pid()); }));
    first.make_reachable();
    second.make_reachable();
    for (pid_t pid : {first.pid(), second.pid(), third.pid()}) {
        expect_free(pid);
    }
}
