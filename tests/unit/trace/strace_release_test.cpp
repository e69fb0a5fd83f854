#include "trace/strace_release.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "common/ending.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/trace/tracees.h"
#include "trace/tstrace.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr int no_limit_ms = 600000;

// The work of a process that traces `pid` for ever. It catches SIGTERM and dies of it after the detach.
auto tracing(pid_t pid) {
    return [pid] {
        constexpr std::array signals = {SIGTERM};
        if (!ending_catch(signals, no_limit_ms)) {
            return 1;
        }
        traced_text trace({pid}, strace_calls);
        do_strace(&trace.ctx);
        return 2;
    };
}

bool has_pending_stop(pid_t pid) {
    const std::string mask = status_field(pid, "SigPnd");
    return !mask.empty() &&
           (std::stoull(mask.substr(mask.size() - 16), nullptr, 16) >> (SIGSTOP - 1) & 1) != 0;
}

// Traces `pid` for a moment in a child in which a ptrace request fails. Returns the child's wait status; its
// exit code is 0 if the process was traced, 1 if it was not, 77 if calls cannot be made to fail.
int failed_trace(pid_t pid, int request, int error) {
    return run_in_child([=] {
        alarm(60);
        if (!fail_calls({{SYS_ptrace, error, static_cast<uint32_t>(request)}})) {
            return 77;
        }
        traced_text trace({pid});
        trace.goes_on = [](const traced_text& now) { return now.polls < 5; };
        trace.ctx.seconds = 1;
        do_strace(&trace.ctx);
        return trace.pids[0] == -1 ? 1 : 0;
    });
}

}  // namespace

TEST(strace_release, process_whose_options_cannot_be_set_is_detached) {
    tracee busy(call_for_ever);
    int status = failed_trace(busy.pid(), PTRACE_SETOPTIONS, EIO);
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs seccomp";
    }
    EXPECT_TRUE(exited_with(status, 1)) << status;
    expect_free(busy.pid());
}

TEST(strace_release, process_whose_stop_cannot_be_examined_is_detached) {
    for (int error : {EIO, EINVAL}) {
        tracee sleeper(sleep_for_ever);
        ASSERT_TRUE(sleeper.asleep());
        int status = failed_trace(sleeper.pid(), PTRACE_GETSIGINFO, error);
        if (exited_with(status, 77)) {
            GTEST_SKIP() << "needs seccomp";
        }
        EXPECT_TRUE(exited_with(status, 0)) << status;
        expect_free(sleeper.pid());
    }
}

TEST(strace_release, end_of_the_tracer_waits_for_the_stop_of_an_attach) {
    SKIP_WITHOUT_VFORK();
    unreachable_tracee sleeper;
    tracee tracer(tracing(sleeper.pid()));
    ASSERT_TRUE(eventually([&sleeper] { return has_pending_stop(sleeper.pid()); }));
    kill(tracer.pid(), SIGTERM);
    EXPECT_TRUE(killed_by(tracer.end(), SIGTERM));
    EXPECT_FALSE(has_pending_stop(sleeper.pid()));
    sleeper.make_reachable();
    ASSERT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) != 'D'; }));
    expect_free(sleeper.pid());
}

TEST(strace_release, killed_tracer_does_not_stop_a_process_that_did_not_stop_in_time) {
    SKIP_WITHOUT_VFORK();
    unreachable_tracee sleeper;
    tracee tracer(tracing(sleeper.pid()));
    ASSERT_TRUE(eventually([&sleeper] { return has_pending_stop(sleeper.pid()); }));
    ASSERT_TRUE(eventually([&sleeper] { return !has_pending_stop(sleeper.pid()); }));
    kill(tracer.pid(), SIGKILL);
    tracer.end();
    sleeper.make_reachable();
    ASSERT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) != 'D'; }));
    expect_free(sleeper.pid());
}

