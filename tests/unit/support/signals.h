// Signals that arrive at a chosen moment.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>

#include "tests/unit/support/children.h"

inline std::atomic<int> signals_counted{0};

inline void count_signal(int) {
    signals_counted++;
}

// The disposition of one signal for the length of a block. Without SA_RESTART among the flags, so that a
// blocked call ends with EINTR.
class scoped_signal {
public:
    scoped_signal(int sig, void (*handler)(int)) : sig_(sig) {
        signals_counted = 0;
        struct sigaction action = {};
        action.sa_handler = handler;
        EXPECT_EQ(sigaction(sig, &action, &old_), 0);
    }
    scoped_signal(const scoped_signal&) = delete;
    scoped_signal& operator=(const scoped_signal&) = delete;
    ~scoped_signal() { EXPECT_EQ(sigaction(sig_, &old_, nullptr), 0); }

private:
    int sig_;
    struct sigaction old_;
};

inline pid_t thread_id() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// The state letter of a thread of this process ('S': asleep in a system call), '?' when it is gone.
inline char thread_state(pid_t tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(file, line);
    size_t mark = line.rfind(") ");
    return mark == std::string::npos || mark + 2 >= line.size() ? '?' : line[mark + 2];
}

// Sends `sig` (handled by count_signal) to the thread while it is asleep and waits until it was handled.
inline void interrupt_asleep(pid_t tid, int sig) {
    ASSERT_TRUE(eventually([tid] { return thread_state(tid) == 'S'; }));
    int before = signals_counted;
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), tid, sig), 0);
    ASSERT_TRUE(eventually([before] { return signals_counted > before; }));
}
