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
#include "tools/dcore/registers.h"
#include "tools/dcore/stream.h"
#include "tools/dcore/threads.h"

namespace {

// A child process that calls `run`, and is killed at the end.
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
        // Traced threads, which a sanitizer may have, must be reaped before their process.
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

TEST(dcore_threads, run_on_when_seized) {
    child target(sleep_for_ever);
    target.await_state('S');
    thread_hold hold;
    ASSERT_EQ(threads_seize(&hold, target.pid), 0);
    EXPECT_GE(hold.threads.size(), 1u);  // a sanitizer may have a thread of its own
    EXPECT_EQ(hold.threads[0].tid, target.pid);
    EXPECT_EQ(target.field("State")[0], 'S');
    EXPECT_EQ(target.field("TracerPid"), std::to_string(getpid()));
}

TEST(dcore_threads, stop_and_run_on) {
    child target(sleep_for_ever);
    thread_hold hold;
    ASSERT_EQ(threads_seize(&hold, target.pid), 0);
    ASSERT_EQ(threads_stop(&hold), 0);
    EXPECT_EQ(target.field("State")[0], 't');
    EXPECT_TRUE(hold.threads[0].has_registers);
    EXPECT_FALSE(threads_all_detached(hold));
    threads_detach(&hold);
    EXPECT_TRUE(threads_all_detached(hold));
    EXPECT_EQ(target.field("TracerPid"), "0");
    target.await_state('S');
}

TEST(dcore_threads, run_on_when_the_hold_ends) {
    child target(sleep_for_ever);
    {
        thread_hold hold;
        ASSERT_EQ(threads_seize(&hold, target.pid), 0);
        ASSERT_EQ(threads_stop(&hold), 0);
    }
    EXPECT_EQ(target.field("TracerPid"), "0");
}

TEST(dcore_threads, of_a_missing_process_cannot_be_seized) {
    thread_hold hold;
    EXPECT_EQ(threads_seize(&hold, 0x7fffffff), ESRCH);
}

TEST(dcore_threads, have_the_processors_sets_of_registers) {
    child target(sleep_for_ever);
    thread_hold hold;
    ASSERT_EQ(threads_seize(&hold, target.pid), 0);
    ASSERT_EQ(threads_stop(&hold), 0);
    unsigned char room[65536];
    EXPECT_GT(registers_read_set(hold.threads[0], arch_regsets[0].type, room, sizeof room), 200u);
    EXPECT_EQ(registers_read_set(hold.threads[0], 0x7ffffff, room, sizeof room), 0u);
    threads_detach(&hold);
    EXPECT_EQ(registers_read_set(hold.threads[0], arch_regsets[0].type, room, sizeof room), 0u);
}

TEST(dcore_threads, have_pending_and_blocked_signals) {
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
    ASSERT_EQ(threads_seize(&hold, target.pid), 0);
    ASSERT_EQ(threads_stop(&hold), 0);
    EXPECT_EQ(hold.threads[0].blocked, 1ull << (SIGUSR1 - 1));
    EXPECT_EQ(hold.pending.si_signo, SIGUSR1);
    EXPECT_EQ(hold.pending.si_pid, target.pid);
}

TEST(dcore_threads, are_reaped_for_the_parent_when_killed) {
    // As in real use, the holder is not the parent of the process.
    child target(sleep_for_ever);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t holder = fork();
    if (holder == 0) {
        thread_hold hold;
        bool held = threads_seize(&hold, target.pid) == 0 && threads_stop(&hold) == 0;
        (void)!write(ends[1], held ? "y" : "n", 1);
        while (!threads_all_detached(hold)) {
            threads_reap_killed(&hold);
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

TEST(dcore_kept_calls, include_calls_that_a_stop_interrupts) {
    EXPECT_TRUE(arch_call_can_be_kept(SYS_epoll_pwait));
    EXPECT_FALSE(arch_call_can_be_kept(SYS_close));
    EXPECT_FALSE(arch_call_can_be_kept(-1));
}

TEST(dcore_stream, writes_everything_in_order) {
    char name[] = "/tmp/streamXXXXXX";
    unique_fd file(mkstemp(name));
    unlink(name);
    thread_hold hold;
    core_stream stream = stream_new(file.get(), &hold);
    std::string block(100001, 'x'), want;
    for (int i = 0; i < 30; i++) {
        block[0] = static_cast<char>('a' + i % 26);
        stream_write(&stream, block.data(), block.size());
        stream_write_zeros(&stream, 77);
        want += block + std::string(77, '\0');
    }
    EXPECT_EQ(stream.position, want.size());
    EXPECT_EQ(stream_flush(&stream), 0);
    std::string got(want.size() + 1, '?');
    ASSERT_EQ(pread(file.get(), got.data(), got.size(), 0), static_cast<ssize_t>(want.size()));
    got.resize(want.size());
    EXPECT_EQ(got, want);
}

TEST(dcore_stream, keeps_the_first_error_and_continues_counting) {
    signal(SIGPIPE, SIG_IGN);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    unique_fd in(ends[1]);
    thread_hold hold;
    core_stream stream = stream_new(in.get(), &hold);
    stream_write_zeros(&stream, 3 * stream_buffer_size);
    EXPECT_EQ(stream.position, 3 * stream_buffer_size);
    EXPECT_EQ(stream_flush(&stream), EPIPE);
}
