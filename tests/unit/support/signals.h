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

// Ignores SIGPIPE, as the program does at its start: a write without a reader fails and does not kill.
inline void ignore_broken_pipes() {
    signal(SIGPIPE, SIG_IGN);
}

inline std::atomic<int> signals_counted{0};

inline void count_signal(int) {
    signals_counted++;
}

// Sets the disposition of one signal for the length of a block. SA_RESTART is not set, so a blocked call
// fails with EINTR.
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

// The signal that last killed a child of this process; 0 if none was killed.
inline std::atomic<int> last_death{0};

// Updates `last_death` for the length of a block. If two children end at the same time, one may be missed.
// Blocked calls are restarted.
class scoped_death_watch {
public:
    scoped_death_watch() {
        last_death = 0;
        struct sigaction action = {};
        action.sa_sigaction = [](int, siginfo_t* info, void*) {
            last_death = info->si_code == CLD_KILLED ? info->si_status : last_death.load();
        };
        action.sa_flags = SA_SIGINFO | SA_RESTART | SA_NOCLDSTOP;
        EXPECT_EQ(sigaction(SIGCHLD, &action, &old_), 0);
    }
    scoped_death_watch(const scoped_death_watch&) = delete;
    scoped_death_watch& operator=(const scoped_death_watch&) = delete;
    ~scoped_death_watch() { EXPECT_EQ(sigaction(SIGCHLD, &old_, nullptr), 0); }

private:
    struct sigaction old_;
};

inline pid_t thread_id() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

// The state letter of a thread of this process ('S': asleep in a system call); '?' if it has ended.
inline char thread_state(pid_t tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(file, line);
    size_t mark = line.rfind(") ");
    return mark == std::string::npos || mark + 2 >= line.size() ? '?' : line[mark + 2];
}

// Sends `sig` (handled by count_signal) to the thread while it is asleep, and waits until it has been
// handled.
inline void interrupt_asleep(pid_t tid, int sig) {
    ASSERT_TRUE(eventually([tid] { return thread_state(tid) == 'S'; }));
    int before = signals_counted;
    ASSERT_EQ(syscall(SYS_tgkill, getpid(), tid, sig), 0);
    ASSERT_TRUE(eventually([before] { return signals_counted > before; }));
}
