// Processes for a test to trace, and checks of their state.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/sys_run.h"
#include "common/unique_fd.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/command_line.h"
#include "tests/unit/support/pipes.h"
#include "trace/strace.h"

// The value of a line of /proc/PID/status without leading blanks; empty if the process is gone.
inline std::string status_field(pid_t pid, const std::string& key) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(key + ":")) {
            size_t value = line.find_first_not_of(" \t", key.size() + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "";
}

inline char state_of(pid_t pid) {
    std::string state = status_field(pid, "State");
    return state.empty() ? '-' : state[0];
}

inline bool is_traced(pid_t pid) {
    return status_field(pid, "TracerPid") != "0";
}

inline std::vector<pid_t> threads_of(pid_t pid) {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        found.push_back(atoi(entry.path().filename().c_str()));
    }
    return found;
}

// The process is neither traced nor stopped.
inline void expect_free(pid_t pid) {
    EXPECT_EQ(status_field(pid, "TracerPid"), "0");
    EXPECT_TRUE(eventually([pid] { return state_of(pid) == 'S' || state_of(pid) == 'R'; })) << state_of(pid);
}

// A child that runs `work`. Killed at the end of its owner's life unless it has been reaped.
class tracee {
public:
    template <typename Work>
    explicit tracee(Work work) : pid_(fork_child(work)) {
        if (pid_ < 2) {
            abort();  // kill(2) with -1 would reach all processes
        }
    }
    tracee(const tracee&) = delete;
    tracee& operator=(const tracee&) = delete;
    ~tracee() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            wait_status(pid_);
        }
    }
    pid_t pid() const {
        if (pid_ < 2) {
            abort();  // it was reaped
        }
        return pid_;
    }
    bool asleep() const {
        return eventually([this] { return state_of(pid_) == 'S'; });
    }
    // Waits for its end. Returns the wait status.
    int end() {
        int status = wait_status(pid_);
        pid_ = -1;
        return status;
    }
    // The same for a child that the tracer may have reaped, as it does when the child is killed.
    void end_if_left() {
        EXPECT_TRUE(eventually([this] { return waitpid(pid_, nullptr, WNOHANG) != 0; }));
        pid_ = -1;
    }
    void was_reaped() { pid_ = -1; }

private:
    pid_t pid_;
};

inline int sleep_for_ever() {
    for (;;) {
        pause();
    }
}

inline int call_for_ever() {
    for (;;) {
        getppid();
    }
}

inline int spin() {
    for (volatile int i = 0;;) {
        i = i + 1;
    }
}

// A grandchild of the test. Only a tracer can wait for it. Killed at the end of its owner's life.
class stranger {
public:
    explicit stranger(int (*work)()) {
        test_pipe pipe;
        int report = pipe.in.get();
        pid_t parent = fork_child([report, work] {
            pid_t pid = fork();
            if (pid == 0) {
                _exit(work());
            }
            (void)!write(report, &pid, sizeof pid);
            return 0;
        });
        ssize_t got;
        do {
            got = read(pipe.out.get(), &pid_, sizeof pid_);
        } while (got < 0 && errno == EINTR);
        wait_status(parent);
        if (got != static_cast<ssize_t>(sizeof pid_) || pid_ < 2) {
            abort();  // kill(2) with -1 would reach all processes
        }
    }
    stranger(const stranger&) = delete;
    stranger& operator=(const stranger&) = delete;
    ~stranger() { kill(pid_, SIGKILL); }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

#if defined(__SANITIZE_THREAD__)
#define SKIP_WITHOUT_VFORK() GTEST_SKIP() << "the sanitizer makes a vfork a fork"
#else
#define SKIP_WITHOUT_VFORK() \
    do {                     \
    } while (false)
#endif

// A process in an uninterruptible sleep, as the parent of a vfork is until its child ends, and then in an
// interruptible one.
class unreachable_tracee {
public:
    unreachable_tracee()
        : parent_([this] {
              gate_.in.reset();
              if (vfork() == 0) {
                  char byte;
                  (void)!read(gate_.out.get(), &byte, 1);
                  _exit(0);
              }
              return sleep_for_ever();
          }) {
        EXPECT_TRUE(eventually([this] { return state_of(pid()) == 'D'; })) << state_of(pid());
    }
    unreachable_tracee(const unreachable_tracee&) = delete;
    unreachable_tracee& operator=(const unreachable_tracee&) = delete;
    ~unreachable_tracee() { make_reachable(); }
    pid_t pid() const { return parent_.pid(); }
    // Writes a byte: another child may hold the pipe open as well.
    void make_reachable() {
        if (gate_.in) {
            EXPECT_EQ(write(gate_.in.get(), "x", 1), 1);
            gate_.in.reset();
        }
    }

private:
    test_pipe gate_;
    tracee parent_;
};

inline size_t count_in(const std::string& text, const std::string& what) {
    size_t found = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        found++;
    }
    return found;
}

