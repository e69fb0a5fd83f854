// A private machine for code that examines all processes or uses fixed folders: it has its own processes,
// mounts and network, an empty /run, and access to neither kernel memory nor kernel settings.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/unit/support/children.h"

inline constexpr int private_machine_refused = 77;
inline constexpr const char* private_machine_refusal = "no root, or no namespaces: no private machine";

inline bool mount_private_machine() {
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("proc", "/proc", "proc", 0, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0 &&
           mount("tmpfs", "/proc/sys", "tmpfs", 0, nullptr) == 0 &&
           (access("/proc/kcore", F_OK) != 0 ||
            mount("/dev/null", "/proc/kcore", nullptr, MS_BIND, nullptr) == 0);
}

// The first process of the machine. Starts `work` and reaps all children until it has ended.
template <typename Work>
int reap_until_done(Work work) {
    if (!mount_private_machine()) {
        return private_machine_refused;
    }
    pid_t worker = fork_child([&work] {
        work();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    for (;;) {
        int status = 0;
        pid_t ended = wait(&status);
        if (ended == worker || (ended < 0 && errno != EINTR)) {
            return ended == worker && WIFEXITED(status) ? WEXITSTATUS(status) : 2;
        }
    }
}

// Runs `work` on a private machine, where EXPECT_ can be used. Returns 0, private_machine_refused, or another
// number if something failed. All processes that `work` started end with it.
template <typename Work>
int run_on_private_machine(Work work) {
    int status = run_in_child([&work] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (unshare(CLONE_NEWPID | CLONE_NEWNS | CLONE_NEWNET) != 0) {
            return private_machine_refused;
        }
        int first = run_in_child([&work] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            return reap_until_done(work);
        });
        return WIFEXITED(first) ? WEXITSTATUS(first) : 3;
    });
    return WIFEXITED(status) ? WEXITSTATUS(status) : 4;
}