TEST(strace_release, process_that_stops_late_joins_and_receives_no_sigcont) {
    SKIP_WITHOUT_VFORK();
    static volatile sig_atomic_t continued = 0;
    test_pipe gate;
    tracee late([&gate] {
        signal(SIGCONT, [](int) { continued = 1; });
        if (vfork() == 0) {
            char byte;
            (void)!read(gate.out.get(), &byte, 1);
            _exit(0);
        }
        while (continued == 0) {
            getppid();
        }
        return sleep_for_ever();
    });
    ASSERT_TRUE(eventually([&late] { return state_of(late.pid()) == 'D'; }));
    traced_text trace({late.pid()}, strace_calls | strace_signals);
    trace.ctx.seconds = 20;
    trace.goes_on = [&](const traced_text& now) {
        if (gate.in) {
            EXPECT_EQ(write(gate.in.get(), "x", 1), 1);
            gate.in.reset();
        }
        return now.count("getppid(") < 10;
    };
    trace.run();
    EXPECT_GE(trace.count("getppid("), 10u);
    EXPECT_FALSE(trace.has("SIGCONT")) << trace.text;
    EXPECT_EQ(trace.pids[0], late.pid());
    EXPECT_FALSE(is_traced(late.pid()));
    usleep(1000);
    EXPECT_EQ(state_of(late.pid()), 'R');
}

TEST(strace_release, ends_the_command_if_there_is_no_memory_for_its_trace) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    int status = run_in_child([] {
        alarm(30);
        char name[] = "tstrace";
        char command[] = "/bin/sleep";
        char seconds[] = "1000";
        char* argv[] = {name, command, seconds, nullptr};
        scoped_memory_shortage shortage;
        if (run_tstrace(3, argv) != 0) {
            return 1;
        }
        return has_no_children() ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
}

TEST(strace_release, detaches_a_process_that_gets_sigcont_all_the_time) {
    tracee busy(sleep_for_ever);
    ASSERT_TRUE(busy.asleep());
    std::atomic<bool> done{false};
    std::thread sender([&done, &busy] {
        while (!done) {
            kill(busy.pid(), SIGCONT);
            usleep(50);
        }
    });
    for (int round = 0; round < 50; round++) {
        traced_text trace({busy.pid()});
        trace.goes_on = [round](const traced_text& now) { return now.polls <= round % 5; };
        trace.run();
        EXPECT_FALSE(is_traced(busy.pid()));
    }
    done = true;
    sender.join();
    kill(busy.pid(), SIGCONT);
    expect_free(busy.pid());
}

TEST(strace_release, signal_pending_at_the_end_of_the_trace_is_delivered) {
    for (int i = 0; i < 20; i++) {
        traced_child child([] {
            raise(SIGTERM);
            return 0;
        });
        // Ends the trace at the stop for the signal, before the signal is reported.
        child.trace.goes_on = [pid = child.pid()](const traced_text&) {
            siginfo_t info = {};
            return ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) != 0 || info.si_signo != SIGTERM;
        };
        child.run();
        EXPECT_TRUE(killed_by(child.child.end(), SIGTERM));
    }
}

TEST(strace_release, process_with_constant_signals_is_not_left_stopped) {
    static std::atomic<int> ticks{0};
    tracee busy([] {
        signal(SIGUSR1, [](int) { ticks++; });
        return sleep_for_ever();
    });
    ASSERT_TRUE(busy.asleep());
    ASSERT_TRUE(eventually([&busy] { return status_field(busy.pid(), "SigCgt") != "0000000000000000"; }));
    std::atomic<bool> done{false};
    std::thread sender([&done, &busy] {
        while (!done) {
            kill(busy.pid(), SIGUSR1);
        }
    });
    for (int i = 0; i < 100; i++) {
        traced_text trace({busy.pid()});
        trace.goes_on = [i](const traced_text& now) { return now.polls < i % 7; };
        trace.run();
        EXPECT_FALSE(trace.has("SIGSTOP"));
        expect_free(busy.pid());
    }
    done = true;
    sender.join();
}

