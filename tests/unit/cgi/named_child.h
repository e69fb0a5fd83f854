// A harmless process under a chosen name.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "proc/proc_list.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

// Executes the test program itself under the name: another program, such as /bin/cat, may be a multi-call
// binary that chooses its command by its name.
inline constexpr const char* named_child_request = "ZARVO_TEST_NAMED_CHILD";

inline const bool named_child_is_not_wanted = [] {
    if (getenv(named_child_request) != nullptr) {
        char byte;
        _exit(static_cast<int>(read(STDIN_FILENO, &byte, 1)));
    }
    return true;
}();

// A process that sleeps in a read until it is killed or its test has ended.
class named_child {
public:
    explicit named_child(const std::string& name) {
        std::string first_word = "/zarvo-test/" + name;
        int in_fd = input_.out.get();
        pid_ = fork_child([&first_word, in_fd] {
            dup2(in_fd, STDIN_FILENO);
            setenv(named_child_request, "", 1);
            execl("/proc/self/exe", first_word.c_str(), static_cast<char*>(nullptr));
            return 127;
        });
        EXPECT_TRUE(eventually([&] {
            char found[256];
            return proc_get_pidname(pid_, found, sizeof found) == 1 && name == found;
        })) << name;
    }
    named_child(const named_child&) = delete;
    named_child& operator=(const named_child&) = delete;
    ~named_child() {
        kill(pid_, SIGKILL);
        wait_status(pid_);
    }

    pid_t pid() const { return pid_; }

private:
    test_pipe input_;
    pid_t pid_ = -1;
};

// The pid of a process that has ended and has been reaped.
inline pid_t dead_pid() {
    pid_t pid = fork_child([] { return 0; });
    wait_status(pid);
    return pid;
}
