#include "trace/strace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
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

// The children of the calling thread.
std::string own_children() {
    std::ifstream file("/proc/thread-self/children");
    std::string all;
    std::getline(file, all);
    return all;
}

}  // namespace

TEST(do_strace, list_without_processes_starts_nothing) {
    for (std::vector<pid_t> pids : {std::vector<pid_t>{}, {-1}, {-1, -1, -1}}) {
        traced_text trace(pids);
        trace.ctx.seconds = 5;
        auto start = clock_type::now();
        EXPECT_EQ(trace.run(), "");
        EXPECT_LT(clock_type::now() - start, 2s);
        EXPECT_EQ(trace.polls, 0);
        EXPECT_TRUE(has_no_children());
    }
}

TEST(do_strace, frees_the_caller_s_buffer_or_allocates_one) {
    traced_text trace({-1});
    trace.ctx.buf = static_cast<char*>(malloc(100));
    trace.ctx.bufsize = 100;
    trace.run();
    EXPECT_EQ(trace.ctx.buf, nullptr);
    traced_text nothing({-1});
    nothing.ctx.buf = static_cast<char*>(malloc(1));
    nothing.ctx.bufsize = 0;
    nothing.run();
}

TEST(do_strace, time_limit_ends_the_trace_and_detaches_the_processes) {
    tracee sleeper(sleep_for_ever);
    traced_text trace({sleeper.pid()});
    trace.ctx.seconds = 1;
    auto start = clock_type::now();
    trace.run();
    EXPECT_GT(clock_type::now() - start, 900ms);
    EXPECT_LT(clock_type::now() - start, 5s);
    EXPECT_EQ(trace.pids[0], sleeper.pid());
    EXPECT_TRUE(trace.has("] " + std::to_string(count_open_fds()) + " open fds:\n")) << trace.text;
    expect_free(sleeper.pid());
}

TEST(do_strace, time_limit_ends_a_trace_whose_processes_are_always_stopped) {
    tracee one(call_for_ever);
    tracee other(call_for_ever);
    traced_text trace({one.pid(), other.pid()}, strace_calls);
    trace.ctx.seconds = 1;
    auto start = clock_type::now();
    trace.goes_on = [&](const traced_text&) {
        // Waits until both are stopped, if possible, so that the tracer's next wait finds both.
        auto both_stopped = [&] { return state_of(one.pid()) == 't' && state_of(other.pid()) == 't'; };
        for (auto end = clock_type::now() + 200ms; !both_stopped() && clock_type::now() < end;) {
            usleep(100);
        }
        return clock_type::now() - start < 8s;
    };
    trace.run();
    EXPECT_LT(clock_type::now() - start, 5s);
    expect_free(one.pid());
    expect_free(other.pid());
}

TEST(do_strace, only_a_time_limit_starts_a_child) {
    if (access("/proc/thread-self/children", R_OK) != 0) {
        GTEST_SKIP() << "this kernel does not list children";
    }
    tracee busy(call_for_ever);
    const std::string traced_alone = own_children();
    for (int seconds : {-1, 0, 1}) {
        traced_text trace({busy.pid()}, strace_calls);
        trace.ctx.seconds = seconds;
        std::string meanwhile;
        trace.goes_on = [&meanwhile](const traced_text& now) {
            meanwhile = now.polls > 0 ? own_children() : meanwhile;
            return now.polls < 2;
        };
        trace.run();
        ASSERT_EQ(meanwhile.substr(0, traced_alone.size()), traced_alone);
        EXPECT_EQ(meanwhile.size() > traced_alone.size(), seconds > 0) << meanwhile;
        EXPECT_EQ(own_children(), traced_alone);
    }
}