TEST(strace_release, process_may_be_killed_at_any_time) {
    for (int i = 0; i < 50; i++) {
        tracee busy(call_for_ever);
        traced_text trace({busy.pid()});
        trace.goes_on = [&busy, i](const traced_text& now) {
            if (now.polls == i + 5) {
                kill(busy.pid(), SIGKILL);
            }
            return now.polls < i + 200;
        };
        capture_stdout([&trace] { trace.run(); });
        busy.end_if_left();
        EXPECT_TRUE(has_no_children());
    }
}

TEST(strace_release, gives_up_on_a_process_in_uninterruptible_sleep_without_stopping_it) {
    SKIP_WITHOUT_VFORK();
    unreachable_tracee sleeper;
    traced_text trace({sleeper.pid()});
    trace.ctx.seconds = 1;
    auto start = clock_type::now();
    clock_type::duration taken{};
    std::thread([&] {
        trace.run();
        taken = clock_type::now() - start;
    }).join();
    EXPECT_GT(taken, 3900ms);  // the time limit of 1 s, then strace_release_patience_ms
    EXPECT_LT(taken, 10s);
    EXPECT_TRUE(eventually([&sleeper] { return !is_traced(sleeper.pid()); }));
    EXPECT_EQ(state_of(sleeper.pid()), 'D');
    sleeper.make_reachable();
    ASSERT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) != 'D'; }));
    expect_free(sleeper.pid());
}

TEST(strace_release, first_thread_may_have_ended_before_the_others) {
    tracee headless([] {
        std::thread([] { sleep_for_ever(); }).detach();
        return static_cast<int>(syscall(SYS_exit, 0));
    });
    ASSERT_TRUE(eventually([&headless] { return state_of(headless.pid()) == 'Z'; }));
    traced_text trace({headless.pid()});
    trace.ctx.seconds = 1;
    auto start = clock_type::now();
    capture_stdout([&trace] { trace.run(); });
    EXPECT_LT(clock_type::now() - start, 10s);
}

TEST(strace_release, first_thread_may_end_during_the_trace) {
    traced_child headless([] {
        std::thread([] { sleep_for_ever(); }).detach();
        return static_cast<int>(syscall(SYS_exit, 0));
    });
    headless.trace.ctx.seconds = 1;
    auto start = clock_type::now();
    capture_stdout([&headless] { headless.run(); });
    EXPECT_LT(clock_type::now() - start, 10s);
    EXPECT_TRUE(eventually([&headless] { return state_of(headless.pid()) == 'Z'; }));
}

TEST(strace_release, detaches_a_process_whose_stop_another_thread_waited_for) {
    tracee sleeper(sleep_for_ever);
    traced_text trace({sleeper.pid()}, strace_calls);
    trace.ctx.seconds = 1;
    std::atomic<bool> over{false};
    std::thread thief([&] {
        EXPECT_TRUE(eventually([&sleeper] { return is_traced(sleeper.pid()) && sleeper.asleep(); }));
        while (!over) {
            (void)waitpid(sleeper.pid(), nullptr, WNOHANG);
            usleep(100);
        }
    });
    auto start = clock_type::now();
    trace.run();
    EXPECT_LT(clock_type::now() - start, 10s);
    over = true;
    thief.join();
    expect_free(sleeper.pid());
}

TEST(strace_release, killed_tracer_leaves_its_processes_running) {
    for (int i = 0; i < 20; i++) {
        tracee busy([] {
            for (;;) {
                getppid();
                sched_yield();
            }
            return 0;
        });
        pid_t pid = busy.pid();
        // The tracer is killed only after the attach: a stop signal that is still pending would outlive it.
        test_pipe begun;
        int begun_fd = begun.in.get();
        tracee tracer([pid, begun_fd] {
            traced_text trace({pid});
            trace.goes_on = [begun_fd](const traced_text& now) {
                return now.polls != 1 || write(begun_fd, "x", 1);
            };
            trace.run();
            return 0;
        });
        char byte;
        ASSERT_EQ(read(begun.out.get(), &byte, 1), 1);
        usleep(static_cast<useconds_t>(i) * 100);
        kill(tracer.pid(), SIGKILL);
        EXPECT_TRUE(killed_by(tracer.end(), SIGKILL));
        expect_free(pid);
    }
}