// A trace that keeps its text in memory.
struct traced_text {
    strace_ctx ctx = {};
    std::vector<pid_t> pids;
    std::string text;
    std::function<bool(const traced_text&)> goes_on = [](const traced_text&) { return true; };
    int polls = 0;

    explicit traced_text(std::vector<pid_t> traced, uint32_t flags = strace_everything)
        : pids(std::move(traced)) {
        ctx.write = write;
        ctx.cookie = this;
        ctx.flags = flags;
        ctx.pids = pids.data();
        ctx.nr_pids = static_cast<int32_t>(pids.size());
        ctx.seconds = -1;
    }
    traced_text(const traced_text&) = delete;
    traced_text& operator=(const traced_text&) = delete;

    // Traces until `goes_on` returns false or the processes have ended. Returns the text.
    const std::string& run() {
        do_strace(&ctx);
        EXPECT_EQ(ctx.buf, nullptr);
        return text;
    }
    bool has(const std::string& what) const { return text.find(what) != std::string::npos; }
    size_t count(const std::string& what) const { return count_in(text, what); }

    static int32_t write(void* cookie, const char* piece, int length) {
        auto* self = static_cast<traced_text*>(cookie);
        self->polls += length == 0;
        self->text.append(piece, static_cast<size_t>(length));
        return self->goes_on(*self);
    }
};

// A child that does `work` when its gate is opened.
struct gated_child {
    test_pipe gate;
    tracee child;

    template <typename Work>
    explicit gated_child(Work work)
        : child([this, work] {
              char byte;
              gate.in.reset();
              (void)!read(gate.out.get(), &byte, 1);
              return work();
          }) {
        EXPECT_TRUE(child.asleep());
    }
    void open_gate() { EXPECT_EQ(write(gate.in.get(), "x", 1), 1); }
    pid_t pid() const { return child.pid(); }
};

// A child and its trace. The gate opens as soon as the child is traced.
template <typename Work>
struct traced_child : gated_child {
    traced_text trace;
    bool opened = false;

    explicit traced_child(Work work, uint32_t flags = strace_everything)
        : gated_child(work), trace({gated_child::pid()}, flags) {
        trace.ctx.seconds = 20;  // a failing test does not hang
        opener_ = std::thread([this] {
            eventually([this] { return is_traced(gated_child::pid()); });
            open_gate();
        });
    }
    ~traced_child() { join(); }
    const std::string& run() {
        trace.run();
        join();
        return trace.text;
    }
    void join() {
        if (opener_.joinable()) {
            opener_.join();
        }
    }

private:
    std::thread opener_;
};

// Starts a program that this process traces, with /dev/null as its standard descriptors. It stops before its
// first instruction. Without `program`, the first word of the command line is the program.
inline pid_t start_traced(const std::vector<std::string>& list, const char* program = nullptr) {
    command_line given(list);
    unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    pid_t pid = sys_run_nowait(program ? program : given.argv()[0], given.argv(), null.get(), null.get(),
                               null.get(), 1);
    EXPECT_TRUE(WIFSTOPPED(wait_status(pid)));
    return pid;
}

// The short name of this program in a trace: the last part of the first 31 bytes of its own path.
inline std::string own_name() {
    std::string begin = std::string(program_invocation_name).substr(0, 31);
    return begin.substr(begin.rfind('/') + 1);
}

// Keeps this thread and its children on one processor for the length of a block.
class scoped_processor {
public:
    scoped_processor() {
        EXPECT_EQ(sched_getaffinity(0, sizeof old_, &old_), 0);
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        EXPECT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    }
    scoped_processor(const scoped_processor&) = delete;
    scoped_processor& operator=(const scoped_processor&) = delete;
    ~scoped_processor() { EXPECT_EQ(sched_setaffinity(0, sizeof old_, &old_), 0); }

private:
    cpu_set_t old_;
};
