// What becomes of the processes when a trace can't begin, is cut short or fails.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

#include "common/ending.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/trace/tracees.h"
#include "trace/tstrace.h"

namespace {

constexpr int no_limit_ms = 600000;

// A process that traces `pid` for ever and dies of SIGTERM in good order.
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

// Traces `pid` for a moment in a process of its own in which a request of ptrace fails. Returns its status: 0
// when the process was traced, 1 when not, 77 when calls can't be made to fail.
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

TEST(strace_release, process_that_cannot_be_given_options_is_let_go) {
    tracee busy(call_for_ever);
    int status = failed_trace(busy.pid(), PTRACE_SETOPTIONS, EIO);
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs seccomp";
    }
    EXPECT_TRUE(exited_with(status, 1)) << status;
    expect_free(busy.pid());
}

TEST(strace_release, process_whose_stop_cannot_be_looked_at_is_let_go) {
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

TEST(strace_release, process_that_did_not_stop_in_time_is_not_stopped_when_its_tracer_is_killed) {
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

TEST(strace_release, process_that_stops_late_joins_and_sees_nothing_of_it) {
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

TEST(strace_release, command_is_ended_when_there_is_no_memory_for_its_trace) {
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
