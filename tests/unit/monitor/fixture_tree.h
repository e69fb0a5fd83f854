// An invented proc file system and a monitor that watches it.
#pragma once

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "monitor/monitor.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/temp_dir.h"

// How many descriptors a process has of each kind. The links of `named_pipes` are in the kernel's format.
struct tree_fds {
    int plain = 0;
    int sockets = 0;
    int pipes = 0;
    int named_pipes = 0;
};

// A folder in /dev/shm if possible: creating thousands of links on a disk is slow.
class memory_dir {
public:
    const temp_dir& get() const { return dir_; }

private:
    struct memory_first {
        memory_first() {
            const char* usual = getenv("TMPDIR");
            before = usual ? usual : "";
            if (access("/dev/shm", W_OK) == 0) {
                setenv("TMPDIR", "/dev/shm", 1);
            }
        }
        std::string before;
    };
    struct usual_again {
        explicit usual_again(const std::string& before) {
            before.empty() ? unsetenv("TMPDIR") : setenv("TMPDIR", before.c_str(), 1);
        }
    };
    memory_first first_;
    temp_dir dir_;
    usual_again again_{first_.before};
};

class fixture_tree {
public:
    const char* root() const { return dir_.path().c_str(); }
    std::string path(const std::string& name) const { return dir_.path(name); }

    // A process with a command line, a stat line, an executable and no descriptors. Pids from 7000000 are
    // never those of the test itself.
    void add(int pid, const std::string& name, int ppid = 0) {
        set_cmdline(pid, "/usr/bin/" + name);
        set_stat(pid, std::to_string(pid) + " (" + name + ") S " + std::to_string(ppid) + " 1 1 0 -1\n");
        link(pid, "exe", "/usr/bin/" + name);
        set_fds(pid, {});
    }
    // A kernel thread has neither a command line nor an executable.
    void add_kernel_thread(int pid, const std::string& name, int ppid = 2) {
        add(pid, name, ppid);
        set_cmdline(pid, "");
        erase(pid, "exe");
    }
    void set_cmdline(int pid, const std::string& bytes) { write(pid, "cmdline", bytes + '\0'); }
    void set_stat(int pid, const std::string& bytes) { write(pid, "stat", bytes); }
    void set_parent(int pid, int ppid) {
        set_stat(pid, std::to_string(pid) + " (x) S " + std::to_string(ppid) + " 1 1 0 -1\n");
    }
    // Processes with the same descriptors share one folder, so that changing them is cheap.
    void set_fds(int pid, const tree_fds& fds) {
        erase(pid, "fd");
        link(pid, "fd", "../" + pool(fds));
    }
    void write(int pid, const std::string& file, const std::string& bytes) {
        dir_.write_file(std::to_string(pid) + "/" + file, bytes);
    }
    void link(int pid, const std::string& file, const std::string& target) {
        std::string at = path(std::to_string(pid) + "/" + file);
        unlink(at.c_str());
        EXPECT_EQ(symlink(target.c_str(), at.c_str()), 0) << at;
    }
    void erase(int pid, const std::string& file) {
        std::error_code ignored;
        std::filesystem::remove_all(path(std::to_string(pid) + "/" + file), ignored);
    }
    void remove(int pid) {
        std::error_code error;
        std::filesystem::remove_all(path(std::to_string(pid)), error);
        EXPECT_FALSE(error) << pid;
    }

private:
    std::string pool(const tree_fds& fds) {
        std::string name = "fds-" + std::to_string(fds.plain) + "-" + std::to_string(fds.sockets) + "-" +
                           std::to_string(fds.pipes) + "-" + std::to_string(fds.named_pipes);
        if (access(path(name).c_str(), F_OK) != 0) {
            dir_.make_folder(name);
            int number = 0;
            fill(name, &number, fds.plain, "/dev/null");
            fill(name, &number, fds.sockets, "socket:[81234]");
            fill(name, &number, fds.pipes, "pipe:[");
            fill(name, &number, fds.named_pipes, "pipe:[4711]");
        }
        return name;
    }
    void fill(const std::string& folder, int* number, int count, const char* target) {
        for (int i = 0; i < count; i++) {
            std::string at = path(folder + "/" + std::to_string((*number)++));
            EXPECT_EQ(symlink(target, at.c_str()), 0) << at;
        }
    }

    memory_dir memory_;
    const temp_dir& dir_ = memory_.get();
};

// A monitor of a tree, with its status file in a folder of its own.
class watched_tree {
public:
    watched_tree() : m(monitor_create_at(tree.root(), status_path_.c_str())) {}
    watched_tree(const watched_tree&) = delete;
    watched_tree& operator=(const watched_tree&) = delete;
    ~watched_tree() { monitor_destroy(m); }

    // Runs one round. Returns what it printed on standard error.
    std::string round() {
        return capture_stderr([this] { monitor_run(m); });
    }
    std::string rounds(int count) {
        return capture_stderr([this, count] {
            for (int i = 0; i < count; i++) {
                monitor_run(m);
            }
        });
    }
    std::string status() const {
        unique_fd file(open(status_path_.c_str(), O_RDONLY | O_CLOEXEC));
        EXPECT_TRUE(file);
        return content_of(file.get());
    }
    // The status without its first two lines, which it checks.
    std::string status_body() const {
        char head[64];
        snprintf(head, sizeof head, "Debug monitor status round=%lx\n\n",
                 static_cast<unsigned long>(m->round - 1));
        std::string all = status();
        EXPECT_EQ(all.substr(0, strlen(head)), head);
        return all.substr(std::min(all.size(), strlen(head)));
    }
    const temp_dir& status_folder() const { return folder_; }

private:
    temp_dir folder_;
    std::string status_path_ = folder_.path("status.txt");

public:
    fixture_tree tree;
    monitor* m;
};

inline std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// One line of a block about descriptors.
inline std::string history_line(int label, int all, int sockets, int pipes) {
    char line[128];
    snprintf(line, sizeof line, "%dh nr_fd=%d nr_sock=%d nr_pipe=%d\n", label, all, sockets, pipes);
    return line;
}
