#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <vector>

#include "common/unique_fd.h"
#include "tools/dcore/stream.h"
#include "tools/dcore/threads.h"

namespace {

// A child that runs `run` after it has said that it is there, and is killed at the end.
struct child {
    explicit child(const std::function<void()>& run) {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        pid = fork();
        if (pid == 0) {
            EXPECT_EQ(write(ends[1], "x", 1), 1);
            run();
            _exit(0);
        }
        char byte;
        EXPECT_EQ(read(ends[0], &byte, 1), 1);
        close(ends[0]);
        close(ends[1]);
    }
    ~child() {
        kill(pid, SIGKILL);
        // Threads that are still traced, as a sanitizer's own may be, are waited for before their process.
        pid_t ended;
        do {
            ended = waitpid(-1, nullptr, __WALL);
        } while (ended > 0 && ended != pid);
    }
    std::string field(const std::string& key) const {
        std::ifstream file("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with(key + ":\t")) {
                return line.substr(key.size() + 2);
            }
        }
        return "";
    }
    void await_state(char state) const {
        while (field("State")[0] != state) {
            usleep(1000);
        }
    }
    pid_t pid;
};

void sleep_for_ever() {
    for (;;) {
        pause();
    }
}

}  // namespace

TEST(dcore_threads, run_on_while_they_are_only_seized) {
    child target(sleep_for_ever);
    target.await_state('S');
    thread_hold hold;
    ASSERT_EQ(threads_seize(target.pid, hold), 0);
    EXPECT_GE(hold.threads.size(), 1u);  // a sanitizer may have a thread of its own
    EXPECT_EQ(hold.threads[0].tid, target.pid);
    EXPECT_EQ(target.field("State")[0], 'S');
    EXPECT_EQ(target.field("TracerPid"), std::to_string(getpid()));
}

TEST(dcore_threads, stand_still_and_go_on) {
    child target(sleep_for_ever);
    thread_hold hold;
    ASSERT_EQ(threads_seize(target.pid, hold), 0);
    ASSERT_EQ(threads_stop(hold), 0);
    EXPECT_EQ(target.field("State")[0], 't');
    EXPECT_TRUE(hold.threads[0].has_registers);
    EXPECT_FALSE(threads_all_let_go(hold));
    threads_let_go(hold);
    EXPECT_TRUE(threads_all_let_go(hold));
    EXPECT_EQ(target.field("TracerPid"), "0");
    target.await_state('S');
}

TEST(dcore_threads, go_on_when_their_hold_ends) {
    child target(sleep_for_ever);
    {
        thread_hold hold;
        ASSERT_EQ(threads_seize(target.pid, hold), 0);
        ASSERT_EQ(threads_stop(hold), 0);
    }
    EXPECT_EQ(target.field("TracerPid"), "0");
}

TEST(dcore_threads, of_nobody_can_not_be_seized) {
    thread_hold hold;
    EXPECT_EQ(threads_seize(0x7fffffff, hold), ESRCH);
}

TEST(dcore_threads, have_the_registers_that_the_processor_has) {
    child target(sleep_for_ever);
    thread_hold hold;
    ASSERT_EQ(threads_seize(target.pid, hold), 0);
    ASSERT_EQ(threads_stop(hold), 0);
    unsigned char room[65536];
    EXPECT_GT(threads_regset(hold.threads[0], arch_regsets[0].type, room, sizeof room), 200u);
    EXPECT_EQ(threads_regset(hold.threads[0], 0x7ffffff, room, sizeof room), 0u);
    threads_let_go(hold);
    EXPECT_EQ(threads_regset(hold.threads[0], arch_regsets[0].type, room, sizeof room), 0u);
}

TEST(dcore_threads, show_signals_that_wait_and_are_blocked) {
    child target([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGUSR1);
        sigprocmask(SIG_SETMASK, &set, nullptr);
        kill(getpid(), SIGUSR1);
        sleep_for_ever();
    });
    target.await_state('S');
    thread_hold hold;
    ASSERT_EQ(threads_seize(target.pid, hold), 0);
    ASSERT_EQ(threads_stop(hold), 0);
    EXPECT_EQ(hold.threads[0].blocked, 1ull << (SIGUSR1 - 1));
    EXPECT_EQ(hold.pending.si_signo, SIGUSR1);
    EXPECT_EQ(hold.pending.si_pid, target.pid);
}

TEST(dcore_threads, that_were_killed_leave_their_end_to_the_parent) {
    // The parent and the one that holds are two processes, as they are in earnest.
    child target(sleep_for_ever);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t holder = fork();
    if (holder == 0) {
        thread_hold hold;
        bool held = threads_seize(target.pid, hold) == 0 && threads_stop(hold) == 0;
        (void)!write(ends[1], held ? "y" : "n", 1);
        while (!threads_all_let_go(hold)) {
            threads_reap_killed(hold);
            usleep(1000);
        }
        sleep_for_ever();
    }
    char held = 0;
    EXPECT_EQ(read(ends[0], &held, 1), 1);
    EXPECT_EQ(held, 'y');
    kill(target.pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(target.pid, &status, 0), target.pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(dcore_kept_calls, are_those_that_a_stop_interrupts) {
    EXPECT_TRUE(arch_call_can_be_kept(SYS_epoll_pwait));
    EXPECT_FALSE(arch_call_can_be_kept(SYS_close));
    EXPECT_FALSE(arch_call_can_be_kept(-1));
}

TEST(dcore_stream, puts_everything_out_in_order) {
    char name[] = "/tmp/streamXXXXXX";
    unique_fd file(mkstemp(name));
    unlink(name);
    thread_hold hold;
    core_stream stream = stream_new(file.get(), hold);
    std::string block(100001, 'x'), want;
    for (int i = 0; i < 30; i++) {
        block[0] = static_cast<char>('a' + i % 26);
        stream_put(stream, block.data(), block.size());
        stream_put_zeros(stream, 77);
        want += block + std::string(77, '\0');
    }
    EXPECT_EQ(stream.position, want.size());
    EXPECT_EQ(stream_flush(stream), 0);
    std::string got(want.size() + 1, '?');
    ASSERT_EQ(pread(file.get(), got.data(), got.size(), 0), static_cast<ssize_t>(want.size()));
    got.resize(want.size());
    EXPECT_EQ(got, want);
}

TEST(dcore_stream, keeps_the_first_error_and_goes_on_counting) {
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    unique_fd in(ends[1]);
    thread_hold hold;
    core_stream stream = stream_new(in.get(), hold);
    stream_put_zeros(stream, 3 * stream_buffer_size);
    EXPECT_EQ(stream.position, 3 * stream_buffer_size);
    EXPECT_EQ(stream_flush(stream), EPIPE);
}
