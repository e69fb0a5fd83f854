// Child processes of a test, and checks that nothing is left of them.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <thread>

#include "common/unique_fd.h"

// Runs `work` in a forked child, which ends through _exit with the int that `work` returns. Returns the pid.
// The parent does not see a failed EXPECT_ of the child, so return a number that tells what went wrong.
template <typename Work>
pid_t fork_child(Work work) {
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        int result = work();
        fflush(stdout);
        fflush(stderr);
        _exit(result);
    }
    EXPECT_GT(pid, 0);
    return pid;
}

// Waits for `pid`; the status as waitpid gives it, or -1.
inline int wait_status(pid_t pid) {
    int status = -1;
    pid_t got;
    do {
        got = waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    EXPECT_EQ(got, pid);
    return got == pid ? status : -1;
}

// fork_child(), then wait_status().
template <typename Work>
int run_in_child(Work work) {
    return wait_status(fork_child(work));
}

inline bool exited_with(int status, int code) {
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

inline bool killed_by(int status, int sig) {
    return WIFSIGNALED(status) && WTERMSIG(status) == sig;
}

// For a child that is going to die by a signal.
inline void forbid_core_files() {
    rlimit none = {0, 0};
    setrlimit(RLIMIT_CORE, &none);
}

// True if this process has no child, neither running nor ended.
inline bool has_no_children() {
    siginfo_t info;
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) < 0 && errno == ECHILD;
}

// The numbers of all open descriptors of this process.
inline std::set<int> open_fds() {
    std::set<int> found;
    unique_dir dir(opendir("/proc/self/fd"));
    EXPECT_TRUE(dir);
    while (const dirent* entry = dir ? readdir(dir.get()) : nullptr) {
        int fd = atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(dir.get())) {
            found.insert(fd);
        }
    }
    return found;
}

inline int count_open_fds() {
    return static_cast<int>(open_fds().size());
}

// Polls `fact` until it holds or `limit` has passed. Returns true if it held.
template <typename Fact>
bool eventually(Fact fact, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    auto end = std::chrono::steady_clock::now() + limit;
    while (!fact()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
