#include "trace/strace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
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
#include "trace/ptrace_ops.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

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

TEST(do_strace, processes_that_cannot_be_traced_are_dropped) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    traced_text trace({gone, getpid(), 0, -7});
    EXPECT_EQ(capture_stdout([&trace] { trace.run(); }), "");
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{-1, -1, -1, -1}));
}

TEST(do_strace, process_that_cannot_be_traced_does_not_keep_the_others_from_it) {
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

TEST(do_strace, process_that_cannot_be_resumed_is_said_and_dropped) {
    tracee busy(call_for_ever);
    pid_t pid = busy.pid();
    traced_text trace({pid}, strace_calls | strace_fds);
    trace.goes_on = [pid, killed = false](const traced_text& now) mutable {
        if (!killed && !now.text.empty()) {
            killed = true;
            kill(pid, SIGKILL);
            EXPECT_TRUE(eventually([pid] { return state_of(pid) == 'Z'; })) << state_of(pid);
        }
        return true;
    };
    std::string failure = "SYSCALL failed No such process\n";
    EXPECT_EQ(capture_stdout([&trace] { trace.run(); }), failure + failure + failure + failure +
                                                             "WARNING: ptrace SYSCALL failed! " +
                                                             std::to_string(pid) + "\n");
    EXPECT_FALSE(trace.has(" open fds:")) << trace.text;
    EXPECT_EQ(trace.pids[0], -1);
    EXPECT_TRUE(has_no_children());
    busy.was_reaped();
}

TEST(do_strace, frees_the_caller_s_buffer_and_makes_its_own_where_there_is_none) {
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

TEST(do_strace, shows_a_command_from_its_first_instruction_to_its_end) {
    pid_t pid = start_traced({"/bin/sh", "-c", "echo hi; exit 3"});
    traced_text trace({pid});
    trace.ctx.attached = 1;
    const std::string& text = trace.run();
    std::string head = "[" + std::to_string(pid) + " sh] [";
    EXPECT_EQ(text.find(head), 0u);
    EXPECT_TRUE(trace.has("brk(0x0)\n"));
    EXPECT_TRUE(trace.has("write(1 /dev/null, \"hi\\n\", 3)\n"));
    EXPECT_TRUE(trace.has("write(1 /dev/null, \"hi\\n\", 3) = 3\n"));
    EXPECT_TRUE(trace.has("exit_group(3)\n"));
    EXPECT_EQ(trace.pids[0], -1);
    EXPECT_TRUE(has_no_children());
}

TEST(do_strace, entry_lines_come_before_their_exit_lines) {
    traced_child child([] {
        unique_fd fd(open("/dev/zero", O_RDONLY | O_CLOEXEC));
        char byte[3];
        return static_cast<int>(read(fd.get(), byte, 3)) == 3 ? 4 : 5;
    });
    child.run();
    size_t at = child.trace.text.find("/dev/zero, 0x");
    ASSERT_NE(at, std::string::npos);
    EXPECT_NE(child.trace.text.find("/dev/zero, \"\\x0\\x0\\x0\", 3) = 3\n", at), std::string::npos);
    child.child.end();
}

TEST(do_strace, process_that_exits_is_told_of_twice_with_its_code) {
    struct seen {
        int kind, code;
        pid_t pid;
        bool in_list;
    };
    static std::vector<seen> exits;
    exits.clear();
    traced_child child([] { return 3; });
    child.trace.ctx.on_exit = [](strace_ctx* ctx, void* cookie, pid_t pid, int kind, int code, void* extra) {
        EXPECT_EQ(extra, nullptr);
        exits.push_back({kind, code, pid, ctx->pids[0] == pid && cookie == ctx->cookie});
    };
    pid_t pid = child.pid();
    child.run();
    ASSERT_EQ(exits.size(), 2u);
    EXPECT_EQ(exits[0].kind, strace_exit_call);
    EXPECT_EQ(exits[0].code, 3);
    EXPECT_EQ(exits[1].kind, strace_exit_stop);
    EXPECT_EQ(exits[1].code, 3 << 8);
    for (const seen& exit : exits) {
        EXPECT_EQ(exit.pid, pid);
        EXPECT_TRUE(exit.in_list);
    }
    child.child.end();
}

// Kills the processes as soon as the trace has looked `looks` times for events.
void kill_all_after(int looks, traced_text* trace, std::vector<pid_t> pids) {
    trace->goes_on = [looks, pids, killed = false](const traced_text& now) mutable {
        for (pid_t pid : now.polls >= looks && !killed ? pids : std::vector<pid_t>()) {
            EXPECT_EQ(kill(pid, SIGKILL), 0);
            killed = true;
        }
        return true;
    };
}

TEST(do_strace, processes_that_are_killed_in_full_run_are_told_of_like_others) {
    static std::set<pid_t> told;
    told.clear();
    constexpr int rounds = effort(10, 3);
    constexpr int together = 8;
    for (int round = 0; round < rounds; round++) {
        std::vector<std::unique_ptr<tracee>> busy;
        std::vector<pid_t> pids;
        for (int i = 0; i < together; i++) {
            busy.push_back(std::make_unique<tracee>(call_for_ever));
            pids.push_back(busy.back()->pid());
        }
        traced_text trace(pids);
        trace.ctx.seconds = 20;
        trace.ctx.on_exit = [](strace_ctx*, void*, pid_t pid, int kind, int, void*) {
            if (kind == strace_exit_stop) {
                told.insert(pid);
            }
        };
        kill_all_after(300 + round, &trace, pids);
        trace.run();
        for (const auto& one : busy) {
            one->end_if_left();
        }
    }
    // One that is killed between the last look at it and the call that resumes it is missed.
    EXPECT_GE(told.size(), size_t{rounds * together * 9 / 10});
}

std::vector<pid_t> threads_of(pid_t pid) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        found.push_back(atoi(entry.path().filename().c_str()));
    }
    return found;
}

