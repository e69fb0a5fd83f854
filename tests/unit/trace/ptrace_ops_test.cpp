#include "trace/ptrace_ops.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/tracees.h"

namespace {

pid_t pid_of_nobody() {
    tracee gone([] { return 0; });
    pid_t pid = gone.pid();
    gone.end();
    return pid;
}

std::string repeated(int times, const std::string& line) {
    std::string all;
    while (times-- > 0) {
        all += line;
    }
    return all;
}

}  // namespace

TEST(trace_attach, stops_a_process_and_returns_its_pid) {
    stranger sleeper(sleep_for_ever);
    EXPECT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
    EXPECT_EQ(state_of(sleeper.pid()), 't');
    trace_detach(sleeper.pid());
    expect_free(sleeper.pid());
}

TEST(trace_attach, fails_silently_for_processes_that_cannot_be_traced) {
    std::string said = capture_stdout([] {
        EXPECT_EQ(trace_attach(pid_of_nobody()), -1);
        EXPECT_EQ(errno, ESRCH);
        EXPECT_EQ(trace_attach(0), -1);
        EXPECT_EQ(trace_attach(-5), -1);
        EXPECT_EQ(trace_attach(getpid()), -1);
        EXPECT_EQ(errno, EPERM);
    });
    EXPECT_EQ(said, "");
}

TEST(trace_attach, fails_for_a_process_with_another_tracer) {
    stranger sleeper(sleep_for_ever);
    ASSERT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
    EXPECT_EQ(trace_attach(sleeper.pid()), -1);
    trace_detach(sleeper.pid());
}

TEST(trace_attach_within, reports_the_status_of_the_stop) {
    stranger sleeper(sleep_for_ever);
    int status = 0;
    ASSERT_EQ(trace_attach_within(sleeper.pid(), 5000, &status), sleeper.pid());
    EXPECT_TRUE(WIFSTOPPED(status));
    EXPECT_EQ(WSTOPSIG(status), SIGSTOP);
    bool stop_due = true;
    EXPECT_EQ(trace_first_signal(sleeper.pid(), status, &stop_due), 0);
    EXPECT_FALSE(stop_due);
    trace_detach(sleeper.pid());
}

TEST(trace_attach_within, times_out_for_a_process_in_uninterruptible_sleep) {
    SKIP_WITHOUT_VFORK();
    unreachable_tracee sleeper;
    int status = 0;
    EXPECT_EQ(trace_attach_within(sleeper.pid(), 30, &status), 0);
    sleeper.make_reachable();
    ASSERT_EQ(waitpid(sleeper.pid(), &status, trace_wait_flags), sleeper.pid());
    ASSERT_TRUE(WIFSTOPPED(status));
    EXPECT_TRUE(trace_detach_stopped(sleeper.pid(), 0));
    expect_free(sleeper.pid());
}

TEST(trace_attach_within, reports_the_end_of_a_process_that_ends_first) {
    for (int i = 0; i < 50; i++) {
        tracee ending([] { return 7; });
        int status = 0;
        pid_t got = trace_attach_within(ending.pid(), 5000, &status);
        if (got == ending.pid() && !WIFSTOPPED(status)) {
            EXPECT_TRUE(exited_with(status, 7));
            ending.was_reaped();
        } else if (got > 0) {
            EXPECT_EQ(ptrace(PTRACE_DETACH, got, nullptr, nullptr), 0);
        }
    }
}

TEST(trace_detach, detaches_a_running_process) {
    stranger runner(spin);
    ASSERT_EQ(trace_attach(runner.pid()), runner.pid());
    ASSERT_EQ(trace_cont(runner.pid(), 0), 0);
    trace_detach(runner.pid());
    expect_free(runner.pid());
}

TEST(trace_detach, detaches_a_sleeping_process) {
    stranger sleeper(sleep_for_ever);
    ASSERT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
    ASSERT_EQ(trace_syscall(sleeper.pid(), 0), 0);
    trace_detach(sleeper.pid());
    expect_free(sleeper.pid());
}

TEST(trace_detach, signal_for_the_caller_does_not_leave_the_process_stopped) {
    scoped_signal handler(SIGUSR1, count_signal);
    pthread_t self = pthread_self();
    std::atomic<bool> detaching{false};
    std::atomic<bool> done{false};
    std::thread disturber([&detaching, &done, self] {
        while (!done) {
            if (detaching) {
                pthread_kill(self, SIGUSR1);
            }
            usleep(5);
        }
    });
    for (int i = 0; i < 100; i++) {
        stranger sleeper(sleep_for_ever);
        ASSERT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
        ASSERT_EQ(trace_syscall(sleeper.pid(), 0), 0);
        detaching = true;
        trace_detach(sleeper.pid());
        detaching = false;
        expect_free(sleeper.pid());
    }
    done = true;
    disturber.join();
    EXPECT_GT(signals_counted, 0);
}

TEST(trace_detach, waits_for_the_end_of_the_caller_s_own_child) {
    tracee child([] {
        raise(SIGSTOP);
        return 5;
    });
    int status;
    ASSERT_EQ(waitpid(child.pid(), &status, WUNTRACED), child.pid());
    ASSERT_EQ(trace_attach(child.pid()), child.pid());
    ASSERT_EQ(kill(child.pid(), SIGCONT), 0);
    trace_detach(child.pid());
    EXPECT_TRUE(has_no_children());
    child.was_reaped();
}

