#include "common/ending.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"

namespace {

constexpr int no_limit_ms = 600000;
constexpr int short_limit_ms = 200;

// The write end of the pipe into which a child reports what it has done.
int report_fd = -1;

void report(char letter) {
    EXPECT_EQ(write(report_fd, &letter, 1), 1);
}

[[noreturn]] void wait_for_the_end() {
    for (;;) {
        pause();
    }
}

struct ended_child {
    int status = -1;
    std::string reported;
};

// Runs `work` in a process that catches `signals`. If `work` returns, the process exits with status 0.
ended_child run_catching(std::initializer_list<int> signals, int limit_ms,
                         const std::function<void()>& work) {
    test_pipe pipe;
    ended_child child;
    child.status = run_in_child([&] {
        forbid_core_files();
        pipe.out.reset();
        report_fd = pipe.in.get();
        if (!ending_catch({signals.begin(), signals.size()}, limit_ms)) {
            return 1;
        }
        work();
        return 0;
    });
    child.reported = pipe.finish();
    return child;
}

void signal_this_process(int sig) {
    EXPECT_EQ(kill(getpid(), sig), 0);
}

// Waits for long enough that a process that may end has ended.
void give_time_to_end() {
    poll(nullptr, 0, 100);
}

// Sends the signal and returns when the end of the process has begun.
void begin_the_end(int sig) {
    static int begun[2];
    EXPECT_EQ(pipe(begun), 0);
    ending_add([] { EXPECT_EQ(write(begun[1], "b", 1), 1); });
    signal_this_process(sig);
    char letter;
    EXPECT_EQ(read(begun[0], &letter, 1), 1);
}

TEST(ending, is_by_the_signal_itself) {
    for (int sig : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGALRM}) {
        ended_child child = run_catching({SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGALRM}, no_limit_ms, [sig] {
            signal_this_process(sig);
            wait_for_the_end();
        });
        EXPECT_TRUE(killed_by(child.status, sig)) << sig << " " << child.status;
    }
}

TEST(ending, can_be_caused_by_an_alarm) {
    ended_child child = run_catching({SIGALRM}, no_limit_ms, [] {
        ualarm(1000, 0);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGALRM)) << child.status;
}

TEST(ending, leaves_other_signals_alone) {
    ended_child child = run_catching({SIGHUP}, no_limit_ms, [] {
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
}

TEST(ending, leaves_an_ignored_signal_ignored) {
    scoped_signal ignored(SIGHUP, SIG_IGN);
    ended_child child = run_catching({SIGHUP, SIGTERM}, no_limit_ms, [] {
        signal_this_process(SIGHUP);
        give_time_to_end();
        report('h');
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
    EXPECT_EQ(child.reported, "h");
}

TEST(ending, does_nothing_if_all_signals_are_ignored) {
    scoped_signal ignored(SIGHUP, SIG_IGN);
    ended_child child = run_catching({SIGHUP}, no_limit_ms, [] { signal_this_process(SIGHUP); });
    EXPECT_TRUE(exited_with(child.status, 0)) << child.status;
}

TEST(ending, unblocks_what_it_catches) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
}

TEST(ending, waits_for_the_last_of_nested_holds) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_held outer;
        ending_hold();
        begin_the_end(SIGTERM);
        ending_release();
        give_time_to_end();
        report('o');
    });
    EXPECT_EQ(child.reported, "o");
}

TEST(ending, comes_when_the_last_hold_is_released) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_hold();
        begin_the_end(SIGTERM);
        ending_release();
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
}

TEST(ending, waits_for_the_hold_of_another_thread) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        test_pipe held;
        std::thread other([&] {
            ending_hold();
            EXPECT_EQ(write(held.in.get(), "h", 1), 1);
            wait_for_the_end();
        });
        char letter;
        EXPECT_EQ(read(held.out.get(), &letter, 1), 1);
        begin_the_end(SIGTERM);
        give_time_to_end();
        report('s');
        ending_release();
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
    EXPECT_EQ(child.reported, "s");
}

