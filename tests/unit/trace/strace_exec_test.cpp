// Traces of programs in which one of several threads calls exec. That thread takes its process's id.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/tracees.h"

namespace {

// A process of three threads. The last one calls exec when the gate is opened.
class process_that_execs {
public:
    process_that_execs()
        : child_([this] {
              std::thread(sleep_for_ever).detach();
              std::thread([this] {
                  pid_t self = thread_id();
                  char byte;
                  (void)!write(report_.in.get(), &self, sizeof self);
                  (void)!read(gate_.out.get(), &byte, 1);
                  execl("/bin/sh", "sh", "-c", "exit 5", nullptr);
              }).detach();
              return sleep_for_ever();
          }) {
        EXPECT_EQ(read(report_.out.get(), &thread_, sizeof thread_), static_cast<ssize_t>(sizeof thread_));
    }
    pid_t pid() const { return child_.pid(); }
    pid_t thread() const { return thread_; }
    void end_if_left() { child_.end_if_left(); }
    void open_gate() { EXPECT_EQ(write(gate_.in.get(), "x", 1), 1); }
    // Its threads; the one that calls exec comes last.
    std::vector<pid_t> threads() const {
        std::vector<pid_t> found = threads_of(pid());
        std::ranges::sort(found, {}, [this](pid_t tid) { return tid == thread_ ? 1 : 0; });
        return found;
    }

private:
    test_pipe report_;
    test_pipe gate_;
    tracee child_;
    pid_t thread_ = -1;
};

// Runs the trace and opens the gate when all of its threads are traced.
void run_with_exec(process_that_execs* process, traced_text* trace) {
    trace->ctx.seconds = 20;  // keeps a failing test from hanging
    std::thread opener([=, pids = trace->pids] {
        eventually([&pids] { return std::ranges::all_of(pids, is_traced); });
        process->open_gate();
    });
    trace->run();
    opener.join();
}

}  // namespace

TEST(strace_exec, thread_traced_alone_continues_under_the_id_of_its_process) {
    process_that_execs process;
    traced_text trace({process.thread()}, strace_calls | strace_signals);
    run_with_exec(&process, &trace);
    EXPECT_TRUE(trace.has("exit_group(5)\n")) << trace.text;
    EXPECT_TRUE(trace.has("[" + std::to_string(process.pid()) + " ")) << trace.text;
    EXPECT_FALSE(trace.has("SIGNAL")) << trace.text;
    EXPECT_EQ(trace.pids, std::vector<pid_t>{-1});
    process.end_if_left();
}

TEST(strace_exec, thread_that_execs_stays_traced_if_all_threads_are_traced) {
    for (uint32_t flags : {strace_calls, strace_everything}) {
        for (int round = 0; round < 5; round++) {
            process_that_execs process;
            traced_text trace(process.threads(), flags);
            std::ranges::rotate(trace.pids, trace.pids.begin() + round % 3);
            run_with_exec(&process, &trace);
            EXPECT_TRUE(trace.has("exit_group(5)\n")) << trace.text;
            EXPECT_EQ(trace.pids, std::vector<pid_t>(trace.pids.size(), -1));
            process.end_if_left();
        }
    }
}

TEST(strace_exec, thread_that_execs_during_its_detach_is_not_left_stopped) {
    for (int round = 0; round < 40; round++) {
        process_that_execs process;
        traced_text trace(process.threads(), strace_calls);
        trace.ctx.seconds = 20;
        trace.goes_on = [&process, round](const traced_text& now) {
            if (now.polls == 1) {
                process.open_gate();
            }
            return now.polls < 1 + round % 20;
        };
        kill(process.pid(), SIGWINCH);  // an event that makes the trace poll
        trace.run();
        process.end_if_left();
    }
}

TEST(strace_exec, process_keeps_its_name_when_it_execs) {
    traced_child child([] {
        execl("/bin/sh", "sh", "-c", "exit 9", nullptr);
        return 1;
    });
    static std::vector<int> codes;
    codes.clear();
    child.trace.ctx.on_exit = [](strace_ctx*, void*, pid_t, int kind, int code, void*) {
        if (kind == strace_exit_call) {
            codes.push_back(code);
        }
    };
    child.run();
    EXPECT_EQ(codes, std::vector<int>{9});
    EXPECT_TRUE(child.trace.has(" " + own_name() + "] "));
    EXPECT_TRUE(child.trace.has("exit_group(9)\n"));
    EXPECT_FALSE(child.trace.has("SIGTRAP"));
    child.child.end();
}

TEST(strace_exec, process_runs_on_after_an_attach_in_the_middle_of_an_exec) {
    const char* again = "exec /bin/sh -c \"$0\" \"$0\"";  // for ever
    tracee restless([again] { return execl("/bin/sh", "sh", "-c", again, again, nullptr); });
    for (int round = 0; round < 200; round++) {
        traced_text trace({restless.pid()}, strace_signals);
        trace.goes_on = [round](const traced_text& now) { return now.polls <= round % 4; };
        EXPECT_EQ(trace.run(), "");
        ASSERT_FALSE(is_traced(restless.pid()));
        ASSERT_TRUE(eventually([&] { return strchr("RSD", state_of(restless.pid())) != nullptr; }))
            << state_of(restless.pid());
    }
}

TEST(strace_exec, exec_by_an_untraced_thread_does_not_stop_the_process) {
    traced_child child([] {
        std::thread([] { execl("/bin/sleep", "sleep", "1000", nullptr); }).join();
        return 1;
    });
    child.trace.ctx.seconds = 1;
    pid_t pid = child.pid();
    child.run();
    EXPECT_TRUE(eventually([pid] { return status_field(pid, "Name") == "sleep" && state_of(pid) == 'S'; }))
        << status_field(pid, "Name") << ' ' << state_of(pid);
    expect_free(pid);
}