TEST(do_strace, timer_ends_even_if_sigint_is_ignored) {
    int status = run_in_child([] {
        signal(SIGINT, SIG_IGN);
        traced_child child([] { return 0; });
        child.trace.ctx.seconds = 100;
        auto start = clock_type::now();
        child.run();
        return clock_type::now() - start < 10s ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(do_strace, timer_ends_when_the_last_process_exits) {
    traced_child child([] { return 0; });
    child.trace.ctx.seconds = 100;
    auto start = clock_type::now();
    child.run();
    EXPECT_LT(clock_type::now() - start, 10s);
    child.child.end();
    EXPECT_TRUE(has_no_children());
}

TEST(do_strace, caller_ends_the_trace_at_the_next_event) {
    traced_child child([] { return sleep_for_ever(); });
    child.trace.goes_on = [](const traced_text& trace) { return trace.polls < 1; };
    child.run();
    EXPECT_EQ(child.trace.polls, 1);
    expect_free(child.pid());
}

TEST(do_strace, does_not_reap_children_of_other_threads) {
    std::atomic<bool> ended{false};
    tracee sleeper(sleep_for_ever);
    std::atomic<int> lost{0};
    std::thread other([&ended, &lost] {
        for (int i = 0; i < 100; i++) {
            pid_t pid = fork();
            if (pid == 0) {
                _exit(i);
            }
            // Enough time for a tracer that reaps all children to reap it.
            usleep(1000);
            int status = -1;
            lost += waitpid(pid, &status, 0) != pid || !exited_with(status, i);
        }
        ended = true;
    });
    traced_text trace({sleeper.pid()});
    trace.ctx.seconds = 1;
    while (!ended) {
        trace.run();
    }
    other.join();
    EXPECT_EQ(lost, 0);
}

TEST(do_strace, waits_for_another_trace_until_the_caller_ends_it) {
    tracee first(sleep_for_ever);
    tracee second(sleep_for_ever);
    std::atomic<bool> finish{false};
    std::thread tracer([&first, &finish] {
        traced_text trace({first.pid()}, 0);
        trace.goes_on = [&finish](const traced_text&) { return !finish; };
        trace.run();
    });
    ASSERT_TRUE(eventually([&first] { return is_traced(first.pid()); }));
    traced_text impatient({second.pid()});
    impatient.goes_on = [](const traced_text& now) { return now.polls < 3; };
    EXPECT_EQ(impatient.run(), "");
    EXPECT_EQ(impatient.polls, 3);
    EXPECT_EQ(impatient.pids[0], second.pid());
    EXPECT_FALSE(is_traced(second.pid()));
    finish = true;
    kill(first.pid(), SIGCONT);  // an event that makes the trace poll
    traced_text patient({second.pid()}, 0);
    patient.ctx.seconds = 1;
    patient.run();
    tracer.join();
    expect_free(first.pid());
    expect_free(second.pid());
}

TEST(do_strace, traces_many_processes_at_once) {
    std::vector<std::unique_ptr<tracee>> many;
    std::vector<pid_t> pids;
    for (int i = 0; i < 200; i++) {
        many.push_back(std::make_unique<tracee>([] {
            for (;;) {
                // More calls than the tracer can keep up with, but not enough to starve the machine.
                usleep(effort(1000, 100000));
            }
            return 0;
        }));
        pids.push_back(many.back()->pid());
    }
    traced_text trace(pids, strace_calls);
    trace.ctx.seconds = 1;
    trace.run();
    for (pid_t pid : pids) {
        EXPECT_TRUE(trace.has("[" + std::to_string(pid) + " " + own_name() + "]"));
        expect_free(pid);
    }
}

TEST(do_strace, reports_a_list_whose_length_turns_negative) {
    traced_child child([] { return sleep_for_ever(); });
    pid_t pid = child.pid();
    strace_ctx* ctx = &child.trace.ctx;
    child.trace.goes_on = [ctx](const traced_text& now) {
        ctx->nr_pids = -2;
        return now.polls < 2;
    };
    child.trace.ctx.seconds = 1;
    std::string said = capture_stdout([&child] { child.run(); });
    EXPECT_NE(said.find("pid=" + std::to_string(pid) + " i=-1, nr_pids=-2\n"), std::string::npos) << said;
    expect_free(pid);
}