TEST(ending, holds_have_no_effect_if_nothing_is_caught) {
    for (int i = 0; i < 3; i++) {
        ending_held outer;
        ending_held inner;
    }
}

// Ends many processes while another of their threads holds and releases.
TEST(ending, never_interrupts_a_hold) {
    void* shared = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* held = new (shared) std::atomic<int>(0);
    for (int round = 0; round < 200; round++) {
        *held = 0;
        ended_child child = run_catching({SIGTERM}, no_limit_ms, [&] {
            std::thread other([held] {
                for (;;) {
                    ending_hold();
                    *held = 1;
                    sched_yield();
                    *held = 0;
                    ending_release();
                }
            });
            poll(nullptr, 0, round % 5);
            signal_this_process(SIGTERM);
            wait_for_the_end();
        });
        EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
        ASSERT_EQ(*held, 0) << round;
    }
    munmap(shared, sizeof(int));
}

TEST(ending, comes_between_two_holds_that_follow_at_once) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_hold();
        begin_the_end(SIGTERM);
        for (int i = 0; i < 3000; i++) {
            poll(nullptr, 0, 1);
            ending_release();
            ending_hold();
        }
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
}

TEST(ending, runs_added_work_first) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_add([] { report('w'); });
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
    EXPECT_EQ(child.reported, "w");
}

TEST(ending, does_not_run_removed_work) {
    void (*removed)() = [] { report('r'); };
    void (*kept)() = [] { report('k'); };
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [&] {
        ending_add(removed);
        ending_add(kept);
        ending_remove(removed);
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_EQ(child.reported, "k");
}

TEST(ending, runs_its_work_during_a_hold) {
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_hold();
        begin_the_end(SIGTERM);
        report('w');
    });
    EXPECT_EQ(child.reported, "w");
}

TEST(ending, accepts_no_more_work_after_it_has_begun) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer delivers no signal to a thread that waits for a mutex";
#endif
    ended_child child = run_catching({SIGTERM}, short_limit_ms, [] {
        ending_hold();
        begin_the_end(SIGTERM);
        ending_add([] {});
        report('a');
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
    EXPECT_EQ(child.reported, "");
}

TEST(ending, does_not_wait_for_ever_for_work_that_hangs) {
    for (int sig : {SIGTERM, SIGALRM}) {
        ended_child child = run_catching({SIGALRM, SIGTERM}, short_limit_ms, [sig] {
            ending_add([] {
                report('w');
                wait_for_the_end();
            });
            signal_this_process(sig);
            wait_for_the_end();
        });
        EXPECT_TRUE(killed_by(child.status, sig)) << child.status;
        EXPECT_EQ(child.reported, "w");
    }
}

TEST(ending, does_not_wait_for_ever_for_a_hold) {
    ended_child child = run_catching({SIGTERM}, short_limit_ms, [] {
        ending_hold();
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
}

TEST(ending, is_not_changed_by_further_signals) {
    ended_child child = run_catching({SIGTERM, SIGINT}, no_limit_ms, [] {
        ending_add([] {
            signal_this_process(SIGTERM);
            signal_this_process(SIGINT);
            give_time_to_end();
            report('w');
        });
        signal_this_process(SIGTERM);
        wait_for_the_end();
    });
    EXPECT_TRUE(killed_by(child.status, SIGTERM)) << child.status;
    EXPECT_EQ(child.reported, "w");
}

TEST(ending, of_a_forked_child_does_not_run_the_parents_work) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer delays signals in a child that was forked while other threads ran";
#endif
    ended_child child = run_catching({SIGTERM}, no_limit_ms, [] {
        ending_add([] { report('w'); });
        int status = run_in_child([] {
            alarm(20);
            signal_this_process(SIGTERM);
            wait_for_the_end();
            return 0;
        });
        report(killed_by(status, SIGTERM) ? 'c' : '?');
    });
    EXPECT_TRUE(exited_with(child.status, 0)) << child.status;
    EXPECT_EQ(child.reported, "c");
}

}  // namespace