TEST(do_strace, threads_of_a_process_that_is_killed_do_not_hold_it_up) {
    for (int round = 0; round < effort(60, 5); round++) {
        tracee busy([] {
            for (int i = 0; i < 4; i++) {
                std::thread(call_for_ever).detach();
            }
            return call_for_ever();
        });
        ASSERT_TRUE(eventually([&busy] { return threads_of(busy.pid()).size() >= 5; }));
        traced_text trace(threads_of(busy.pid()));
        kill_all_after(100 + round, &trace, {busy.pid()});
        auto start = clock_type::now();
        capture_stdout([&trace] { trace.run(); });
        EXPECT_LT(clock_type::now() - start, 10s);
        busy.end_if_left();
    }
}

TEST(do_strace, descriptors_are_listed_at_the_exit_call_whole_and_before_its_line) {
    traced_child child([] {
        // With the descriptors of the test itself besides.
        return dup2(open("/dev/zero", O_RDONLY | O_CLOEXEC), 300) == 300 ? 0 : 1;
    });
    pid_t pid = child.pid();
    child.run();
    std::string heading = "\n[" + std::to_string(pid) + " " + own_name() + "] ";
    size_t at = child.trace.text.find(heading);
    ASSERT_NE(at, std::string::npos) << child.trace.text;
    size_t list = child.trace.text.find(" open fds:\n0\t", at);
    size_t zero = child.trace.text.find("\n300\t/dev/zero\n", at);
    size_t line = child.trace.text.find("] exit_group(0)\n", at);
    EXPECT_NE(list, std::string::npos);
    EXPECT_LT(list, zero);
    EXPECT_LT(zero, line);
    EXPECT_EQ(child.trace.count(" open fds:\n"), 2u);
    child.child.end();
}

