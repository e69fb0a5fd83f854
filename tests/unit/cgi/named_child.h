// A harmless process under a chosen name.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "proc/proc_list.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

// Sleeps in a read until it is killed or its test is gone.
class named_child {
public:
    explicit named_child(const std::string& name) {
        std::string first_word = "/zarvo-test/" + name;
        int in_fd = input_.out.get();
        pid_ = fork_child([&first_word, in_fd] {
            dup2(in_fd, STDIN_FILENO);
            execl("/bin/cat", first_word.c_str(), static_cast<char*>(nullptr));
            return 127;
        });
        is_named_ =
            eventually([&] {
                char found[256];
                return has_ended() || (proc_get_pidname(pid_, found, sizeof found) == 1 && name == found);
            }) &&
            !has_ended();
    }
    named_child(const named_child&) = delete;
    named_child& operator=(const named_child&) = delete;
    ~named_child() {
        kill(pid_, SIGKILL);
        wait_status(pid_);
    }

    pid_t pid() const { return pid_; }
    // False where /bin/cat chooses what it is by its name, and has ended.
    bool is_named() const { return is_named_; }

private:
    bool has_ended() const {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid == pid_;
    }

    test_pipe input_;
    pid_t pid_ = -1;
    bool is_named_ = false;
};

// The pid of a process that is no more.
inline pid_t dead_pid() {
    pid_t pid = fork_child([] { return 0; });
    wait_status(pid);
    return pid;
}