TEST(trace_detach, does_not_wait_for_the_end_of_a_child_that_was_running) {
    tracee runner(call_for_ever);
    for (int i = 0; i < 20; i++) {
        ASSERT_EQ(trace_attach(runner.pid()), runner.pid());
        ASSERT_EQ(trace_cont(runner.pid(), 0), 0);
        trace_detach(runner.pid());
        expect_free(runner.pid());
    }
    kill(runner.pid(), SIGKILL);
    EXPECT_TRUE(killed_by(runner.end(), SIGKILL));
}

TEST(trace_detach, signal_before_the_stop_of_a_running_process_is_lost) {
    // On one processor, the signal, which would kill the process, is still pending when the detach begins. It
    // is sent to the thread, as the stop signal is, and the lower number is delivered first.
    scoped_processor same;
    for (int i = 0; i < 50; i++) {
        stranger runner([] {
            prctl(PR_SET_NAME, "spinning");
            return spin();
        });
        // Before that, all signals but SIGSTOP may still be blocked for the fork.
        ASSERT_TRUE(eventually([&runner] { return status_field(runner.pid(), "Name") == "spinning"; }));
        ASSERT_EQ(trace_attach(runner.pid()), runner.pid());
        ASSERT_EQ(trace_cont(runner.pid(), 0), 0);
        ASSERT_EQ(syscall(SYS_tkill, runner.pid(), SIGUSR1), 0);
        trace_detach(runner.pid());
        expect_free(runner.pid());
    }
}

TEST(trace_detach_sig, delivers_the_signal) {
    tracee sleeper(sleep_for_ever);
    ASSERT_EQ(trace_attach(sleeper.pid()), sleeper.pid());
    trace_detach_sig(sleeper.pid(), SIGKILL);
    EXPECT_TRUE(has_no_children());
    sleeper.was_reaped();
}

TEST(trace_detach, process_may_have_ended) {
    trace_detach(pid_of_nobody());
    tracee killed(sleep_for_ever);
    ASSERT_EQ(trace_attach(killed.pid()), killed.pid());
    ASSERT_EQ(kill(killed.pid(), SIGKILL), 0);
    trace_detach(killed.pid());
    EXPECT_TRUE(has_no_children());
    killed.was_reaped();
}

TEST(trace_syscall, reports_four_failures_if_the_process_is_gone) {
    pid_t gone = pid_of_nobody();
    EXPECT_EQ(capture_stdout([gone] { EXPECT_EQ(trace_syscall(gone, 0), -1); }),
              repeated(4, "SYSCALL failed No such process\n"));
    EXPECT_EQ(capture_stdout([gone] { EXPECT_EQ(trace_cont(gone, 0), -1); }),
              repeated(4, "PTRACE_CONT failed No such process\n"));
}

TEST(trace_setoptions, failure_is_reported_once_under_another_request_s_name) {
    pid_t gone = pid_of_nobody();
    EXPECT_EQ(capture_stdout([gone] { EXPECT_EQ(trace_setoptions(gone, PTRACE_O_TRACESYSGOOD), -1); }),
              "PTRACE_CONT failed No such process\n");
}

TEST(trace_setoptions, sets_the_option) {
    stranger runner(call_for_ever);
    ASSERT_EQ(trace_attach(runner.pid()), runner.pid());
    EXPECT_EQ(trace_setoptions(runner.pid(), PTRACE_O_TRACESYSGOOD), 0);
    ASSERT_EQ(trace_syscall(runner.pid(), 0), 0);
    int status;
    ASSERT_EQ(waitpid(runner.pid(), &status, trace_wait_flags), runner.pid());
    EXPECT_EQ(WSTOPSIG(status), SIGTRAP | 0x80);
    trace_detach(runner.pid());
    expect_free(runner.pid());
}

TEST(trace_detach, detaches_a_running_process_on_any_thread) {
    // The threads of the daemon outlive their traces, so the kernel does not detach for them.
    stranger runner(spin);
    std::promise<void> checked;
    std::promise<void> detached;
    std::thread tracer([&] {
        EXPECT_EQ(trace_attach(runner.pid()), runner.pid());
        EXPECT_EQ(trace_syscall(runner.pid(), 0), 0);
        trace_detach(runner.pid());
        detached.set_value();
        checked.get_future().wait();
    });
    if (detached.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready) {
        expect_free(runner.pid());
    } else {
        ADD_FAILURE() << "still waiting for the process to stop";
        kill(runner.pid(), SIGKILL);
    }
    checked.set_value();
    tracer.join();
}

TEST(trace_stop_thread, stops_no_other_thread) {
    // With kill(2), an untraced thread could take the signal and stop the whole process.
    stranger many([] {
        for (int i = 0; i < 10; i++) {
            std::thread([] { sleep_for_ever(); }).detach();
        }
        return sleep_for_ever();
    });
    // A sanitizer may have a thread of its own.
    ASSERT_TRUE(eventually([&many] { return std::stoi(status_field(many.pid(), "Threads")) >= 11; }));
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(trace_attach(many.pid()), many.pid());
        ASSERT_EQ(trace_syscall(many.pid(), 0), 0);
        trace_detach(many.pid());
        expect_free(many.pid());
    }
}