TEST(do_strace, signals_are_reported_under_the_target_s_name_and_delivered) {
    static std::atomic<int> got{0};
    traced_child child([] {
        got = 0;
        signal(SIGUSR1, [](int) { got++; });
        raise(SIGUSR1);
        return got == 1 ? 11 : 12;
    });
    pid_t pid = child.pid();
    child.trace.ctx.on_exit = [](strace_ctx*, void*, pid_t, int kind, int code, void*) {
        EXPECT_TRUE(kind != strace_exit_call || code == 11) << code;
    };
    child.run();
    EXPECT_TRUE(child.trace.has("\n[" + std::to_string(pid) + " " + own_name() + "] ---  SIGNAL " +
                                std::to_string(SIGUSR1) + " SIGUSR1 ---\n\n"))
        << child.trace.text;
    child.child.end();
}

TEST(do_strace, process_dies_by_the_signal_it_is_sent) {
    traced_child child([] {
        forbid_core_files();
        abort();
        return 0;
    });
    child.trace.ctx.seconds = -1;
    child.run();
    EXPECT_TRUE(child.trace.has(" SIGABRT ---\n\n"));
    EXPECT_EQ(child.trace.pids[0], -1);
    child.child.end();
    EXPECT_TRUE(has_no_children());
}

TEST(do_strace, process_that_execs_goes_on_under_its_old_name) {
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

TEST(do_strace, process_that_is_taken_in_the_middle_of_an_exec_goes_on) {
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

TEST(do_strace, process_whose_other_thread_execs_is_not_stopped) {
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

TEST(do_strace, process_that_is_continued_over_and_over_is_let_go) {
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

TEST(do_strace, real_trap_is_taken_for_an_exit_and_delivered) {
    static std::atomic<int> traps{0};
    traced_child child([] {
        signal(SIGTRAP, [](int) { traps++; });
        raise(SIGTRAP);
        return traps == 1 ? 0 : 1;
    });
    static int stops = 0;
    static int code = -1;
    stops = 0;
    child.trace.ctx.on_exit = [](strace_ctx*, void*, pid_t, int kind, int exit_code, void*) {
        stops += kind == strace_exit_stop;
        code = kind == strace_exit_call ? exit_code : code;
    };
    child.run();
    EXPECT_EQ(stops, 2);
    EXPECT_EQ(code, 0);
    child.child.end();
}

TEST(do_strace, children_of_a_process_are_not_traced) {
    traced_child child([] {
        for (int i = 0; i < 50; i++) {
            pid_t pid = fork();
            if (pid == 0) {
                _exit(is_traced(getpid()) ? 1 : 0);
            }
            int status = -1;
            waitpid(pid, &status, 0);
            if (status != 0) {
                return 1;
            }
        }
        return 0;
    });
    child.run();
    EXPECT_TRUE(child.trace.has("exit_group(0)\n"));
    child.child.end();
}

TEST(do_strace, flags_choose_what_is_reported) {
    auto work = [] {
        signal(SIGUSR1, SIG_IGN);
        signal(SIGUSR2, [](int) {});
        raise(SIGUSR2);
        return 0;
    };
    for (uint32_t flags :
         {0U, strace_calls, strace_signals, strace_exits, strace_fds, strace_exits | strace_fds}) {
        traced_child child(work, flags);
        static int exits;
        exits = 0;
        child.trace.ctx.on_exit = [](strace_ctx*, void*, pid_t, int, int, void*) { exits++; };
        child.run();
        child.child.end_if_left();
        EXPECT_EQ(child.trace.has("exit_group("), (flags & strace_calls) != 0) << flags;
        EXPECT_EQ(child.trace.has("SIGNAL"), (flags & strace_signals) != 0) << flags;
        EXPECT_EQ(child.trace.has("open fds"), (flags & strace_fds) && (flags & strace_exits)) << flags;
        EXPECT_EQ(exits, ((flags & strace_calls) != 0) + ((flags & strace_exits) != 0)) << flags;
    }
}

TEST(do_strace, time_limit_ends_it_and_lets_the_processes_go) {
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

TEST(do_strace, time_limit_is_seen_also_when_all_processes_have_stopped_each_time) {
    tracee one(call_for_ever);
    tracee other(call_for_ever);
    traced_text trace({one.pid(), other.pid()}, strace_calls);
    trace.ctx.seconds = 1;
    auto start = clock_type::now();
    trace.goes_on = [&](const traced_text&) {
        // The tracer's next look finds both, as often as it can be had.
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

// The children of the calling thread.
std::string own_children() {
    std::ifstream file("/proc/thread-self/children");
    std::string all;
    std::getline(file, all);
    return all;
}

TEST(do_strace, time_limit_is_a_child_and_without_one_there_is_none) {
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

TEST(do_strace, timer_is_ended_where_sigint_is_ignored) {
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

TEST(do_strace, timer_is_ended_when_the_last_process_exits) {
    traced_child child([] { return 0; });
    child.trace.ctx.seconds = 100;
    auto start = clock_type::now();
    child.run();
    EXPECT_LT(clock_type::now() - start, 10s);
    child.child.end();
    EXPECT_TRUE(has_no_children());
}

TEST(do_strace, stops_after_the_next_event_when_the_caller_says_so) {
    traced_child child([] { return sleep_for_ever(); });
    child.trace.goes_on = [](const traced_text& trace) { return trace.polls < 1; };
    child.run();
    EXPECT_EQ(child.trace.polls, 1);
    expect_free(child.pid());
}

TEST(do_strace, signal_that_is_on_its_way_when_the_trace_ends_arrives) {
    for (int i = 0; i < 20; i++) {
        traced_child child([] {
            raise(SIGTERM);
            return 0;
        });
        // Ends at the very stop that the signal makes: nothing has been said of it yet.
        child.trace.goes_on = [pid = child.pid()](const traced_text&) {
            siginfo_t info = {};
            return ptrace(PTRACE_GETSIGINFO, pid, nullptr, &info) != 0 || info.si_signo != SIGTERM;
        };
        child.run();
        EXPECT_TRUE(killed_by(child.child.end(), SIGTERM));
    }
}

TEST(do_strace, process_that_was_stopped_before_is_stopped_after) {
    for (int sig : {SIGSTOP, SIGTSTP}) {
        tracee sleeper([] {
            setpgid(0, 0);  // SIGTSTP stops nobody in a group that has no parent in the session outside it
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

TEST(do_strace, process_that_signals_never_leave_alone_is_not_left_stopped) {
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

TEST(do_strace, process_that_exits_while_it_is_attached_is_no_trouble) {
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

TEST(do_strace, process_that_is_killed_in_the_middle_is_no_trouble) {
    for (int i = 0; i < 50; i++) {
        tracee busy([] {
            for (;;) {
                getppid();
            }
            return 0;
        });
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

TEST(do_strace, parent_of_a_vfork_and_its_child_do_not_hold_each_other) {
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
    // The child first: it stops at its next call while the parent, which only it can wake, is attached to.
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

TEST(do_strace, caller_may_end_it_while_processes_are_being_attached_to) {
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
    // The end of the thread sets the first one free.
    std::thread([&trace] { trace.run(); }).join();
    EXPECT_LT(clock_type::now() - start, 10s);
    EXPECT_EQ(attached, "100");
    EXPECT_EQ(trace.polls, 1);
    EXPECT_EQ(trace.pids, (std::vector<pid_t>{first.pid(), -1, -1}));
    EXPECT_EQ(trace.count(" open fds:\n"), 1u) << trace.text;
    // Who joins a thread does not wait for the very end of it.
    EXPECT_TRUE(eventually([&first] { return !is_traced(first.pid()); }));
    first.make_reachable();
    second.make_reachable();
    for (pid_t pid : {first.pid(), second.pid(), third.pid()}) {
        expect_free(pid);
    }
}

TEST(do_strace, process_that_no_signal_reaches_is_given_up_in_the_end_and_not_left_stopped) {
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
    EXPECT_GT(taken, 3900ms);  // with the time limit of 1 s before
    EXPECT_LT(taken, 10s);
    EXPECT_TRUE(eventually([&sleeper] { return !is_traced(sleeper.pid()); }));
    EXPECT_EQ(state_of(sleeper.pid()), 'D');
    sleeper.make_reachable();
    ASSERT_TRUE(eventually([&sleeper] { return state_of(sleeper.pid()) != 'D'; }));
    expect_free(sleeper.pid());
}

TEST(do_strace, first_thread_that_ended_before_the_others_does_not_hold_the_trace_up) {
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

TEST(do_strace, first_thread_that_ends_during_the_trace_does_not_hold_it_up) {
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

TEST(do_strace, process_whose_stop_another_thread_has_taken_is_let_go) {
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

TEST(do_strace, children_of_other_threads_are_theirs) {
    std::atomic<bool> ended{false};
    tracee sleeper(sleep_for_ever);
    std::atomic<int> lost{0};
    std::thread other([&ended, &lost] {
        for (int i = 0; i < 100; i++) {
            pid_t pid = fork();
            if (pid == 0) {
                _exit(i);
            }
            // Long enough for a tracer that takes everything to take it.
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

TEST(do_strace, one_trace_waits_for_another_and_gives_up_when_told) {
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
    kill(first.pid(), SIGCONT);  // an event
    traced_text patient({second.pid()}, 0);
    patient.ctx.seconds = 1;
    patient.run();
    tracer.join();
    expect_free(first.pid());
    expect_free(second.pid());
}

TEST(do_strace, many_processes_at_once) {
    std::vector<std::unique_ptr<tracee>> many;
    std::vector<pid_t> pids;
    for (int i = 0; i < 200; i++) {
        many.push_back(std::make_unique<tracee>([] {
            for (;;) {
                // More calls than the tracer can follow, but not so many that nobody else runs for minutes.
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

TEST(do_strace, tracer_that_is_killed_leaves_its_processes_running) {
    for (int i = 0; i < 20; i++) {
        tracee busy([] {
            for (;;) {
                getppid();
                sched_yield();
            }
            return 0;
        });
        pid_t pid = busy.pid();
        // Not before it has begun: the stop signal of an attach that is not complete outlives the tracer.
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

TEST(do_strace, line_that_is_too_long_is_said_and_not_written) {
    traced_child child(
        [] {
            unique_fd fd(open("/dev/null", O_WRONLY | O_CLOEXEC));
            return write(fd.get(), std::string(64, 'q').data(), 64) == 64 ? 0 : 1;
        },
        strace_calls);
    child.trace.ctx.buf = static_cast<char*>(malloc(100));
    child.trace.ctx.bufsize = 100;
    std::string said = capture_stderr([&child] { child.run(); });
    EXPECT_NE(said.find("strace_dec_syscall: Unexpected length: 1"), std::string::npos) << said;
    EXPECT_FALSE(child.trace.has("qqqq"));
    EXPECT_TRUE(child.trace.has("exit_group(0)\n"));
    child.child.end_if_left();
}

TEST(do_strace, list_whose_length_turns_negative_is_said) {
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

TEST(strace_printf, writes_what_fits) {
    traced_text trace({-1});
    char room[16];
    trace.ctx.buf = room;
    trace.ctx.bufsize = sizeof room;
    EXPECT_EQ(strace_printf(&trace.ctx, "%s %d", "pid", 4711), 8);
    EXPECT_EQ(trace.text, "pid 4711");
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", "exactly 16 bytes"), 16);
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", ""), 0);
    EXPECT_EQ(trace.text, "pid 4711");
    EXPECT_EQ(strace_printf(&trace.ctx, "%s", ", fifteen bytes"), 15);
    EXPECT_EQ(trace.text, "pid 4711, fifteen bytes");
    trace.ctx.write = nullptr;
    EXPECT_EQ(strace_printf(&trace.ctx, "x"), 1);
}

TEST(do_strace, end_of_a_child_is_left_to_who_started_it) {
    for (int i = 0; i < 20; i++) {
        traced_child child([i] { return i; });
        child.run();
        EXPECT_EQ(child.trace.pids[0], -1);
        EXPECT_TRUE(exited_with(child.child.end(), i));
    }
}
