// Private namespaces for code that examines all processes or uses fixed folders.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "common/unique_fd.h"
#include "tests/unit/support/children.h"

// Exit code if the namespaces could not be made.
constexpr int no_private_world = 77;

// Gives this mount namespace its own /proc and its own folders, empty at first.
inline bool mount_private_folders() {
    for (const char* folder : {"/tmp", "/etc", "/usr/sbin", "/var/run"}) {
        if (mount("tmpfs", folder, "tmpfs", 0, "mode=0755") != 0) {
            return false;
        }
    }
    return mount("proc", "/proc", "proc", 0, nullptr) == 0;
}

// Runs `work` as process 2 of new PID, mount and network namespaces. It sees itself, its parent and its
// children; the files of the machine cannot change. Returns the pid to wait for; its exit code is the result
// of `work`, or no_private_world. All of these processes die with their parent.
template <typename Work>
pid_t start_in_private_world(Work work) {
    return fork_child([&work] {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (unshare(CLONE_NEWPID | CLONE_NEWNS | CLONE_NEWNET) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return no_private_world;
        }
        int status = run_in_child([&work] {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (!mount_private_folders()) {
                return no_private_world;
            }
            int inner = run_in_child(work);
            return WIFEXITED(inner) ? WEXITSTATUS(inner) : 128 + WTERMSIG(inner);
        });
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    });
}

// Runs `work` in a private world, waits for it and returns its exit code.
template <typename Work>
int run_in_private_world(Work work) {
    int status = wait_status(start_in_private_world(work));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline bool private_world_works() {
    static const bool works = geteuid() == 0 && run_in_private_world([] { return 0; }) == 0;
    return works;
}

#define SKIP_WITHOUT_PRIVATE_WORLD()                                                \
    do {                                                                            \
        if (!private_world_works()) {                                               \
            GTEST_SKIP() << "needs root and private PID, mount and net namespaces"; \
        }                                                                           \
    } while (false)

// For use in a private world: installs a shell script as `path`.
inline bool install_script(const char* path, const std::string& body) {
    unique_fd file(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0755));
    std::string text = "#!/bin/sh\n" + body;
    return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// For use in a private world: writes a file with `text` and creates its missing folders.
inline bool install_file(const std::string& path, const std::string& text) {
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0755);
    }
    unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    return file && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}
